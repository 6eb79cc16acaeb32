#include "platform/common/regfile.h"

#include "platform/common/utf8.h"
#include "platform/registry.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

namespace {

constexpr std::string_view kBlank = " \t";
constexpr std::string_view kLocalMachine = "HKEY_LOCAL_MACHINE";
constexpr std::string_view kOtherRoots[] = {"HKEY_CLASSES_ROOT", "HKEY_CURRENT_CONFIG",
                                            "HKEY_CURRENT_USER", "HKEY_USERS"};

// How a fault leaves the reader, from however deep; caught in ReadRegFile.
struct CFault {
    unsigned nLine;
    std::string strReason;
};

// ---- Characters

unsigned LineAt(std::string_view text, std::size_t nOffset)
{
    return 1 + static_cast<unsigned>(std::ranges::count(text.substr(0, nOffset), '\n'));
}

void CheckText(std::string_view text)
{
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] > 0 && text[i] < 0x7F) { // nearly always
            ++i;
            continue;
        }
        CUtf8Char const c = Utf8Decode(text.substr(i));
        if (!c.bValid || c.ch == 0) {
            throw CFault{LineAt(text, i), "a broken character, or a zero"};
        }
        i += c.cb;
    }
}

char32_t UnitAt(std::string_view bytes, std::size_t i)
{
    return static_cast<unsigned char>(bytes[i]) |
           static_cast<char32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8;
}

// UTF-16LE to UTF-8. Halves of surrogate pairs become `chBroken`. An odd last byte is left out.
std::string FromUtf16(std::string_view bytes, char32_t chBroken)
{
    std::string strText;
    strText.reserve(bytes.size() / 2);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        char32_t ch = UnitAt(bytes, i);
        if (ch >= 0xD800 && ch < 0xE000) {
            char32_t const chLow = ch < 0xDC00 && i + 3 < bytes.size() ? UnitAt(bytes, i + 2) : 0;
            bool const bPair = chLow >= 0xDC00 && chLow < 0xE000;
            ch = bPair ? 0x10000 + ((ch & 0x3FF) << 10 | (chLow & 0x3FF)) : chBroken;
            i += bPair ? 2 : 0;
        }
        char ab[4];
        strText.append(ab, Utf8Encode(ch, ab));
    }
    return strText;
}

// The whole file as checked UTF-8. `strStore` holds the text when it had to be made.
std::string_view Decode(std::string_view bytes, std::string &strStore)
{
    if (bytes.starts_with("\xFF\xFE")) {
        if (bytes.size() % 2 != 0) {
            throw CFault{1, "UTF-16 that ends in the middle of a character"};
        }
        strStore = FromUtf16(bytes.substr(2), 0); // a broken pair is found as a zero
        bytes = strStore;
    } else if (bytes.starts_with("\xFE\xFF")) {
        throw CFault{1, "big-endian UTF-16 is not supported"};
    } else if (bytes.starts_with("\xEF\xBB\xBF")) {
        bytes.remove_prefix(3);
    }
    CheckText(bytes);
    return bytes;
}

std::size_t CharacterCount(std::string_view text)
{
    return static_cast<std::size_t>(std::ranges::count_if(
        text, [](char ch) { return (static_cast<unsigned char>(ch) & 0xC0) != 0x80; }));
}

bool EqualWithoutCase(std::string_view a, std::string_view b)
{
    auto const upper = [](char ch) { return ch >= 'a' && ch <= 'z' ? ch - ('a' - 'A') : ch; };
    return std::ranges::equal(a, b, {}, upper, upper);
}

std::string_view TrimRight(std::string_view text)
{
    return text.substr(0, text.find_last_not_of(kBlank) + 1); // npos + 1 is 0
}

std::string_view TrimLeft(std::string_view text)
{
    return text.substr(std::min(text.find_first_not_of(kBlank), text.size()));
}

// ---- The reader

class CRegReader {
public:
    CRegReader(std::string_view text, CRegVisitor &visitor) : m_rest(text), m_visitor(visitor) {}

    void ReadAll()
    {
        ReadHeader();
        while (!m_rest.empty()) {
            NextLine();
            m_nStart = m_nLine;
            ReadStatement();
        }
    }

private:
    [[noreturn]] void Fail(std::string strReason) const { throw CFault{m_nStart, strReason}; }

    // Takes the next line of the file into m_line, without its end.
    void NextLine()
    {
        std::size_t const cb = std::min(m_rest.find('\n'), m_rest.size());
        m_line = m_rest.substr(0, cb);
        m_rest.remove_prefix(std::min(cb + 1, m_rest.size()));
        if (m_line.ends_with('\r')) {
            m_line.remove_suffix(1);
        }
        ++m_nLine;
    }

    void ReadHeader()
    {
        NextLine();
        std::string_view const header = TrimRight(m_line);
        m_bUtf16Data = header == "Windows Registry Editor Version 5.00";
        if (!m_bUtf16Data && header != "REGEDIT4") {
            Fail("the first line must be \"Windows Registry Editor Version 5.00\" or \"REGEDIT4\"");
        }
    }

    void ReadStatement()
    {
        m_line = TrimLeft(m_line);
        if (m_line.empty() || m_line[0] == ';') {
            return;
        }
        if (m_line[0] == '[') {
            ReadKey();
        } else if (m_line[0] == '"' || m_line[0] == '@') {
            ReadValue();
        } else {
            Fail("neither a key, a value nor a comment");
        }
    }

    // The text between the brackets. A "]" inside a name is told from the closing one by what follows.
    std::string_view Bracketed() const
    {
        for (std::size_t i = m_line.find(']'); i != std::string_view::npos;
             i = m_line.find(']', i + 1)) {
            std::size_t const nNext = m_line.find_first_not_of(kBlank, i + 1);
            if (nNext == std::string_view::npos || m_line[nNext] == ';') {
                return m_line.substr(1, i - 1);
            }
        }
        Fail("the key has no closing \"]\"");
    }

    void ReadKey()
    {
        std::string_view key = Bracketed();
        bool const bDelete = key.starts_with('-');
        key.remove_prefix(bDelete ? 1 : 0);
        SplitPath(key);
        m_eKey = IsLocalMachine() ? eKey::eOURS : eKey::eOTHER;
        m_path.erase(m_path.begin());
        if (bDelete && m_path.empty()) {
            Fail("a root key cannot be deleted");
        }
        if (m_eKey == eKey::eOURS) {
            bDelete ? m_visitor.OnDeleteKey(m_path) : m_visitor.OnKey(m_path);
        }
        if (bDelete) {
            m_eKey = eKey::eNONE;
        }
    }

    void SplitPath(std::string_view key)
    {
        m_path.clear();
        for (bool bMore = true; bMore;) {
            std::size_t const cb = std::min(key.find('\\'), key.size());
            bMore = cb < key.size();
            m_path.push_back(key.substr(0, cb));
            key.remove_prefix(cb + (bMore ? 1 : 0));
            if (cb == 0) {
                Fail("a key without a name");
            }
            if (CharacterCount(m_path.back()) > kcchMaxRegKeyName) {
                Fail("the name of a key has more than 255 characters");
            }
            if (m_path.size() > kcMaxRegDepth) {
                Fail("keys are nested more than 512 deep");
            }
        }
    }

    bool IsLocalMachine() const
    {
        if (EqualWithoutCase(m_path[0], kLocalMachine)) {
            return true;
        }
        bool const bKnown = std::ranges::any_of(
            kOtherRoots, [this](auto root) { return EqualWithoutCase(m_path[0], root); });
        if (!bKnown) {
            Fail("a key must begin with a root such as HKEY_LOCAL_MACHINE");
        }
        return false;
    }

    void ReadValue()
    {
        if (m_eKey == eKey::eNONE) {
            Fail("a value that belongs to no key");
        }
        m_strName.clear();
        if (m_line[0] == '@') {
            m_line.remove_prefix(1);
        } else {
            ReadQuoted(m_strName);
            if (m_strName.empty()) {
                Fail("a value without a name (the key's own value is written @)");
            }
        }
        if (CharacterCount(m_strName) > kcchMaxRegValueName) {
            Fail("the name of a value has more than 16383 characters");
        }
        m_line = TrimLeft(m_line);
        if (!Take("=")) {
            Fail("\"=\" must follow the name of a value");
        }
        m_line = TrimLeft(m_line);
        ReadData();
    }

    void ReadData()
    {
        m_strData.clear();
        if (Take("-")) {
            EndOfStatement();
            if (m_eKey == eKey::eOURS) {
                m_visitor.OnDeleteValue(m_strName);
            }
            return;
        }
        DWORD dwType = REG_SZ;
        if (m_line.starts_with('"')) {
            ReadQuoted(m_strData);
            m_strData += '\0';
        } else if (TakeWord("dword:")) {
            dwType = REG_DWORD;
            ReadDword();
        } else if (TakeWord("hex")) {
            dwType = ReadHex();
        } else {
            Fail("the data must be a text in quotes, dword:, hex: or -");
        }
        EndOfStatement();
        if (m_eKey == eKey::eOURS) {
            m_visitor.OnValue(m_strName, dwType, m_strData);
        }
    }

    // A quoted text, which may go on over several lines, appended to str.
    void ReadQuoted(std::string &str)
    {
        m_line.remove_prefix(1);
        for (;;) {
            std::size_t const cb = std::min(m_line.find_first_of("\"\\"), m_line.size());
            str.append(m_line.substr(0, cb));
            m_line.remove_prefix(cb);
            if (Take("\"")) {
                return;
            }
            if (!m_line.empty()) {
                str += ReadEscape();
            } else if (!m_rest.empty()) {
                str += "\r\n"; // the line end that the registry editor itself writes
                NextLine();
            } else {
                Fail("the text that begins here has no closing quote");
            }
        }
    }

    char ReadEscape()
    {
        char const ch = m_line.size() > 1 ? m_line[1] : '\0';
        constexpr std::string_view kEscapes = "\\\"nr";
        std::size_t const i = kEscapes.find(ch);
        if (i == std::string_view::npos) {
            Fail("a backslash in a text must be written twice");
        }
        m_line.remove_prefix(2);
        return "\\\"\n\r"[i];
    }

    void ReadDword()
    {
        std::uint32_t dw = 0;
        unsigned cDigits = 0;
        for (; !m_line.empty() && Digit(m_line[0]) >= 0; m_line.remove_prefix(1)) {
            dw = dw << 4 | static_cast<std::uint32_t>(Digit(m_line[0]));
            ++cDigits;
        }
        if (cDigits < 1 || cDigits > 8) {
            Fail("\"dword:\" needs 1 to 8 hexadecimal digits");
        }
        for (unsigned i = 0; i < 4; ++i) {
            m_strData += static_cast<char>(dw >> (8 * i));
        }
    }

    // After "hex": the type, if there is one, and the bytes. Returns the type.
    DWORD ReadHex()
    {
        DWORD dwType = REG_BINARY;
        if (Take("(")) {
            dwType = ReadType();
        }
        if (!Take(":")) {
            Fail("\":\" must follow \"hex\" and its type");
        }
        ReadBytes();
        bool const bText = dwType == REG_SZ || dwType == REG_EXPAND_SZ || dwType == REG_MULTI_SZ;
        if (bText && m_bUtf16Data) {
            if (m_strData.size() % 2 != 0) {
                Fail("a text in bytes has half a character at its end");
            }
            m_strData = FromUtf16(m_strData, 0xFFFD);
        }
        return dwType;
    }

    DWORD ReadType()
    {
        DWORD dwType = 0;
        unsigned cDigits = 0;
        for (; !m_line.empty() && Digit(m_line[0]) >= 0; m_line.remove_prefix(1)) {
            dwType = dwType << 4 | static_cast<DWORD>(Digit(m_line[0]));
            ++cDigits;
        }
        if (cDigits < 1 || cDigits > 8 || !Take(")")) {
            Fail("the type of \"hex\" needs 1 to 8 hexadecimal digits in brackets");
        }
        return dwType;
    }

    // Bytes with commas between them; "\" at the end of a line carries on with the next one.
    void ReadBytes()
    {
        SkipToBytes();
        if (m_line.empty() || m_line[0] == ';') {
            return;
        }
        for (;;) {
            m_strData += ReadByte();
            SkipToBytes();
            if (!Take(",")) {
                return;
            }
            SkipToBytes();
        }
    }

    char ReadByte()
    {
        int nByte = m_line.empty() ? -1 : Digit(m_line[0]);
        if (nByte < 0) {
            Fail("hexadecimal bytes with commas between them are missing or broken");
        }
        m_line.remove_prefix(1);
        if (!m_line.empty() && Digit(m_line[0]) >= 0) {
            nByte = nByte << 4 | Digit(m_line[0]);
            m_line.remove_prefix(1);
        }
        return static_cast<char>(nByte);
    }

    void SkipToBytes()
    {
        m_line = TrimLeft(m_line);
        while (m_line.starts_with('\\') && TrimRight(m_line) == "\\") {
            if (m_rest.empty()) {
                Fail("the file ends where a line should be carried on");
            }
            NextLine();
            m_line = TrimLeft(m_line);
        }
    }

    void EndOfStatement()
    {
        m_line = TrimLeft(m_line);
        if (!m_line.empty() && m_line[0] != ';') {
            Fail("unexpected text after the data");
        }
    }

    bool Take(std::string_view text)
    {
        bool const bThere = m_line.starts_with(text);
        m_line.remove_prefix(bThere ? text.size() : 0);
        return bThere;
    }

    bool TakeWord(std::string_view text)
    {
        bool const bThere = EqualWithoutCase(m_line.substr(0, text.size()), text);
        m_line.remove_prefix(bThere ? text.size() : 0);
        return bThere;
    }

    static int Digit(char ch)
    {
        return ch >= '0' && ch <= '9'   ? ch - '0'
               : ch >= 'a' && ch <= 'f' ? ch - 'a' + 10
               : ch >= 'A' && ch <= 'F' ? ch - 'A' + 10
                                        : -1;
    }

    enum class eKey { eNONE, eOURS, eOTHER };

    std::string_view m_rest; // lines that were not looked at yet
    std::string_view m_line; // what is left of the present line
    unsigned m_nLine = 0;    // of m_line
    unsigned m_nStart = 1;   // the line that the present statement began on
    bool m_bUtf16Data = false;
    eKey m_eKey = eKey::eNONE; // which values are wanted now
    CRegPath m_path;
    std::string m_strName;
    std::string m_strData;
    CRegVisitor &m_visitor;
};

} // namespace

std::optional<CRegProblem> ReadRegFile(std::string_view bytes, CRegVisitor &visitor)
{
    if (bytes.size() > kcbMaxRegFile) {
        return CRegProblem{1, "the file has more than 16 MiB"};
    }
    try {
        std::string strStore;
        CRegReader(Decode(bytes, strStore), visitor).ReadAll();
        return std::nullopt;
    } catch (CFault const &fault) {
        return CRegProblem{fault.nLine, fault.strReason};
    }
}
