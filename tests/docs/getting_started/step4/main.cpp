// Long polls: GET /next waits for the next message that is posted. No thread waits with it.

#include <Wendrel/kit/Server.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <utility>

using qv::kit::DeferredResponse;
using qv::kit::Request;

class Readers
{
public:
    // GET /next
    void add(Request& request)
    {
        DeferredResponse later = request.defer();
        later.setDeadline(std::chrono::seconds(25), 204);  // no message: ask again
        const unsigned id = ++mLastId;
        // Without the lock: the client may have left already, and the callback is called here then.
        later.onGone([this, id] { remove(id); });

        const std::lock_guard<std::mutex> lock(mMutex);
        if (mHasEnded) {
            later.reply(204);
            return;
        }
        const auto added = mWaiting.emplace(id, std::move(later)).first;
        if (!added->second.isOpen())
            mWaiting.erase(added);  // the client has left before it was added
    }

    // POST /messages
    void publish(Request& request)
    {
        unsigned count = 0;
        for (auto& reader : takeAll())
            count += reader.second.reply(request.body() + "\n") ? 1 : 0;
        request.reply(std::to_string(count) + " readers\n");
    }

    // The server stops: nobody waits any more, also of those to come.
    void end()
    {
        mHasEnded = true;
        for (auto& reader : takeAll())
            reader.second.reply(204);
    }

private:
    std::map<unsigned, DeferredResponse> takeAll()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return std::exchange(mWaiting, {});
    }

    // The client has left, or its time is over. Any thread.
    void remove(unsigned id)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mWaiting.erase(id);
    }

    std::atomic<unsigned> mLastId{0};
    std::atomic<bool> mHasEnded{false};
    std::mutex mMutex;
    std::map<unsigned, DeferredResponse> mWaiting;
};

int main(int argc, char** argv)
{
    Readers readers;  // outlives the server, whose handlers use it
    qv::kit::Server server;
    server.router().get("/next", [&](Request& request) { readers.add(request); }).nonBlocking();
    server.router().post("/messages", [&](Request& request) { readers.publish(request); });
    server.onStopping([&] { readers.end(); });
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
