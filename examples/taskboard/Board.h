/// Tasks and their attachments.
#ifndef TASKBOARD_BOARD_H
#define TASKBOARD_BOARD_H

#include "Database.h"

#include <Wendrel/kit/EventStream.h>
#include <Wendrel/kit/Form.h>
#include <Wendrel/kit/websocket/Session.h>

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

namespace taskboard
{

/// The fields of a task that clients set.
struct TaskFields
{
    std::string title;
    std::string state;  ///< "open", "doing" or "done"; empty: as it is, of a new task "open"
};
void from_json(const nlohmann::json& value, TaskFields& fields);

/// The board. Each change is told to all pages that listen. Any thread. An object that does not
/// exist is HttpError 404.
class Board
{
public:
    /// `database` outlives this; files are stored in `directory`.
    Board(Database& database, std::string directory);

    /// Those of one page of the list, oldest first; `state`: empty for all.
    nlohmann::json tasks(const std::string& state, int64_t page);
    nlohmann::json task(int64_t id);
    int64_t add(const std::string& author, const TaskFields& fields);
    void change(int64_t id, const TaskFields& fields);
    void remove(int64_t id);

    /// Stores a file of a form that is being received.
    void attach(int64_t task, qv::kit::Part& part, uint64_t maxBytes);
    /// Name and path of an attachment.
    std::pair<std::string, std::string> file(int64_t id);

    /// For pages: a WebSocket, or events where that is blocked.
    std::shared_ptr<qv::kit::websocket::SessionHandler> listen();
    qv::kit::EventStream& events() { return mEvents; }

private:
    class Listener;

    std::string pathOf(int64_t file) const { return mDirectory + "/" + std::to_string(file); }
    void tell(const nlohmann::json& message);

    Database& mDatabase;
    const std::string mDirectory;
    qv::kit::EventStream mEvents;
    std::mutex mMutex;
    std::set<std::shared_ptr<qv::kit::websocket::Session>> mSessions;  // under mMutex
};

}  // namespace taskboard

#endif
