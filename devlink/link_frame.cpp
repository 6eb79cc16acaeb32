#include "devlink/link_frame.h"

#include "devlink/link_protocol.h"

namespace {

constexpr std::size_t kLengthSize = 4;
constexpr DWORD kMinBody = 5; // kind and number

DWORD ReadLittle32(BYTE const *p)
{
    return static_cast<DWORD>(p[0]) | static_cast<DWORD>(p[1]) << 8 |
           static_cast<DWORD>(p[2]) << 16 | static_cast<DWORD>(p[3]) << 24;
}

} // namespace

CLinkWriter &CLinkWriter::Byte(BYTE b)
{
    m_bytes.push_back(b);
    return *this;
}

CLinkWriter &CLinkWriter::Word16(WORD w)
{
    return Byte(static_cast<BYTE>(w & 0xFF)).Byte(static_cast<BYTE>(w >> 8));
}

CLinkWriter &CLinkWriter::Word32(DWORD dw)
{
    return Word16(static_cast<WORD>(dw & 0xFFFF)).Word16(static_cast<WORD>(dw >> 16));
}

CLinkWriter &CLinkWriter::Raw(void const *p, std::size_t cb)
{
    auto const *pBytes = static_cast<BYTE const *>(p);
    if (cb) {
        m_bytes.insert(m_bytes.end(), pBytes, pBytes + cb);
    }
    return *this;
}

CLinkWriter &CLinkWriter::Bytes8(void const *p, std::size_t cb)
{
    return Byte(static_cast<BYTE>(cb)).Raw(p, cb);
}

CLinkWriter &CLinkWriter::Bytes32(void const *p, std::size_t cb)
{
    return Word32(static_cast<DWORD>(cb)).Raw(p, cb);
}

BYTE const *CLinkReader::Take(std::size_t cb)
{
    if (m_fShort || m_bytes.size() - m_nPos < cb) {
        m_fShort = true;
        return nullptr;
    }
    BYTE const *p = m_bytes.data() + m_nPos;
    m_nPos += cb;
    return p;
}

BYTE CLinkReader::Byte()
{
    BYTE const *p = Take(1);
    return p ? *p : BYTE{0};
}

WORD CLinkReader::Word16()
{
    BYTE const *p = Take(2);
    return p ? static_cast<WORD>(p[0] | p[1] << 8) : WORD{0};
}

DWORD CLinkReader::Word32()
{
    BYTE const *p = Take(4);
    return p ? ReadLittle32(p) : 0;
}

LinkBytes CLinkReader::Bytes8()
{
    std::size_t const cb = Byte();
    BYTE const *p = Take(cb);
    return p ? LinkBytes(p, p + cb) : LinkBytes();
}

LinkBytes CLinkReader::Bytes32()
{
    std::size_t const cb = Word32();
    BYTE const *p = Take(cb);
    return p ? LinkBytes(p, p + cb) : LinkBytes();
}

std::string CLinkReader::Text8()
{
    LinkBytes const bytes = Bytes8();
    return std::string(bytes.begin(), bytes.end());
}

LinkBytes EncodeLinkFrame(LinkFrame const &frame)
{
    CLinkWriter writer;
    writer.Word32(static_cast<DWORD>(kMinBody + frame.payload.size()));
    writer.Byte(frame.kind).Word32(frame.dwNumber);
    return writer.Raw(frame.payload.data(), frame.payload.size()).Take();
}

void CLinkDecoder::Feed(BYTE const *p, std::size_t cb)
{
    if (m_fGarbage) {
        return;
    }
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<ptrdiff_t>(m_nPos));
    m_nPos = 0;
    m_bytes.insert(m_bytes.end(), p, p + cb);
}

bool CLinkDecoder::Next(LinkFrame *pFrame)
{
    std::size_t const cbLeft = m_bytes.size() - m_nPos;
    if (m_fGarbage || cbLeft < kLengthSize) {
        return false;
    }

    BYTE const *p = m_bytes.data() + m_nPos;
    DWORD const cbBody = ReadLittle32(p);
    if (cbBody < kMinBody || cbBody > kLinkMaxBody) {
        m_fGarbage = true;
        return false;
    }
    if (cbLeft - kLengthSize < cbBody) {
        return false;
    }

    p += kLengthSize;
    pFrame->kind = p[0];
    pFrame->dwNumber = ReadLittle32(p + 1);
    pFrame->payload.assign(p + kMinBody, p + cbBody);
    m_nPos += kLengthSize + cbBody;
    if (m_nPos == m_bytes.size()) { // an idle link keeps no buffer of a large frame
        m_bytes = LinkBytes();
        m_nPos = 0;
    }
    return true;
}
