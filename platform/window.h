#pragma once

/// @file
/// Windows and messages: what a sender of WM_COPYDATA needs, and the receiving side for a viewer.
///
/// On POSIX a "window" is a socket in the user's run directory, named by its title: only processes of
/// the same user find it or are heard by it. One message travels as
///
///     sender  -> viewer   magic "QWM1", payload size (32 bits), dwData (64 bits), payload
///     viewer  -> sender   the answer (64 bits), once the callback has returned
///
/// in host byte order, over a connection that FindWindowA opens. The viewer drops a sender whose header
/// is wrong or asks for more than kcbMaxCopyData.

#include "platform/base.h"

#include <cstdint>

#ifdef _WIN32

#include <winuser.h>

#else

struct HWND__;
using HWND = HWND__ *;

struct COPYDATASTRUCT {
    ULONG_PTR dwData;
    DWORD cbData; ///< bytes
    void *lpData;
};

inline constexpr UINT WM_COPYDATA = 0x4A;
inline constexpr UINT MB_OK = 0;
inline constexpr int IDOK = 1;

/// As Win32, the case of ASCII letters in the title not counting. A window that was found before and
/// lives gives the same handle. Except: the class must be null and the title not
/// (ERROR_INVALID_PARAMETER); a title that no window has gives null with ERROR_FILE_NOT_FOUND. Only
/// windows of PlatCreateViewerWindow exist. One with a long queue of others at its door is given half a
/// second, and then counts as missing (ERROR_BUSY).
HWND FindWindowA(char const *pszClass, char const *pszTitle);

/// As Win32: returns the window's answer when the window has handled the message, however long that
/// takes; messages to one window go one after the other. 0 with ERROR_INVALID_WINDOW_HANDLE when there
/// is no such window, or when its process ends or closes it while we wait. A window that has gone stays
/// gone: another one with its title has another handle. Except: nMessage must be WM_COPYDATA and the
/// payload at most kcbMaxCopyData bytes (ERROR_INVALID_PARAMETER).
LRESULT SendMessageA(HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam);

/// Writes caption and text to the standard error stream as one line and returns IDOK at once.
int MessageBoxA(HWND hOwner, char const *pszText, char const *pszCaption, UINT nStyle);

/// Rings the terminal's bell if the standard error stream is a terminal. Always TRUE.
BOOL MessageBeep(UINT nType);

#endif

/// The longest payload that passes between processes, in bytes.
inline constexpr std::uint32_t kcbMaxCopyData = 4u * 1024 * 1024;

/// Called for each WM_COPYDATA, on the thread that runs the window; the sender waits until it returns.
/// `pData` and what it points to live for the call alone, `cbData` bytes long and not terminated unless
/// the sender saw to it. The result is the sender's answer. Must not throw.
using PlatCopyDataFn = LRESULT (*)(void *pContext, COPYDATASTRUCT const *pData);

/// Makes a window with this title that hands each WM_COPYDATA to `pfnCopyData`. On Windows it is a real
/// top-level window that is never shown. Messages are handled only while PlatRunViewerWindow runs, which
/// the creating thread must do. Null on failure: ERROR_ALREADY_EXISTS if a living window has the title
/// (what one that was killed left behind is replaced), ERROR_INVALID_PARAMETER for a null argument. The
/// caller owns the window and ends it with PlatDestroyViewerWindow.
HWND PlatCreateViewerWindow(char const *pszTitle, PlatCopyDataFn pfnCopyData, void *pContext);

/// Handles messages until PlatCloseViewerWindow, which may have come before. TRUE for such an orderly
/// end, FALSE with the last error otherwise (ERROR_INVALID_THREAD_ID: not the creating thread).
BOOL PlatRunViewerWindow(HWND hWnd);

/// Lets PlatRunViewerWindow return, soon. Any thread, as long as the window is not destroyed.
void PlatCloseViewerWindow(HWND hWnd);

/// Removes the window; senders that wait get 0. Call on the creating thread, not out of the callback.
void PlatDestroyViewerWindow(HWND hWnd);
