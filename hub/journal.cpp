#include "hub/journal.h"

#include "hub/database.h"

#include <algorithm>
#include <filesystem>

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr int kFormat = 1;               // of the tables
constexpr int kApplication = 0x714A6F75; // whose file it is
constexpr std::int64_t kPruneAtOnce = 2000;

// The last place survives the events: no place is ever given twice.
constexpr char kTables[] = R"(
    CREATE TABLE IF NOT EXISTS events(
        place INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL, type TEXT NOT NULL,
        device TEXT NOT NULL, text TEXT NOT NULL, id TEXT NOT NULL, envelope TEXT NOT NULL);
    CREATE INDEX IF NOT EXISTS events_by_time ON events(time);
    CREATE TABLE IF NOT EXISTS sinks(
        name TEXT PRIMARY KEY, place INTEGER NOT NULL, epoch INTEGER NOT NULL) WITHOUT ROWID;
    CREATE TABLE IF NOT EXISTS given_up(
        sink TEXT NOT NULL, place INTEGER NOT NULL, time INTEGER NOT NULL, why TEXT NOT NULL);
)";

std::int64_t NumberOf(std::chrono::system_clock::time_point tp)
{
    return std::chrono::floor<milliseconds>(tp.time_since_epoch()).count();
}

// A file is taken over only if it is ours, or new.
void MakeTables(CDatabase &database)
{
    std::int64_t const nApplication = database.Number("PRAGMA application_id");
    std::int64_t const nFormat = database.Number("PRAGMA user_version");
    bool const bNew = database.Number("SELECT count(*) FROM sqlite_schema") == 0;
    if (!bNew && (nApplication != kApplication || nFormat != kFormat)) {
        throw CDatabaseError(nApplication != kApplication
                                 ? "is another program's database"
                                 : "has the format " + std::to_string(nFormat) +
                                       ", which this version does not know",
                             SQLITE_NOTADB);
    }
    if (bNew) {
        database.Run("PRAGMA auto_vacuum=INCREMENTAL"); // before the first table
    }
    database.Run("PRAGMA journal_mode=WAL");
    database.Run("PRAGMA synchronous=FULL");
    database.Run("PRAGMA journal_size_limit=16777216");
    if (bNew) {
        CTransaction transaction(database);
        database.Run(kTables);
        database.Run(("PRAGMA application_id=" + std::to_string(kApplication)).c_str());
        database.Run(("PRAGMA user_version=" + std::to_string(kFormat)).c_str());
        transaction.Commit();
    }
}

HubEvent EventOf(CStatement const &row)
{
    HubEvent event;
    event.dwPlace = static_cast<std::uint64_t>(row.Number(0));
    event.tpTime = std::chrono::system_clock::time_point(milliseconds(row.Number(1)));
    event.strType = row.Text(2);
    event.strDevice = row.Text(3);
    event.strText = row.Text(4);
    event.strId = row.Text(5);
    event.strJson = row.Text(6);
    return event;
}

std::int64_t LastPlace(CDatabase &database)
{
    return database.Number("SELECT seq FROM sqlite_sequence WHERE name='events'");
}

void InsertEvents(CDatabase &database, std::span<HubEvent> events)
{
    CStatement insert(database, "INSERT INTO events(time, type, device, text, id, envelope) "
                                "VALUES(?, ?, ?, ?, ?, ?)");
    for (HubEvent &event : events) {
        insert.Bind(NumberOf(event.tpTime)).Bind(event.strType).Bind(event.strDevice);
        insert.Bind(event.strText).Bind(event.strId).Bind(event.strJson).Step();
        insert.Reset();
        event.dwPlace = static_cast<std::uint64_t>(database.LastRow());
    }
}

void UpdatePlaces(CDatabase &database, std::span<SinkPlace const> places)
{
    CStatement update(database, "UPDATE sinks SET place=? WHERE name=? AND epoch=?");
    for (SinkPlace const &place : places) {
        update.Bind(static_cast<std::int64_t>(place.dwPlace)).Bind(place.strSink);
        update.Bind(static_cast<std::int64_t>(place.dwEpoch)).Step();
        update.Reset();
    }
}

void InsertGivenUp(CDatabase &database, std::span<GivenUpEvent const> givenUp)
{
    CStatement insert(database, "INSERT INTO given_up(sink, place, time, why) VALUES(?, ?, ?, ?)");
    for (GivenUpEvent const &event : givenUp) {
        insert.Bind(event.strSink).Bind(static_cast<std::int64_t>(event.dwPlace));
        insert.Bind(NumberOf(std::chrono::system_clock::now())).Bind(event.strWhy).Step();
        insert.Reset();
    }
}

} // namespace

CJournal::CJournal() = default;
CJournal::~CJournal() = default;

template <class F>
bool CJournal::Guarded(std::string *pstrError, F fn)
{
    CPlatGuard const lock(m_mutex);
    try {
        fn(*m_pDatabase);
        return true;
    } catch (CDatabaseError const &error) {
        *pstrError = error.what();
        return false;
    }
}

std::unique_ptr<CJournal> CJournal::OpenFile(std::string const &strFile, bool bOwn,
                                             std::string *pstrError)
{
    std::unique_ptr<CJournal> pJournal(new CJournal);
    std::unique_ptr<CDatabase> pDatabase;
    try {
        if (bOwn) {
            std::error_code ignored; // what is wrong shows when the file is opened
            fs::create_directories(fs::path(strFile).parent_path(), ignored);
            int const nMake = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
            // A transaction of another file, which is never committed, is a lock that goes with its process.
            pJournal->m_pLock = std::make_unique<CDatabase>(strFile + ".lock", nMake);
            sqlite3_busy_timeout(pJournal->m_pLock->Get(), 0);
            pJournal->m_pLock->Run("BEGIN EXCLUSIVE");
            pDatabase = std::make_unique<CDatabase>(strFile, nMake);
        } else {
            pDatabase = std::make_unique<CDatabase>(strFile, SQLITE_OPEN_READWRITE);
        }
        if (bOwn || pDatabase->Number("PRAGMA application_id") != kApplication) {
            MakeTables(*pDatabase);
        }
        CPlatGuard const lock(pJournal->m_mutex);
        pJournal->m_nVersion = pDatabase->Number("PRAGMA data_version");
        pJournal->m_pDatabase = std::move(pDatabase);
        return pJournal;
    } catch (CDatabaseError const &error) {
        bool const bBusy = bOwn && error.Code() == SQLITE_BUSY;
        *pstrError = "the journal " + strFile +
                     (bBusy ? " is in use by another hub" : ": " + std::string(error.what()));
        return nullptr;
    }
}

std::unique_ptr<CJournal> CJournal::Open(std::string const &strFile, std::string *pstrError)
{
    return OpenFile(strFile, /*bOwn=*/true, pstrError);
}

std::unique_ptr<CJournal> CJournal::Look(std::string const &strFile, std::string *pstrError)
{
    return OpenFile(strFile, /*bOwn=*/false, pstrError);
}

bool CJournal::Write(std::span<HubEvent> events, std::span<SinkPlace const> places,
                     std::span<GivenUpEvent const> givenUp, std::string *pstrError)
{
    return Guarded(pstrError, [&](CDatabase &database) {
        CTransaction transaction(database);
        InsertEvents(database, events);
        UpdatePlaces(database, places);
        InsertGivenUp(database, givenUp);
        transaction.Commit();
    });
}

bool CJournal::Read(JournalQuery const &query, std::vector<HubEvent> *pEvents,
                    std::string *pstrError)
{
    std::string strSql = "SELECT place, time, type, device, text, id, envelope FROM events "
                         "WHERE place > ? AND place < ?";
    strSql += query.since ? " AND time >= ?" : "";
    strSql += query.strDevice.empty() ? "" : " AND device = ?";
    strSql += query.strType.empty() ? "" : " AND type GLOB ?";
    strSql += query.strText.empty() ? "" : " AND instr(envelope, ?) > 0";
    strSql += std::string(" ORDER BY place") + (query.bNewestFirst ? " DESC" : "") + " LIMIT ?";
    std::string const strType = std::string(kHubTypePrefix) + query.strType;
    return Guarded(pstrError, [&](CDatabase &database) {
        CStatement select(database, strSql);
        select.Bind(static_cast<std::int64_t>(query.dwAfter));
        select.Bind(static_cast<std::int64_t>(query.dwBefore));
        if (query.since) {
            select.Bind(NumberOf(*query.since));
        }
        for (std::string const *const pstr :
             {&query.strDevice, query.strType.empty() ? &query.strType : &strType,
              &query.strText}) {
            if (!pstr->empty()) {
                select.Bind(*pstr);
            }
        }
        select.Bind(static_cast<std::int64_t>(query.cMost));
        while (select.Step()) {
            pEvents->push_back(EventOf(select));
        }
    });
}

bool CJournal::Bounds(std::uint64_t *pdwFirst, std::uint64_t *pdwLast, std::string *pstrError)
{
    return Guarded(pstrError, [&](CDatabase &database) {
        *pdwFirst = static_cast<std::uint64_t>(database.Number("SELECT min(place) FROM events"));
        *pdwLast = static_cast<std::uint64_t>(LastPlace(database));
    });
}

bool CJournal::PlaceOf(std::string const &strSink, SinkPlace *pPlace, std::string *pstrError)
{
    return Guarded(pstrError, [&](CDatabase &database) {
        CStatement find(database, "SELECT place, epoch FROM sinks WHERE name=?");
        *pPlace = {strSink, 0, 0};
        if (find.Bind(strSink).Step()) {
            pPlace->dwPlace = static_cast<std::uint64_t>(find.Number(0));
            pPlace->dwEpoch = static_cast<std::uint64_t>(find.Number(1));
            return;
        }
        pPlace->dwPlace = static_cast<std::uint64_t>(LastPlace(database));
        CStatement insert(database, "INSERT INTO sinks(name, place, epoch) VALUES(?, ?, 0)");
        insert.Bind(strSink).Bind(static_cast<std::int64_t>(pPlace->dwPlace)).Step();
    });
}

bool CJournal::SetBack(std::string const &strSink, std::chrono::system_clock::time_point tpSince,
                       std::uint64_t *pcEvents, std::string *pstrError)
{
    return Guarded(pstrError, [&](CDatabase &database) {
        CTransaction transaction(database);
        CStatement find(database, "SELECT place FROM sinks WHERE name=?");
        if (!find.Bind(strSink).Step()) {
            throw CDatabaseError("there is no sink of the name \"" + strSink + "\" in the journal",
                                 SQLITE_NOTFOUND);
        }
        std::int64_t const nPlace = find.Number(0);
        CStatement first(database,
                         "SELECT min(place), count(*) FROM events WHERE time >= ? AND place <= ?");
        first.Bind(NumberOf(tpSince)).Bind(nPlace).Step();
        *pcEvents = static_cast<std::uint64_t>(first.Number(1));
        if (*pcEvents > 0) {
            CStatement update(database, "UPDATE sinks SET place=?, epoch=epoch+1 WHERE name=?");
            update.Bind(first.Number(0) - 1).Bind(strSink).Step();
        }
        transaction.Commit();
    });
}

bool CJournal::HasChanged()
{
    std::string strIgnored; // no answer is no change
    bool bChanged = false;
    Guarded(&strIgnored, [&](CDatabase &database) PLAT_NO_THREAD_SAFETY {
        std::int64_t const nVersion = database.Number("PRAGMA data_version");
        bChanged = nVersion != m_nVersion;
        m_nVersion = nVersion;
    });
    return bChanged;
}

bool CJournal::Prune(std::chrono::system_clock::time_point tpKeep, std::uint64_t cbKeep,
                     bool *pbMore, std::string *pstrError)
{
    return Guarded(pstrError, [&](CDatabase &database) {
        CTransaction transaction(database);
        CStatement old(database,
                       "DELETE FROM events WHERE place IN "
                       "(SELECT place FROM events WHERE time < ? ORDER BY place LIMIT ?)");
        old.Bind(NumberOf(tpKeep)).Bind(kPruneAtOnce).Step();
        *pbMore = database.Changes() == kPruneAtOnce;
        std::int64_t const cbPage = database.Number("PRAGMA page_size");
        std::int64_t const cPages =
            database.Number("PRAGMA page_count") - database.Number("PRAGMA freelist_count");
        if (cPages * cbPage > static_cast<std::int64_t>(cbKeep)) {
            CStatement oldest(database, "DELETE FROM events WHERE place IN "
                                        "(SELECT place FROM events ORDER BY place LIMIT ?)");
            oldest.Bind(kPruneAtOnce).Step();
            *pbMore = database.Changes() > 0;
        }
        CStatement given(database, "DELETE FROM given_up WHERE time < ?");
        given.Bind(NumberOf(tpKeep)).Step();
        transaction.Commit();
        database.Run("PRAGMA incremental_vacuum(1000)");
    });
}

std::uint64_t CJournal::Size()
{
    std::string strIgnored;
    std::uint64_t cb = 0;
    Guarded(&strIgnored, [&](CDatabase &database) {
        cb = static_cast<std::uint64_t>(database.Number("PRAGMA page_count") *
                                        database.Number("PRAGMA page_size"));
    });
    return cb;
}
