#pragma once

#include "platform/base.h"

// What a person or the system asks of a program at its terminal.

#ifndef _WIN32

inline constexpr DWORD CTRL_C_EVENT = 0u;
inline constexpr DWORD CTRL_BREAK_EVENT = 1u;
inline constexpr DWORD CTRL_CLOSE_EVENT = 2u;

using PHANDLER_ROUTINE = BOOL(WINAPI *)(DWORD dwCtrlType);

/// As Win32, except:
/// - SIGINT is CTRL_C_EVENT, SIGHUP is CTRL_BREAK_EVENT (a reload, by custom), SIGTERM is
///   CTRL_CLOSE_EVENT; other signals keep their own meaning;
/// - all events are handled one after the other on one thread of the layer, never inside a signal
///   handler, so a handler may take locks and write files; that thread ends when the last handler has
///   been removed;
/// - a handler that took CTRL_CLOSE_EVENT is not followed by the end of the process: the program ends
///   by itself.
/// The handler added last is asked first; FALSE passes the event to the one before it, and an event
/// that none takes does what its signal does by default. A null handler with fAdd ignores SIGINT, and
/// with FALSE no longer.
/// Adding the first handler also has SIGPIPE ignored if nothing else was arranged for it, since a
/// program that handles its console must not die of a reader that went away.
/// Failure: ERROR_INVALID_PARAMETER for a handler that was not there.
BOOL WINAPI SetConsoleCtrlHandler(PHANDLER_ROUTINE pfnHandler, BOOL fAdd);

#endif
