// Tasks in the database, attachments in a directory, changes to all who listen.

#include "Board.h"

#include <Wendrel/kit/HttpError.h>
#include <Wendrel/kit/websocket/PreparedMessage.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <utility>
#include <vector>

namespace taskboard
{
namespace
{

using nlohmann::json;
using qv::kit::HttpError;
using qv::kit::websocket::Session;

constexpr int64_t kTasksOnPage = 100;
constexpr size_t kMaxTitleBytes = 500;

void check(const TaskFields& fields)
{
    if (fields.title.empty() || fields.title.size() > kMaxTitleBytes)
        throw HttpError(422, "A task needs a title of at most 500 bytes.");
    if (fields.state != "open" && fields.state != "doing" && fields.state != "done")
        throw HttpError(422, "A task is open, doing or done.");
}

// Of a row with these columns.
constexpr const char* kTaskColumns = "SELECT id, title, state, author FROM tasks ";
json taskOf(const Database::Query& query)
{
    return {{"id", query.number(0)},
            {"title", query.text(1)},
            {"state", query.text(2)},
            {"author", query.text(3)}};
}

HttpError missing()
{
    return HttpError(404, "There is no such task or file.");
}

}  // namespace

void from_json(const json& value, TaskFields& fields)
{
    fields.title = value.value("title", "");
    fields.state = value.value("state", "");
}

// One page.
class Board::Listener : public qv::kit::websocket::SessionHandler
{
public:
    explicit Listener(Board& board) : mBoard(board) {}

    void onOpen(const std::shared_ptr<Session>& session) override
    {
        const std::lock_guard<std::mutex> lock(mBoard.mMutex);
        mBoard.mSessions.insert(session);
    }

    void onClose(Session& session, uint16_t, std::string_view, bool) override
    {
        const std::lock_guard<std::mutex> lock(mBoard.mMutex);
        for (auto each = mBoard.mSessions.begin(); each != mBoard.mSessions.end();)
            each = each->get() == &session ? mBoard.mSessions.erase(each) : std::next(each);
    }

private:
    Board& mBoard;
};

Board::Board(Database& database, std::string directory)
    : mDatabase(database), mDirectory(std::move(directory))
{
    std::filesystem::create_directories(mDirectory);
}

json Board::tasks(const std::string& state, int64_t page)
{
    json list = json::array();
    Database::Query query =
        mDatabase.query(kTaskColumns + std::string("WHERE ?1 IN ('', state) "
                                                   "ORDER BY id LIMIT ?2 OFFSET ?3"),
                        {state, kTasksOnPage, (page - 1) * kTasksOnPage});
    while (query.next())
        list.push_back(taskOf(query));
    return list;
}

json Board::task(int64_t id)
{
    json found;
    {
        Database::Query query = mDatabase.query(kTaskColumns + std::string("WHERE id = ?"), {id});
        if (!query.next())
            throw missing();
        found = taskOf(query);
    }
    found["files"] = json::array();
    Database::Query query =
        mDatabase.query("SELECT id, name, bytes FROM files WHERE task = ? ORDER BY id", {id});
    while (query.next())
        found["files"].push_back(
            {{"id", query.number(0)}, {"name", query.text(1)}, {"bytes", query.number(2)}});
    return found;
}

int64_t Board::add(const std::string& author, const TaskFields& fields)
{
    const std::string state = fields.state.empty() ? "open" : fields.state;
    check({fields.title, state});
    const int64_t id = mDatabase.insert("INSERT INTO tasks (title, state, author) VALUES (?, ?, ?)",
                                        {fields.title, state, author});
    tell({{"changed", task(id)}});
    return id;
}

void Board::change(int64_t id, const TaskFields& fields)
{
    const json before = task(id);
    const TaskFields after{fields.title.empty() ? before["title"].get<std::string>() : fields.title,
                           fields.state.empty() ? before["state"].get<std::string>()
                                                : fields.state};
    check(after);
    mDatabase.change("UPDATE tasks SET title = ?, state = ? WHERE id = ?",
                     {after.title, after.state, id});
    tell({{"changed", task(id)}});
}

void Board::remove(int64_t id)
{
    const json removed = task(id);
    mDatabase.change("DELETE FROM tasks WHERE id = ?", {id});
    for (const json& file : removed["files"])
        std::remove(pathOf(file["id"]).c_str());
    tell({{"removed", id}});
}

// The row comes first: its number is the name of the file, which is complete when it appears.
void Board::attach(int64_t task, qv::kit::Part& part, uint64_t maxBytes)
{
    this->task(task);
    const int64_t id = mDatabase.insert("INSERT INTO files (task, name, bytes) VALUES (?, ?, 0)",
                                        {task, part.fileName()});
    try {
        const auto bytes = static_cast<int64_t>(part.saveTo(pathOf(id), maxBytes));
        mDatabase.change("UPDATE files SET bytes = ? WHERE id = ?", {bytes, id});
    } catch (...) {
        mDatabase.change("DELETE FROM files WHERE id = ?", {id});
        throw;
    }
    tell({{"changed", this->task(task)}});
}

std::pair<std::string, std::string> Board::file(int64_t id)
{
    Database::Query query = mDatabase.query("SELECT name FROM files WHERE id = ?", {id});
    if (!query.next())
        throw missing();
    return {query.text(0), pathOf(id)};
}

std::shared_ptr<qv::kit::websocket::SessionHandler> Board::listen()
{
    return std::make_shared<Listener>(*this);
}

void Board::tell(const json& message)
{
    const std::string text = message.dump(-1, ' ', false, json::error_handler_t::replace);
    mEvents.publish("", text);
    const auto prepared = qv::kit::websocket::PreparedMessage::text(text);
    const std::lock_guard<std::mutex> lock(mMutex);
    for (const std::shared_ptr<Session>& session : mSessions)
        session->send(prepared);
}

}  // namespace taskboard
