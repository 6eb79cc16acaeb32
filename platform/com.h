#pragma once

/// @file
/// The few words of COM that structured storage and the services share.

#include "platform/base.h"

#ifdef _WIN32

#include <objbase.h>

#else

#include <cstdint>

// Guarded the way Windows' own headers guard it.
#ifndef GUID_DEFINED
#define GUID_DEFINED
struct GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];

    friend bool operator==(GUID const &, GUID const &) = default;
};
#endif

using CLSID = GUID;
using IID = GUID;
using REFCLSID = CLSID const &;
using REFIID = IID const &;
using HRESULT = LONG;
struct IUnknown;

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
inline constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
inline constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
inline constexpr HRESULT REGDB_E_CLASSNOTREG = static_cast<HRESULT>(0x80040154u);

#endif
