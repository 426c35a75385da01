// A chat with channels: every message is sent to all clients of its channel.

#include <Wendrel/kit/Server.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

using qv::kit::Request;
using namespace qv::kit::websocket;

namespace
{

// Serves all sessions of a channel. The callbacks of different sessions run on different loops at
// once.
class Channel : public SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>& session) override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSessions.insert(session);
    }

    void onText(Session&, std::string_view text) override
    {
        const auto message = PreparedMessage::text(text);
        const std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& session : mSessions)
            session->send(message);
    }

    void onClose(Session& session, uint16_t, std::string_view, bool) override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (auto it = mSessions.begin(); it != mSessions.end(); ++it) {
            if (it->get() == &session) {
                mSessions.erase(it);
                return;
            }
        }
    }

private:
    std::mutex mMutex;
    std::set<std::shared_ptr<Session>> mSessions;
};

class Channels
{
public:
    std::shared_ptr<Channel> find(const std::string& name)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::shared_ptr<Channel>& channel = mChannels[name];
        if (!channel)
            channel = std::make_shared<Channel>();
        return channel;
    }

private:
    std::mutex mMutex;
    std::map<std::string, std::shared_ptr<Channel>> mChannels;
};

using Handler = std::shared_ptr<SessionHandler>;

}  // namespace

int main(int argc, char** argv)
{
    Channels channels;
    qv::kit::Server server;
    server.router().webSocket("/channels/{channel}", {}, [&](Request& request) -> Handler {
        if (request.cookie("user").empty()) {
            request.replyError(401, "log in first");
            return nullptr;
        }
        return channels.find(request.pathParameter("channel"));
    });
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
