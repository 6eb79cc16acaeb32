#pragma once

#include "platform/base.h"

// Modules that a program loads while it runs.

#ifndef _WIN32

using HMODULE = void *;
using FARPROC = LONG_PTR(WINAPI *)();

/// As Win32: counts loads, and runs the module's initialisers at the first. The default ending is
/// ".so". A name without a folder is looked for beside the program, then where the system looks. Null
/// with ERROR_MOD_NOT_FOUND when the module or one that it needs cannot be loaded,
/// ERROR_INVALID_PARAMETER for a null or empty name.
HMODULE LoadLibraryA(char const *pszName);

/// As Win32: the module if it is loaded, without counting. Except: null for pszName, which stands for
/// the program there, fails with ERROR_INVALID_PARAMETER.
HMODULE GetModuleHandleA(char const *pszName);

/// As Win32, except: names only. Null with ERROR_PROC_NOT_FOUND.
FARPROC GetProcAddress(HMODULE hModule, char const *pszName);

/// As Win32: the last one runs the module's terminators and takes it out of the process. FALSE with
/// ERROR_INVALID_HANDLE for null.
BOOL FreeLibrary(HMODULE hModule);

#endif

/// GetProcAddress for a function of the type `Fn`, which nobody checks.
template <typename Fn>
Fn *PlatProcAddress(HMODULE hModule, char const *pszName)
{
    // By way of the type that compilers take for "some function".
    return reinterpret_cast<Fn *>(reinterpret_cast<void (*)()>(GetProcAddress(hModule, pszName)));
}
