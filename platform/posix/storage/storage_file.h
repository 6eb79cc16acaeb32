#pragma once

// The file under a storage, and how a new one takes its place.

#include "platform/posix/descriptor.h"
#include "platform/posix/files/fileobject.h"
#include "platform/posix/storage/storage_tree.h"
#include "platform/storage.h"

#include <cstdint>
#include <string>

// Held open with nothing shared, and with it the one beside it that will take its place. Both are found by
// their folder's descriptor, wherever that folder is moved to. The name of the second follows from the first,
// and is a short one: whoever holds the first exclusively is the only one of this user's who uses it, and what
// a killed process left there is cleared away.
class CStorageFile {
public:
    CStorageFile() = default;
    ~CStorageFile() { Close(); }
    CStorageFile(CStorageFile const &) = delete;
    CStorageFile &operator=(CStorageFile const &) = delete;

    HRESULT Open(std::string const &strName, DWORD dwAccess, DWORD dwDisposition);
    void Close();
    int Get() const { return m_target.m_fd; }

    // Makes the file beside, if it is not there yet, and room in it for cb bytes.
    HRESULT Reserve(std::uint64_t cb);
    // The new contents take the place of the old ones.
    HRESULT Replace(CStorageNode const &root);

private:
    bool OpenFolder(std::string const &strName);
    void CloseTarget();
    HRESULT OpenAside();
    void DropAside();
    bool Allocate(std::uint64_t cb);

    std::string m_strName;  // in the folder
    std::string m_strAside; // likewise
    COpenedFile m_target;
    CDescriptor m_fdFolder;
    CDescriptor m_fdAside;
    bool m_fPlaceholder = false; // the target was made by us and nothing is in it yet
    std::uint64_t m_cbReserved = 0;
};
