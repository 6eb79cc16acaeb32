#pragma once
/// @file
/// Frames of the device link: making them, taking them apart, and finding them in a stream.
///
/// A frame is a length word, then that many bytes: kind (1 byte), number (4 bytes), payload. All words
/// are little-endian. Nothing here has a lock; each object belongs to one thread at a time.
#include "platform/base.h"

#include <cstddef>
#include <string>
#include <vector>

/// Bytes as they go over the wire.
using LinkBytes = std::vector<BYTE>;

/// A frame taken apart.
struct LinkFrame {
    BYTE kind = 0;      ///< a LinkKind, in an answer with kLinkAnswerBit
    DWORD dwNumber = 0; ///< of a request, the same in its answer; 0 in frames that answer nothing
    LinkBytes payload;  ///< what the kind prescribes
};

/// Puts a payload together.
class CLinkWriter {
public:
    /// @{
    /// Each appends to the payload; words of 16 and 32 bits go low byte first, Raw as it is.
    CLinkWriter &Byte(BYTE b);
    CLinkWriter &Word16(WORD w);
    CLinkWriter &Word32(DWORD dw);
    CLinkWriter &Raw(void const *p, std::size_t cb);
    /// @}
    CLinkWriter &Bytes8(void const *p, std::size_t cb);  ///< one length byte first; cb up to 255
    CLinkWriter &Bytes32(void const *p, std::size_t cb); ///< a length word first
    /// Hands the payload out; the writer is empty afterwards.
    LinkBytes Take() { return std::move(m_bytes); }

private:
    LinkBytes m_bytes;
};

/// Takes a payload apart. Reading past its end gives zeroes and makes IsComplete false for good, so
/// that a caller reads all fields and asks once. Keeps a reference to the bytes.
class CLinkReader {
public:
    /// bytes must outlive the reader.
    explicit CLinkReader(LinkBytes const &bytes) : m_bytes(bytes) {}

    /// @{
    /// The next field: a byte, a word of 16 or 32 bits, bytes or a text behind a length byte or word.
    BYTE Byte();
    WORD Word16();
    DWORD Word32();
    LinkBytes Bytes8();
    LinkBytes Bytes32();
    std::string Text8();
    /// @}

    /// Nothing was missing, and nothing is left over.
    bool IsComplete() const { return !m_fShort && m_nPos == m_bytes.size(); }
    /// Nothing was missing so far.
    bool IsGood() const { return !m_fShort; }

private:
    BYTE const *Take(std::size_t cb); // null when fewer are left

    LinkBytes const &m_bytes;
    std::size_t m_nPos = 0;
    bool m_fShort = false;
};

/// The frame as it goes over the wire. The payload must leave the body within kLinkMaxBody.
LinkBytes EncodeLinkFrame(LinkFrame const &frame);

/// Finds frames in bytes that come in pieces of any size. Holds one frame and one piece at most.
class CLinkDecoder {
public:
    /// Appends cb bytes that have come.
    void Feed(BYTE const *p, std::size_t cb);

    /// The next whole frame. False when more bytes are needed, or after IsGarbage.
    bool Next(LinkFrame *pFrame);

    /// A length came that no frame has. There is no way back into step: the stream has to be closed.
    bool IsGarbage() const { return m_fGarbage; }

private:
    LinkBytes m_bytes;
    std::size_t m_nPos = 0; // bytes before it are used up
    bool m_fGarbage = false;
};
