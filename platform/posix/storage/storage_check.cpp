#include "platform/posix/storage/storage_check.h"

#include <cstring>
#include <vector>

namespace {

constexpr std::uint8_t kabSignature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
constexpr std::size_t kcbHeader = 512;
constexpr std::size_t kcbEntry = 128;
constexpr std::size_t kcbMiniSector = 64;
constexpr std::uint64_t kcbMiniCutoff = 4096; // streams below it live in the mini stream
constexpr std::size_t kcHeaderTable = 109;    // places of the sector table that the header holds

constexpr std::uint32_t kFirstMark = 0xFFFFFFFCu; // from here on words of the table are no sectors
constexpr std::uint32_t kEndOfChain = 0xFFFFFFFEu;
constexpr std::uint32_t kFreeSector = 0xFFFFFFFFu;
constexpr std::uint32_t kNoEntry = 0xFFFFFFFFu;

enum EntryKind : std::uint8_t { eEK_UNUSED = 0, eEK_STORAGE = 1, eEK_STREAM = 2, eEK_ROOT = 5 };

std::uint16_t Word(std::uint8_t const *pb)
{
    return static_cast<std::uint16_t>(pb[0] | pb[1] << 8);
}

std::uint32_t Dword(std::uint8_t const *pb)
{
    return static_cast<std::uint32_t>(Word(pb)) | static_cast<std::uint32_t>(Word(pb + 2)) << 16;
}

// A table of successors (by sector or by mini sector) and who of them is spoken for.
struct CSectorTable {
    std::vector<std::uint32_t> m_anNext;
    std::vector<bool> m_afTaken;
    std::size_t m_cSectors = 0; // those that exist; the table may be longer

    bool Take(std::uint32_t n)
    {
        if (n >= m_cSectors || m_afTaken[n]) {
            return false;
        }
        m_afTaken[n] = true;
        return true;
    }

    // Takes all of a chain. Since no sector is taken twice, a loop ends here as well.
    bool TakeChain(std::uint32_t n, std::vector<std::uint32_t> &anChain)
    {
        anChain.clear();
        for (; n != kEndOfChain; n = m_anNext[n]) {
            if (n >= m_anNext.size() || !Take(n)) {
                return false;
            }
            anChain.push_back(n);
        }
        return true;
    }
};

class CStorageCheck {
public:
    CStorageCheck(std::uint8_t const *pb, std::size_t cb) : m_pb(pb), m_cb(cb) {}

    bool Run() { return Header() && Table() && Directory() && MiniTable() && Tree(); }

private:
    std::uint8_t const *Sector(std::uint32_t n) const
    {
        return m_pb + (std::size_t{n} + 1) * m_cbSector;
    }
    std::uint8_t const *Entry(std::uint32_t n) const
    {
        std::size_t const cPerSector = m_cbSector / kcbEntry;
        return Sector(m_anDirectory[n / cPerSector]) + n % cPerSector * kcbEntry;
    }

    bool Header();
    bool Table();
    bool TableSectors(std::vector<std::uint32_t> &anTable);
    bool Directory();
    bool MiniTable();
    bool Tree();
    bool CheckEntry(std::uint32_t n) const;
    bool CheckStream(std::uint32_t n);
    std::uint64_t StreamSize(std::uint32_t n) const;

    std::uint8_t const *m_pb;
    std::size_t m_cb;
    std::size_t m_cbSector = 0;
    CSectorTable m_sectors;
    CSectorTable m_minis;
    std::vector<std::uint32_t> m_anDirectory; // the sectors of the directory
    std::uint32_t m_cEntries = 0;
    std::vector<std::uint32_t> m_anChain; // scratch
};

bool CStorageCheck::Header()
{
    if (m_cb < kcbHeader || !StorageLooksRight(m_pb, m_cb)) {
        return false;
    }
    std::uint16_t const nMajor = Word(m_pb + 26);
    std::uint16_t const nShift = Word(m_pb + 30);
    bool const fShape = (nMajor == 3 && nShift == 9) || (nMajor == 4 && nShift == 12);
    if (!fShape || Word(m_pb + 28) != 0xFFFE || Word(m_pb + 32) != 6 ||
        Dword(m_pb + 56) != kcbMiniCutoff) {
        return false;
    }
    m_cbSector = std::size_t{1} << nShift;
    // The header takes the place of one sector, of either size. A sector that is cut does not count.
    m_sectors.m_cSectors = m_cb / m_cbSector;
    if (m_sectors.m_cSectors < 2) {
        return false;
    }
    --m_sectors.m_cSectors;
    m_sectors.m_afTaken.resize(m_sectors.m_cSectors);
    return true;
}

// The numbers of the sectors that hold the sector table: 109 of them in the header, the others in a
// chain of sectors whose last word leads on.
bool CStorageCheck::TableSectors(std::vector<std::uint32_t> &anTable)
{
    std::uint32_t const cTable = Dword(m_pb + 44);
    if (cTable == 0 || cTable > m_sectors.m_cSectors) {
        return false;
    }
    auto const take = [&](std::uint32_t nSector) {
        if (anTable.size() == cTable) {
            return nSector == kFreeSector; // some readers go by this, others by the count
        }
        anTable.push_back(nSector);
        return true;
    };
    bool fSound = true;
    for (std::size_t i = 0; i < kcHeaderTable; ++i) {
        fSound = take(Dword(m_pb + 76 + i * 4)) && fSound;
    }
    std::uint32_t n = Dword(m_pb + 68);
    std::size_t const cPerSector = m_cbSector / 4 - 1;
    std::size_t const cFurther = (cTable - anTable.size() + cPerSector - 1) / cPerSector;
    fSound = fSound && Dword(m_pb + 72) == cFurther;
    for (std::size_t iSector = 0; fSound && iSector < cFurther; ++iSector) {
        fSound = m_sectors.Take(n);
        for (std::size_t i = 0; fSound && i < cPerSector; ++i) {
            fSound = take(Dword(Sector(n) + i * 4));
        }
        n = fSound ? Dword(Sector(n) + cPerSector * 4) : n;
    }
    return fSound;
}

bool CStorageCheck::Table()
{
    std::vector<std::uint32_t> anTable;
    if (!TableSectors(anTable)) {
        return false;
    }
    for (std::uint32_t const n : anTable) {
        if (!m_sectors.Take(n)) {
            return false;
        }
        for (std::size_t i = 0; i < m_cbSector / 4; ++i) {
            std::uint32_t const nNext = Dword(Sector(n) + i * 4);
            if (nNext >= m_sectors.m_cSectors && nNext < kFirstMark) {
                return false;
            }
            m_sectors.m_anNext.push_back(nNext);
        }
    }
    return true;
}

bool CStorageCheck::Directory()
{
    if (!m_sectors.TakeChain(Dword(m_pb + 48), m_anDirectory) || m_anDirectory.empty()) {
        return false;
    }
    std::size_t const cEntries = m_anDirectory.size() * (m_cbSector / kcbEntry);
    if (cEntries > kcMaxStorageEntries) {
        return false;
    }
    m_cEntries = static_cast<std::uint32_t>(cEntries);
    std::uint8_t const *pbRoot = Entry(0);
    return pbRoot[66] == eEK_ROOT && Dword(pbRoot + 68) == kNoEntry &&
           Dword(pbRoot + 72) == kNoEntry && CheckEntry(0);
}

// The root's own stream holds the mini sectors, a table of its own says how they follow each other.
bool CStorageCheck::MiniTable()
{
    std::uint64_t const cb = StreamSize(0);
    if (cb > m_cb) {
        return false;
    }
    if (cb != 0) {
        if (!m_sectors.TakeChain(Dword(Entry(0) + 116), m_anChain) ||
            m_anChain.size() * m_cbSector < cb) {
            return false;
        }
    }
    m_minis.m_cSectors = static_cast<std::size_t>((cb + kcbMiniSector - 1) / kcbMiniSector);
    m_minis.m_afTaken.resize(m_minis.m_cSectors);

    std::uint32_t const cTable = Dword(m_pb + 64);
    if (cTable == 0) {
        return true;
    }
    if (!m_sectors.TakeChain(Dword(m_pb + 60), m_anChain) || m_anChain.size() != cTable) {
        return false;
    }
    for (std::uint32_t const n : m_anChain) {
        for (std::size_t i = 0; i < m_cbSector / 4; ++i) {
            std::uint32_t const nNext = Dword(Sector(n) + i * 4);
            if (nNext >= m_anChain.size() * (m_cbSector / 4) && nNext < kFirstMark) {
                return false;
            }
            m_minis.m_anNext.push_back(nNext);
        }
    }
    return true;
}

std::uint64_t CStorageCheck::StreamSize(std::uint32_t n) const
{
    std::uint64_t const cbLow = Dword(Entry(n) + 120);
    // Files with small sectors know 32 bits only, and old writers left rubbish above them.
    return m_cbSector == 512 ? cbLow : cbLow | std::uint64_t{Dword(Entry(n) + 124)} << 32;
}

bool CStorageCheck::CheckEntry(std::uint32_t n) const
{
    std::uint8_t const *pb = Entry(n);
    std::uint16_t const cbName = Word(pb + 64); // with the terminator
    if (cbName < 2 || cbName > 64 || cbName % 2 != 0 || Word(pb + cbName - 2) != 0) {
        return false;
    }
    for (std::size_t i = 0; i + 2 < cbName; i += 2) {
        std::uint16_t const w = Word(pb + i);
        if (w == 0) {
            return false;
        }
        if (w < 0xD800 || w > 0xDFFF) {
            continue;
        }
        // A high surrogate with a low one behind it, or the name is no text.
        std::uint16_t const wNext = Word(pb + i + 2);
        if (w > 0xDBFF || wNext < 0xDC00 || wNext > 0xDFFF) {
            return false;
        }
        i += 2;
    }
    return true;
}

bool CStorageCheck::CheckStream(std::uint32_t n)
{
    std::uint64_t const cb = StreamSize(n);
    if (cb == 0) {
        return true;
    }
    bool const fMini = cb < kcbMiniCutoff;
    CSectorTable &table = fMini ? m_minis : m_sectors;
    std::size_t const cbUnit = fMini ? kcbMiniSector : m_cbSector;
    return cb <= m_cb && table.TakeChain(Dword(Entry(n) + 116), m_anChain) &&
           m_anChain.size() * cbUnit >= cb;
}

// Every entry that hangs on the root, by brothers and children, once.
bool CStorageCheck::Tree()
{
    struct Place {
        std::uint32_t nEntry;
        int nDepth;
    };
    std::vector<bool> afSeen(m_cEntries);
    std::vector<Place> aOpen{{Dword(Entry(0) + 76), 1}};
    afSeen[0] = true;
    while (!aOpen.empty()) {
        auto const [n, nDepth] = aOpen.back();
        aOpen.pop_back();
        if (n == kNoEntry) {
            continue;
        }
        if (n >= m_cEntries || afSeen[n] || nDepth > kcMaxStorageDepth || !CheckEntry(n)) {
            return false;
        }
        afSeen[n] = true;
        std::uint8_t const *pb = Entry(n);
        aOpen.push_back({Dword(pb + 68), nDepth});
        aOpen.push_back({Dword(pb + 72), nDepth});
        if (pb[66] == eEK_STORAGE) {
            aOpen.push_back({Dword(pb + 76), nDepth + 1});
        } else if (pb[66] != eEK_STREAM || Dword(pb + 76) != kNoEntry || !CheckStream(n)) {
            return false;
        }
    }
    return true;
}

} // namespace

bool StorageLooksRight(std::uint8_t const *pb, std::size_t cb)
{
    return cb >= sizeof kabSignature && std::memcmp(pb, kabSignature, sizeof kabSignature) == 0;
}

bool StorageIsSound(std::uint8_t const *pb, std::size_t cb)
{
    return CStorageCheck(pb, cb).Run();
}
