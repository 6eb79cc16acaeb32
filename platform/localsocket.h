#pragma once

/// @file
/// Stream sockets between processes of one machine, under a path. They are sockets like others: accept
/// (without addresses), recv, send, shutdown, closesocket and PlatSocketWait take them.

#include "platform/socket.h"

/// Listens at the path, which only this user may connect to; a file that a listener which is gone has left
/// there gives way. The file stays when the socket is closed. INVALID_SOCKET with WSAGetLastError:
/// WSAEADDRINUSE when somebody listens there or it is another file, WSAEFAULT for a path that is too long,
/// WSAEADDRNOTAVAIL without its folder, WSAEACCES, and WSAEAFNOSUPPORT always on Windows.
SOCKET PlatListenLocal(char const *pszPath);

/// Connects to a listener at the path. INVALID_SOCKET with WSAGetLastError as above; WSAECONNREFUSED when
/// nobody listens there.
SOCKET PlatConnectLocal(char const *pszPath);
