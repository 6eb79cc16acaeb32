#include "hub/database.h"

namespace {

constexpr int kBusyLimit = 5000; // ms to wait for somebody else's transaction

} // namespace

CDatabase::CDatabase(std::string const &strFile, int nFlags)
{
    int const nCode = sqlite3_open_v2(strFile.c_str(), &m_p, nFlags, nullptr);
    if (nCode != SQLITE_OK) {
        std::string const strWhy = m_p != nullptr ? sqlite3_errmsg(m_p) : sqlite3_errstr(nCode);
        sqlite3_close_v2(m_p);
        throw CDatabaseError(strWhy, nCode);
    }
    sqlite3_busy_timeout(m_p, kBusyLimit);
}

void CDatabase::Fail(int nCode) const
{
    throw CDatabaseError(sqlite3_errmsg(m_p), nCode);
}

void CDatabase::Run(char const *pszSql)
{
    int const nCode = sqlite3_exec(m_p, pszSql, nullptr, nullptr, nullptr);
    if (nCode != SQLITE_OK) {
        Fail(nCode);
    }
}

std::int64_t CDatabase::Number(char const *pszSql)
{
    CStatement statement(*this, pszSql);
    return statement.Step() ? statement.Number(0) : 0;
}

CStatement::CStatement(CDatabase &database, std::string const &strSql) : m_database(database)
{
    int const nCode = sqlite3_prepare_v2(database.Get(), strSql.c_str(), -1, &m_p, nullptr);
    if (nCode != SQLITE_OK) {
        database.Fail(nCode);
    }
}

CStatement &CStatement::Bind(std::int64_t n)
{
    sqlite3_bind_int64(m_p, ++m_nArgument, n);
    return *this;
}

CStatement &CStatement::Bind(std::string_view str)
{
    sqlite3_bind_text(m_p, ++m_nArgument, str.data(), static_cast<int>(str.size()), SQLITE_STATIC);
    return *this;
}

bool CStatement::Step()
{
    int const nCode = sqlite3_step(m_p);
    if (nCode != SQLITE_ROW && nCode != SQLITE_DONE) {
        m_database.Fail(nCode);
    }
    return nCode == SQLITE_ROW;
}

void CStatement::Reset()
{
    sqlite3_reset(m_p);
    m_nArgument = 0;
}

std::string CStatement::Text(int nColumn) const
{
    auto const *const psz = sqlite3_column_text(m_p, nColumn);
    auto const cb = static_cast<std::size_t>(sqlite3_column_bytes(m_p, nColumn));
    return psz != nullptr ? std::string(reinterpret_cast<char const *>(psz), cb) : std::string();
}
