#pragma once

/// @file
/// Structured storage: compound files with streams, by the names that ole32 gives them.
///
/// Objects are for one thread at a time, whichever. A storage of this layer holds its contents in memory
/// and writes the whole file anew, beside the old one, when its last reference goes; the new file then
/// takes the old one's place in one step. A process that is killed before leaves the old file, or, where
/// there was none, an empty file that StgOpenStorage refuses. Room on the disk is reserved by each write,
/// so that a disk that is full says so in IStream::Write; what shows only at the end (a file system that
/// cannot reserve, a quota there, a folder that has lost its rights) is told by PlatCloseStorage, and the old
/// file stays.
///
/// What it costs to replace a file instead of changing it: until the end there has to be room for both. The
/// folder must let the user make and rename files in it, beside a file that is only to be changed too (the
/// first write fails with STG_E_ACCESSDENIED otherwise). The new file keeps the old one's permissions; it
/// belongs to who wrote it, other names of the old file (hard links) keep the old contents, and extended
/// attributes are lost. A symbolic link stays one. While it is written it is called ".NUMBER.aside".

#include "platform/base.h"
#include "platform/com.h"

#ifdef _WIN32

#include <objbase.h>
#include <ole2.h>

inline HRESULT PlatCloseStorage(IStorage *pStorage)
{
    pStorage->Release();
    return S_OK;
}

#else

#include <cstdint>

using OLECHAR = wchar_t;
using CLIPFORMAT = WORD;

union LARGE_INTEGER {
    std::int64_t QuadPart;
};
union ULARGE_INTEGER {
    std::uint64_t QuadPart;
};

inline constexpr DWORD STGM_READ = 0;
inline constexpr DWORD STGM_WRITE = 1;
inline constexpr DWORD STGM_READWRITE = 2;
inline constexpr DWORD STGM_SHARE_EXCLUSIVE = 0x10;
inline constexpr DWORD STGM_CREATE = 0x1000;

inline constexpr DWORD STREAM_SEEK_SET = 0;
inline constexpr DWORD STREAM_SEEK_CUR = 1;
inline constexpr DWORD STREAM_SEEK_END = 2;

inline constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
inline constexpr HRESULT DV_E_CLIPFORMAT = static_cast<HRESULT>(0x8004006Au);
inline constexpr HRESULT STG_E_INVALIDFUNCTION = static_cast<HRESULT>(0x80030001u);
inline constexpr HRESULT STG_E_FILENOTFOUND = static_cast<HRESULT>(0x80030002u);
inline constexpr HRESULT STG_E_PATHNOTFOUND = static_cast<HRESULT>(0x80030003u);
inline constexpr HRESULT STG_E_ACCESSDENIED = static_cast<HRESULT>(0x80030005u);
inline constexpr HRESULT STG_E_INSUFFICIENTMEMORY = static_cast<HRESULT>(0x80030008u);
inline constexpr HRESULT STG_E_INVALIDPOINTER = static_cast<HRESULT>(0x80030009u);
inline constexpr HRESULT STG_E_WRITEFAULT = static_cast<HRESULT>(0x8003001Du);
inline constexpr HRESULT STG_E_READFAULT = static_cast<HRESULT>(0x8003001Eu);
inline constexpr HRESULT STG_E_SHAREVIOLATION = static_cast<HRESULT>(0x80030020u);
inline constexpr HRESULT STG_E_FILEALREADYEXISTS = static_cast<HRESULT>(0x80030050u);
inline constexpr HRESULT STG_E_INVALIDPARAMETER = static_cast<HRESULT>(0x80030057u);
inline constexpr HRESULT STG_E_MEDIUMFULL = static_cast<HRESULT>(0x80030070u);
inline constexpr HRESULT STG_E_INVALIDNAME = static_cast<HRESULT>(0x800300FCu);
inline constexpr HRESULT STG_E_INVALIDFLAG = static_cast<HRESULT>(0x800300FFu);
inline constexpr HRESULT STG_E_REVERTED = static_cast<HRESULT>(0x80030102u);
inline constexpr HRESULT STG_E_DOCFILECORRUPT = static_cast<HRESULT>(0x80030109u);
inline constexpr HRESULT STG_E_DOCFILETOOLARGE = static_cast<HRESULT>(0x80030111u);

constexpr bool SUCCEEDED(HRESULT hr)
{
    return hr >= 0;
}
constexpr bool FAILED(HRESULT hr)
{
    return hr < 0;
}

/// A stream of an open storage, with a position of its own. When its storage goes first, every call
/// gives STG_E_REVERTED, and only Release is left.
struct IStream {
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;
    /// As ole32: fewer bytes than asked for, and S_OK, at the end of the stream.
    virtual HRESULT Read(void *pBuffer, ULONG cb, ULONG *pcbRead) = 0;
    /// As ole32. All or nothing: STG_E_MEDIUMFULL and a count of 0 when the disk is full, or the file would
    /// grow beyond this process's limit or 1 GiB.
    virtual HRESULT Write(void const *pBuffer, ULONG cb, ULONG *pcbWritten) = 0;
    /// As ole32: positions behind the end are allowed, those before the start STG_E_INVALIDFUNCTION.
    virtual HRESULT Seek(LARGE_INTEGER nMove, DWORD dwOrigin, ULARGE_INTEGER *pnPosition) = 0;

protected:
    ~IStream() = default;
};

/// An open compound file; the directory at its root. As ole32, except: streams only (storages within,
/// which other programs may have made, are kept but can't be opened), and all modes are direct with
/// STGM_SHARE_EXCLUSIVE (STG_E_INVALIDFLAG otherwise).
struct IStorage {
    virtual ULONG AddRef() = 0;
    /// The last reference writes the file if anything has changed; PlatCloseStorage tells whether it could.
    virtual ULONG Release() = 0;
    /// STGM_CREATE replaces a stream of the name; without it STG_E_FILEALREADYEXISTS. One that is open
    /// gives STG_E_ACCESSDENIED. Names have 1 to 31 characters, none of "/\:!".
    virtual HRESULT CreateStream(OLECHAR const *pszName, DWORD dwMode, DWORD dwReserved1,
                                 DWORD dwReserved2, IStream **ppStream) = 0;
    /// STG_E_FILENOTFOUND without such a stream, STG_E_ACCESSDENIED for one that is open already.
    virtual HRESULT OpenStream(OLECHAR const *pszName, void *pReserved, DWORD dwMode,
                               DWORD dwReserved, IStream **ppStream) = 0;

protected:
    ~IStorage() = default;
};

/// IStorage::Release, and what became of the file if that was the last reference: S_OK, or why the old file
/// is still the one that is there (STG_E_WRITEFAULT, STG_E_ACCESSDENIED, STG_E_INSUFFICIENTMEMORY). The
/// storage is released in any case. On Windows always S_OK: each write has gone to the file.
HRESULT PlatCloseStorage(IStorage *pStorage);

using SNB = OLECHAR **;

/// @{
/// As ole32, per thread: S_OK the first time, S_FALSE after it. Nothing here needs it.
HRESULT OleInitialize(void *pReserved);
void OleUninitialize();
/// @}

/// As ole32, except: the mode is STGM_WRITE or STGM_READWRITE with STGM_SHARE_EXCLUSIVE, with or without
/// STGM_CREATE, and the name not null. The name is turned into bytes by wcstombs. Others that open the
/// file, in this process or another one of this layer, get STG_E_SHAREVIOLATION.
HRESULT StgCreateDocfile(OLECHAR const *pszName, DWORD dwMode, DWORD dwReserved,
                         IStorage **ppStorage);

/// As ole32, except: the mode is STGM_READ or STGM_READWRITE with STGM_SHARE_EXCLUSIVE; no priority
/// storage, no exclusion. STG_E_FILEALREADYEXISTS for a file of another kind; STG_E_DOCFILECORRUPT for
/// a compound file that is cut or whose tables do not agree; STG_E_DOCFILETOOLARGE above 1 GiB.
HRESULT StgOpenStorage(OLECHAR const *pszName, IStorage *pPriority, DWORD dwMode, SNB ppExclude,
                       DWORD dwReserved, IStorage **ppStorage);

/// @{
/// As ole32. ReadClassStg gives all zeros for a storage without a class.
HRESULT WriteClassStg(IStorage *pStorage, REFCLSID clsid);
HRESULT ReadClassStg(IStorage *pStorage, CLSID *pClsid);
/// @}

/// As ole32: writes the stream "\1CompObj". Except: registered formats (0xC000 and up) have no name here
/// and give DV_E_CLIPFORMAT; 0 stands for none. Characters outside ASCII become "?" in the record's old
/// text, and are whole in its UTF-16 text.
HRESULT WriteFmtUserTypeStg(IStorage *pStorage, CLIPFORMAT cf, OLECHAR *pszUserType);

#endif
