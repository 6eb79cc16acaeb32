#include "platform/localsocket.h"

SOCKET PlatListenLocal(char const *)
{
    WSASetLastError(WSAEAFNOSUPPORT);
    return INVALID_SOCKET;
}

SOCKET PlatConnectLocal(char const *)
{
    WSASetLastError(WSAEAFNOSUPPORT);
    return INVALID_SOCKET;
}
