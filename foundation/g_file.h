/// @file
/// CGFile, the foundation's file object: one system file handle with all-or-nothing reads and writes.
///
/// There is no buffer, no name and no position in the object: every call goes straight to the system,
/// and the file pointer is the system's. No lock: its owner keeps one thread at a time in it. The owner
/// of an open file calls Close before the last Release; the destructor does not.
///
/// WriteDword and WriteString write plain bytes: a word in the host's byte order, a text with its zero.

#pragma once

#include "foundation/g_ref.h"
#include "platform/file.h"

/// One file, open or not.
class CGFile : public CGReference {
public:
    /// @{
    /// Not open. pszName is the object's name in reports, copied.
    explicit CGFile(char const *pszName) : CGReference(pszName) {}
    ~CGFile() override = default;
    /// @}

    /// CreateFileA with these very arguments. eGE_OK; eGE_FILE_OPEN for a null name, which is tested
    /// first, or when the system refuses; eGE_FILE_ALREADY_OPEN, and the open file is not touched.
    DWORD Open(char const *pszFileName, DWORD dwAccess, DWORD dwShareMode,
               SECURITY_ATTRIBUTES *pSecurity, DWORD dwDisposition, DWORD dwFlags,
               HANDLE hTemplate);

    /// eGE_OK, eGE_FILE_NOT_OPEN.
    DWORD Close();

    /// @{
    /// One transfer of cbCount bytes, all or nothing: *pcbDone is cbCount on success and otherwise 0,
    /// even if some bytes moved. At the end of the file a read fails. eGE_OK, eGE_NULL_ARGUMENT,
    /// eGE_FILE_NOT_OPEN, eGE_FILE_READ or eGE_FILE_WRITE.
    DWORD Read(void *pBuffer, DWORD cbCount, DWORD *pcbDone);
    DWORD Write(void const *pBuffer, DWORD cbCount, DWORD *pcbDone);
    /// @}

    /// Seek(2, 0) and Write in one step, of any size of file.
    DWORD Append(void const *pBuffer, DWORD cbCount, DWORD *pcbDone);

    /// Moves the file pointer by nDistance bytes. nMode: 0 from the start, 1 from here, 2 from the end;
    /// any other from the start. eGE_OK, also on a closed file; eGE_FILE_SEEK.
    DWORD Seek(LONG nMode, LONG nDistance);

    /// eGE_OK, eGE_NULL_ARGUMENT; eGE_FILE_READ for every failure, and *pdwValue then holds 0 but for
    /// the bytes that arrived.
    DWORD ReadDword(DWORD *pdwValue);
    DWORD WriteDword(DWORD dwValue); ///< as Write

    /// Reads bytes up to a zero, which is stored, or until cbLimit of them are stored; then the buffer has
    /// no terminating zero and the next read goes on in the middle of that text. The buffer is zeroed
    /// first. eGE_OK; eGE_FILE_READ, and what was read so far is there; eGE_NULL_ARGUMENT for a null
    /// buffer or a limit of 0, which leaves no place for the byte that would have to be taken.
    DWORD ReadString(char *pszBuffer, DWORD cbLimit);
    DWORD WriteString(char const *pszText); ///< with its zero, null counts as empty; as Write

protected:
    HANDLE m_hFile = INVALID_HANDLE_VALUE; ///< that value when no file is open

private:
    template <class Transfer>
    DWORD MoveAll(DWORD dwFailure, void const *pBuffer, DWORD cbCount, DWORD *pcbDone,
                  Transfer fnTransfer);
};
