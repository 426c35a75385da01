// SQLite with destructors and exceptions.

#include "Database.h"

namespace taskboard
{
namespace
{

constexpr int kBusyMs = 5000;

constexpr const char* kSchema = R"(
    PRAGMA journal_mode = WAL;
    PRAGMA foreign_keys = ON;
    CREATE TABLE IF NOT EXISTS users (
        name TEXT PRIMARY KEY, salt BLOB NOT NULL, hash BLOB NOT NULL);
    CREATE TABLE IF NOT EXISTS keys (key BLOB NOT NULL);
    CREATE TABLE IF NOT EXISTS tasks (
        id INTEGER PRIMARY KEY AUTOINCREMENT, title TEXT NOT NULL, state TEXT NOT NULL,
        author TEXT NOT NULL);
    CREATE TABLE IF NOT EXISTS files (
        id INTEGER PRIMARY KEY AUTOINCREMENT,
        task INTEGER NOT NULL REFERENCES tasks (id) ON DELETE CASCADE,
        name TEXT NOT NULL, bytes INTEGER NOT NULL);
)";

void check(int result, sqlite3* connection)
{
    if (result != SQLITE_OK)
        throw DatabaseError(std::string("database: ") + sqlite3_errmsg(connection));
}

}  // namespace

Database::Database(const std::string& path) : mConnection(nullptr, &sqlite3_close)
{
    sqlite3* connection = nullptr;
    const int opened = sqlite3_open(path.c_str(), &connection);
    mConnection.reset(connection);
    check(opened, connection);
    sqlite3_busy_timeout(connection, kBusyMs);
    check(sqlite3_exec(connection, kSchema, nullptr, nullptr, nullptr), connection);
}

Database::Query::Query(Database& database, const std::string& sql,
                       std::initializer_list<Value> values)
    : mLock(database.mMutex), mConnection(database.mConnection.get()),
      mStatement(nullptr, &sqlite3_finalize)
{
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v2(mConnection, sql.c_str(), -1, &statement, nullptr), mConnection);
    mStatement.reset(statement);
    int place = 0;
    for (const Value& value : values) {
        ++place;
        if (const auto* number = std::get_if<int64_t>(&value))
            check(sqlite3_bind_int64(statement, place, *number), mConnection);
        else
            check(sqlite3_bind_text(statement, place, std::get<std::string>(value).data(),
                                    static_cast<int>(std::get<std::string>(value).size()),
                                    SQLITE_TRANSIENT),
                  mConnection);
    }
}

bool Database::Query::next()
{
    const int result = sqlite3_step(mStatement.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        check(result, mConnection);
    return result == SQLITE_ROW;
}

int64_t Database::Query::number(int column) const
{
    return sqlite3_column_int64(mStatement.get(), column);
}

std::string Database::Query::text(int column) const
{
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(mStatement.get(), column));
    const int size = sqlite3_column_bytes(mStatement.get(), column);
    return bytes ? std::string(bytes, static_cast<size_t>(size)) : std::string();
}

Database::Query Database::query(const std::string& sql, std::initializer_list<Value> values)
{
    return {*this, sql, values};
}

int Database::change(const std::string& sql, std::initializer_list<Value> values)
{
    Query query(*this, sql, values);
    query.next();
    return sqlite3_changes(query.mConnection);
}

int64_t Database::insert(const std::string& sql, std::initializer_list<Value> values)
{
    Query query(*this, sql, values);
    query.next();
    return sqlite3_last_insert_rowid(query.mConnection);
}

}  // namespace taskboard
