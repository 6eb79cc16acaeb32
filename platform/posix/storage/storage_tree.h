#pragma once

/// @file
/// The contents of a compound file in memory, and their way from and to the disk.

#include "platform/storage.h"
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// The bytes of a stream, in chunks: growing copies nothing, and a gap that was never written costs
/// nothing. Operations that need memory throw std::bad_alloc and then have changed nothing.
class CStreamBytes {
public:
    std::uint64_t Size() const { return m_cb; }
    /// Copies at most cb bytes from nPosition; returns how many there were.
    std::size_t Read(std::uint64_t nPosition, void *pBuffer, std::size_t cb) const;
    /// Grows as needed; a gap reads as zeros.
    void Write(std::uint64_t nPosition, void const *pBuffer, std::size_t cb);

    static constexpr std::size_t kcbChunk = 64 * 1024;

private:
    std::vector<std::unique_ptr<std::uint8_t[]>> m_apChunks; // null: all zeros
    std::uint64_t m_cb = 0;
};

/// A directory entry: the root, a storage or a stream. Names are UTF-8.
struct CStorageNode {
    std::string m_strName;
    bool m_fStorage = false;
    bool m_fOpen = false; ///< a stream that somebody has open
    CLSID m_clsid = {};
    CStreamBytes m_bytes;                                 ///< of a stream
    std::vector<std::unique_ptr<CStorageNode>> m_apNodes; ///< of a storage

    /// The entry of this name, compared as compound files do, without case; null if there is none.
    CStorageNode *Find(std::string const &strName) const;
};

/// The sum over all streams of what a file of them takes on the disk, a little more rather than less.
std::uint64_t StorageFileSize(CStorageNode const &root);

/// Fills an empty root from the file, from its start. S_OK or an STG_E_ code. May throw bad_alloc.
HRESULT StorageLoad(int fd, CStorageNode &root);

/// Writes the file anew; it is synchronised with the disk. S_OK or an STG_E_ code.
HRESULT StorageSave(int fd, CStorageNode const &root);

/// UTF-8 of a name, or an empty text for one that is none.
std::string StorageNameFromWide(OLECHAR const *pszName);
