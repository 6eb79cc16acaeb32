#pragma once

// What the two halves of the socket family share.

// True between WSAStartup and its WSACleanup; otherwise the last error is WSANOTINITIALISED.
bool SocketsAreStarted();
