#include "platform/posix/storage/storage_tree.h"

#include "platform/lock.h"
#include "platform/posix/kernel/signalguard.h"
#include "platform/posix/storage/storage_check.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <glib.h>
#include <gsf/gsf-infile-msole.h>
#include <gsf/gsf-infile.h>
#include <gsf/gsf-input-memory.h>
#include <gsf/gsf-outfile-msole.h>
#include <gsf/gsf-outfile.h>
#include <gsf/gsf-output-stdio.h>
#include <gsf/gsf-utils.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

static_assert(sizeof(CLSID) == 16, "the class identifier goes to the file as it lies in memory");

// The library's types and the objects of one storage are not made for several threads.
CPlatMutex g_gsfMutex; // a leaf

struct ObjectRelease {
    void operator()(void *pObject) const { g_object_unref(pObject); }
};
template <class T>
using GsfPtr = std::unique_ptr<T, ObjectRelease>;

void InitLibrary()
{
    static bool const s_fDone = (gsf_init(), true);
    (void)s_fDone;
}

HRESULT ReadWholeFile(int fd, std::unique_ptr<std::uint8_t[]> &pBytes, std::size_t &cb)
{
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        return STG_E_READFAULT;
    }
    if (st.st_size > static_cast<off_t>(kcbMaxStorageFile)) {
        return STG_E_DOCFILETOOLARGE;
    }
    cb = static_cast<std::size_t>(st.st_size);
    pBytes.reset(new std::uint8_t[cb + 1]);
    for (std::size_t cbDone = 0; cbDone < cb;) {
        ssize_t const cbNow =
            ::pread(fd, pBytes.get() + cbDone, cb - cbDone, static_cast<off_t>(cbDone));
        if (cbNow == 0 || (cbNow < 0 && errno != EINTR)) {
            return STG_E_READFAULT;
        }
        cbDone += cbNow > 0 ? static_cast<std::size_t>(cbNow) : 0;
    }
    return S_OK;
}

bool LoadStream(GsfInput *pInput, CStreamBytes &bytes)
{
    auto cbLeft = static_cast<std::uint64_t>(gsf_input_size(pInput));
    while (cbLeft != 0) {
        auto const cbNow =
            static_cast<std::size_t>(std::min<std::uint64_t>(cbLeft, CStreamBytes::kcbChunk));
        guint8 const *pb = gsf_input_read(pInput, cbNow, nullptr);
        if (pb == nullptr) {
            return false;
        }
        bytes.Write(bytes.Size(), pb, cbNow);
        cbLeft -= cbNow;
    }
    return true;
}

bool LoadStorage(GsfInfile *pInfile, CStorageNode &node)
{
    node.m_fStorage = true;
    auto *pbClass = reinterpret_cast<guint8 *>(&node.m_clsid);
    if (!gsf_infile_msole_get_class_id(GSF_INFILE_MSOLE(pInfile), pbClass)) {
        return false;
    }
    int const cNodes = gsf_infile_num_children(pInfile);
    for (int i = 0; i < cNodes; ++i) {
        char const *pszName = gsf_infile_name_by_index(pInfile, i);
        GsfPtr<GsfInput> const pChild(gsf_infile_child_by_index(pInfile, i));
        if (pszName == nullptr || pChild == nullptr) {
            return false;
        }
        node.m_apNodes.push_back(std::make_unique<CStorageNode>());
        CStorageNode &child = *node.m_apNodes.back();
        child.m_strName = pszName;
        bool const fStorage = gsf_infile_num_children(GSF_INFILE(pChild.get())) >= 0;
        if (!(fStorage ? LoadStorage(GSF_INFILE(pChild.get()), child)
                       : LoadStream(pChild.get(), child.m_bytes))) {
            return false;
        }
    }
    return true;
}

bool SaveStream(GsfOutput *pOutput, CStreamBytes const &bytes)
{
    std::unique_ptr<std::uint8_t[]> const pBuffer(new std::uint8_t[CStreamBytes::kcbChunk]);
    for (std::uint64_t nPosition = 0; nPosition < bytes.Size();) {
        std::size_t const cb = bytes.Read(nPosition, pBuffer.get(), CStreamBytes::kcbChunk);
        if (!gsf_output_write(pOutput, cb, pBuffer.get())) {
            return false;
        }
        nPosition += cb;
    }
    return true;
}

bool SaveStorage(GsfOutfile *pOutfile, CStorageNode const &node)
{
    auto const *pbClass = reinterpret_cast<guint8 const *>(&node.m_clsid);
    if (!gsf_outfile_msole_set_class_id(GSF_OUTFILE_MSOLE(pOutfile), pbClass)) {
        return false;
    }
    for (auto const &pNode : node.m_apNodes) {
        GsfPtr<GsfOutput> const pChild(
            gsf_outfile_new_child(pOutfile, pNode->m_strName.c_str(), pNode->m_fStorage));
        if (pChild == nullptr) {
            return false;
        }
        bool const fSaved = pNode->m_fStorage ? SaveStorage(GSF_OUTFILE(pChild.get()), *pNode)
                                              : SaveStream(pChild.get(), pNode->m_bytes);
        // Closed in any case: the library does not like objects that are dropped half-way.
        if (!gsf_output_close(pChild.get()) || !fSaved) {
            return false;
        }
    }
    return true;
}

// Writes the file through a stream of the runtime, which the caller closes. The size in bytes, or -1.
off_t SaveToStream(std::FILE *pFile, CStorageNode const &root)
{
    GsfPtr<GsfOutput> const pSink(gsf_output_stdio_new_FILE("storage", pFile, /*keep_open=*/TRUE));
    GsfPtr<GsfOutfile> const pOutfile(pSink ? gsf_outfile_msole_new(pSink.get()) : nullptr);
    if (pOutfile == nullptr) {
        return -1;
    }
    bool const fSaved = SaveStorage(pOutfile.get(), root);
    bool const fClosed = gsf_output_close(GSF_OUTPUT(pOutfile.get())) != 0;
    auto const cb = static_cast<off_t>(gsf_output_size(pSink.get()));
    // Mostly it has taken its sink with it.
    bool const fSinkClosed = gsf_output_is_closed(pSink.get()) || gsf_output_close(pSink.get());
    return fSaved && fClosed && fSinkClosed && std::fflush(pFile) == 0 ? cb : -1;
}

// Small streams share sectors, but never take more room than sectors of their own would.
std::uint64_t NodeFileSize(CStorageNode const &node)
{
    constexpr std::uint64_t kcbSector = 512;
    constexpr std::uint64_t kcbEntry = 128;
    std::uint64_t cb = kcbEntry + (node.m_bytes.Size() + kcbSector - 1) / kcbSector * kcbSector;
    for (auto const &pNode : node.m_apNodes) {
        cb += NodeFileSize(*pNode);
    }
    return cb;
}

} // namespace

std::size_t CStreamBytes::Read(std::uint64_t nPosition, void *pBuffer, std::size_t cb) const
{
    if (nPosition >= m_cb) {
        return 0;
    }
    cb = static_cast<std::size_t>(std::min<std::uint64_t>(cb, m_cb - nPosition));
    auto *pb = static_cast<std::uint8_t *>(pBuffer);
    for (std::size_t cbDone = 0; cbDone < cb;) {
        auto const nChunk = static_cast<std::size_t>((nPosition + cbDone) / kcbChunk);
        auto const nOffset = static_cast<std::size_t>((nPosition + cbDone) % kcbChunk);
        std::size_t const cbNow = std::min(cb - cbDone, kcbChunk - nOffset);
        if (m_apChunks[nChunk] != nullptr) {
            std::memcpy(pb + cbDone, m_apChunks[nChunk].get() + nOffset, cbNow);
        } else {
            std::memset(pb + cbDone, 0, cbNow);
        }
        cbDone += cbNow;
    }
    return cb;
}

void CStreamBytes::Write(std::uint64_t nPosition, void const *pBuffer, std::size_t cb)
{
    if (cb == 0) {
        return;
    }
    std::uint64_t const nEnd = nPosition + cb;
    auto const nFirst = static_cast<std::size_t>(nPosition / kcbChunk);
    auto const nLast = static_cast<std::size_t>((nEnd - 1) / kcbChunk);
    if (m_apChunks.size() <= nLast) {
        m_apChunks.resize(nLast + 1);
    }
    // All the memory first, so that a write is done wholly or not at all.
    for (std::size_t n = nFirst; n <= nLast; ++n) {
        if (m_apChunks[n] == nullptr) {
            m_apChunks[n].reset(new std::uint8_t[kcbChunk]());
        }
    }
    auto const *pb = static_cast<std::uint8_t const *>(pBuffer);
    for (std::size_t cbDone = 0; cbDone < cb;) {
        auto const nOffset = static_cast<std::size_t>((nPosition + cbDone) % kcbChunk);
        std::size_t const cbNow = std::min(cb - cbDone, kcbChunk - nOffset);
        std::memcpy(m_apChunks[static_cast<std::size_t>((nPosition + cbDone) / kcbChunk)].get() +
                        nOffset,
                    pb + cbDone, cbNow);
        cbDone += cbNow;
    }
    m_cb = std::max(m_cb, nEnd);
}

CStorageNode *CStorageNode::Find(std::string const &strName) const
{
    using Text = std::unique_ptr<gchar, decltype(&g_free)>;
    Text const pszUpper(g_utf8_strup(strName.c_str(), -1), &g_free);
    for (auto const &pNode : m_apNodes) {
        Text const pszOther(g_utf8_strup(pNode->m_strName.c_str(), -1), &g_free);
        if (std::strcmp(pszUpper.get(), pszOther.get()) == 0) {
            return pNode.get();
        }
    }
    return nullptr;
}

std::uint64_t StorageFileSize(CStorageNode const &root)
{
    constexpr std::uint64_t kcbFrame = 8192; // header, the last sectors of each table
    std::uint64_t const cb = NodeFileSize(root);
    return kcbFrame + cb + cb / 64; // a word of the table for each sector, twice over
}

HRESULT StorageLoad(int fd, CStorageNode &root)
{
    std::unique_ptr<std::uint8_t[]> pBytes;
    std::size_t cb = 0;
    HRESULT const hr = ReadWholeFile(fd, pBytes, cb);
    if (FAILED(hr)) {
        return hr;
    }
    if (!StorageLooksRight(pBytes.get(), cb)) {
        return STG_E_FILEALREADYEXISTS;
    }
    // The library trusts more than it should: what it gets to see has been checked.
    if (!StorageIsSound(pBytes.get(), cb)) {
        return STG_E_DOCFILECORRUPT;
    }
    CPlatGuard const lock(g_gsfMutex);
    InitLibrary();
    GsfPtr<GsfInput> const pInput(
        gsf_input_memory_new(pBytes.get(), static_cast<gsf_off_t>(cb), /*needs_free=*/FALSE));
    GError *pError = nullptr;
    GsfPtr<GsfInfile> const pInfile(pInput ? gsf_infile_msole_new(pInput.get(), &pError) : nullptr);
    g_clear_error(&pError);
    return pInfile != nullptr && LoadStorage(pInfile.get(), root) ? S_OK : STG_E_DOCFILECORRUPT;
}

HRESULT StorageSave(int fd, CStorageNode const &root)
{
    CWriteSignalGuard const guard; // the library writes with the runtime's own calls
    int const fdCopy = ::dup(fd);
    std::FILE *pFile = fdCopy >= 0 ? ::fdopen(fdCopy, "wb") : nullptr;
    if (pFile == nullptr) {
        if (fdCopy >= 0) {
            ::close(fdCopy);
        }
        return STG_E_WRITEFAULT;
    }
    off_t cb;
    {
        CPlatGuard const lock(g_gsfMutex);
        InitLibrary();
        cb = SaveToStream(pFile, root);
    }
    bool const fClosed = std::fclose(pFile) == 0;
    // The cut gives back what was reserved behind the end.
    bool const fDone = cb > 0 && fClosed && ::ftruncate(fd, cb) == 0 && ::fsync(fd) == 0;
    return fDone ? S_OK : STG_E_WRITEFAULT;
}

std::string StorageNameFromWide(OLECHAR const *pszName)
{
    std::string strName;
    for (; *pszName != L'\0'; ++pszName) {
        char ach[6];
        auto const nChar = static_cast<gunichar>(*pszName);
        if (!g_unichar_validate(nChar)) {
            return {};
        }
        strName.append(ach, static_cast<std::size_t>(g_unichar_to_utf8(nChar, ach)));
    }
    return strName;
}
