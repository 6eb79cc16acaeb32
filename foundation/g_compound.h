#pragma once

/// @file
/// CGCompoundFile: a structured-storage file with one stream, "CONTENTS", a class identifier and a
/// user-type record. Any reader of compound files opens what it writes.
///
/// No lock and exclusive modes: one thread at a time, one open object for a file. The destructor closes
/// nothing; the owner calls CompoundClose first, which is also what brings the contents to the disk where
/// the platform writes late (storage.h). Failures are reported with base mask 32 and level -1 and give
/// one of the foundation's result codes.
///
/// State         m_pStorage   m_pStream   reached by
/// closed        null         null        constructor, CompoundClose, a failed open
/// storage only  set          null        a file without "CONTENTS", or whose stream could not be made
/// open          set          set         CompoundOpen, CompoundOpenExisting

#include "foundation/g_result.h"
#include "platform/storage.h"

/// One compound file, open or not.
class CGCompoundFile {
public:
    CGCompoundFile();
    ~CGCompoundFile();
    CGCompoundFile(CGCompoundFile const &) = delete;
    CGCompoundFile &operator=(CGCompoundFile const &) = delete;

    /// @{
    /// Prepare the calling thread for structured storage, and undo it. Always eGE_OK: a failure is
    /// reported and goes no further.
    DWORD CompoundInit();
    DWORD CompoundUninit();
    /// @}

    /// Creates the file, in the place of one that has the name, with an empty stream. eGE_FILE_OPEN if
    /// the name is null or the platform refuses; eGE_FILE_ALREADY_OPEN, and nothing changed, if the
    /// object is not closed. After a stream that could not be made the storage stays open.
    DWORD CompoundOpen(char const *pszFileName);

    /// The same for a file that exists, contents kept; the position is at the start of the stream.
    DWORD CompoundOpenExisting(char const *pszFileName);

    /// Releases the stream, then the storage. eGE_FILE_NOT_OPEN if either was not open, the other one is
    /// closed all the same; else eGE_FILE_WRITE if what was written could not be brought to the disk, and
    /// the file is what it was before it was opened.
    DWORD CompoundClose();

    /// Writes cbDataIn bytes at the stream's position. *pcbWritten is cbDataIn on success, else 0.
    /// eGE_NULL_ARGUMENT, eGE_FILE_NOT_OPEN, eGE_FILE_WRITE.
    DWORD CompoundWriteData(void const *pData, DWORD cbDataIn, DWORD *pcbWritten);

    /// @{
    /// Records the class identifier, and the user type with the clipboard format. eGE_FILE_WRITE also
    /// when nothing is open. The storage is enough, no stream is needed.
    DWORD CompoundWriteId(CLSID const &clsid);
    DWORD CompoundWriteInfo(OLECHAR const *pszUserType);
    /// @}

    /// The clipboard format for CompoundWriteInfo; 0, no format, at first.
    void SetFormat(CLIPFORMAT cfFormat) { m_cfFormat = cfFormat; }

protected:
    IStorage *m_pStorage;  ///< one reference; see the table above
    IStream *m_pStream;    ///< likewise
    CLIPFORMAT m_cfFormat; ///< for CompoundWriteInfo

private:
    // What an open with this name gives before it has touched anything; eGE_OK to go on.
    DWORD CheckOpen(char const *pszFileName) const;
};
