/// SQLite with destructors and exceptions.
#ifndef TASKBOARD_DATABASE_H
#define TASKBOARD_DATABASE_H

#include <sqlite3.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <variant>

namespace taskboard
{

/// Thrown by all operations that fail.
class DatabaseError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// One file. Any thread: a query holds the connection until it is destroyed.
class Database
{
public:
    using Value = std::variant<int64_t, std::string>;

    explicit Database(const std::string& path);

    /// The rows of a statement: `for (Query q = db.query(...); q.next();) q.text(0)`. A thread has
    /// one at a time.
    class Query
    {
    public:
        bool next();  ///< false behind the last row
        int64_t number(int column) const;
        std::string text(int column) const;

    private:
        friend class Database;
        Query(Database& database, const std::string& sql, std::initializer_list<Value> values);

        std::unique_lock<std::mutex> mLock;
        sqlite3* mConnection;
        std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> mStatement;
    };
    Query query(const std::string& sql, std::initializer_list<Value> values = {});

    /// A statement without rows; returns how many it has changed.
    int change(const std::string& sql, std::initializer_list<Value> values = {});

    /// The same for INSERT; returns the number of the row.
    int64_t insert(const std::string& sql, std::initializer_list<Value> values);

private:
    std::mutex mMutex;
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> mConnection;
};

}  // namespace taskboard

#endif
