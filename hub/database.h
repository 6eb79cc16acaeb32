#pragma once
/// @file
/// SQLite's connections and statements as objects.
#include <cstdint>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <string_view>

/// What SQLite had to say against something, in one line.
class CDatabaseError : public std::runtime_error {
public:
    CDatabaseError(std::string const &strWhat, int nCode) : runtime_error(strWhat), m_nCode(nCode)
    {
    }
    int Code() const { return m_nCode; } ///< SQLITE_FULL and the like

private:
    int m_nCode;
};

/// A connection. One thread at a time. Every function throws CDatabaseError.
class CDatabase {
public:
    /// nFlags: SQLITE_OPEN_…
    CDatabase(std::string const &strFile, int nFlags);
    ~CDatabase() { sqlite3_close_v2(m_p); }
    CDatabase(CDatabase const &) = delete;
    CDatabase &operator=(CDatabase const &) = delete;

    void Run(char const *pszSql);            ///< statements without arguments and results
    std::int64_t Number(char const *pszSql); ///< of a statement with one number for a result
    std::int64_t LastRow() const { return sqlite3_last_insert_rowid(m_p); }
    int Changes() const { return sqlite3_changes(m_p); } ///< rows, of the last statement
    sqlite3 *Get() const { return m_p; }
    [[noreturn]] void Fail(int nCode) const;

private:
    sqlite3 *m_p = nullptr;
};

/// A statement: its arguments are bound in their order, its rows taken one by one.
class CStatement {
public:
    CStatement(CDatabase &database, std::string const &strSql);
    ~CStatement() { sqlite3_finalize(m_p); }
    CStatement(CStatement const &) = delete;
    CStatement &operator=(CStatement const &) = delete;

    CStatement &Bind(std::int64_t n);
    CStatement &Bind(std::string_view str); ///< which has to live until the next Reset
    bool Step();                            ///< whether there is a row
    void Reset();                           ///< for the next arguments

    std::int64_t Number(int nColumn) const { return sqlite3_column_int64(m_p, nColumn); }
    std::string Text(int nColumn) const;

private:
    CDatabase &m_database;
    sqlite3_stmt *m_p = nullptr;
    int m_nArgument = 0;
};

/// A transaction: undone unless it has been committed.
class CTransaction {
public:
    explicit CTransaction(CDatabase &database) : m_database(database)
    {
        m_database.Run("BEGIN IMMEDIATE");
    }
    ~CTransaction()
    {
        if (!m_bDone) {
            sqlite3_exec(m_database.Get(), "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    CTransaction(CTransaction const &) = delete;
    CTransaction &operator=(CTransaction const &) = delete;

    void Commit()
    {
        m_database.Run("COMMIT");
        m_bDone = true;
    }

private:
    CDatabase &m_database;
    bool m_bDone = false;
};
