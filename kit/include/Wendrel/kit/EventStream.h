/// Server-sent events: pages that listen to a topic.
#ifndef WENDREL_KIT_EVENTSTREAM_H
#define WENDREL_KIT_EVENTSTREAM_H

#include <Wendrel/kit/Request.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qv::kit
{

/// The treatment of a client whose queue, or the server's memory budget, has no space for an event.
enum class SlowClient : uint8_t {
    Disconnect,  ///< its stream ends; it comes back and gets the missed events from the history
    Skip         ///< it does not get the event
};

/// Options of an EventStream. A plain value.
struct EventStreamOptions
{
    /// A comment is sent after so long without an event, for proxies and to notice closed
    /// connections. 0: none.
    std::chrono::milliseconds heartbeat{15000};
    /// Newest events that are kept for clients that come back.
    size_t historyEvents = 100;
    /// Bytes of them at most.
    size_t historyBytes = 1048576;
    /// Bytes that wait for one client; a single event of any size waits alone.
    size_t queueBytes = 65536;
    /// For a client whose queue is full.
    SlowClient slowClient = SlowClient::Disconnect;
    /// How long browsers wait before they come back. 0: as they like.
    std::chrono::milliseconds retry{0};
};

/// A topic: events are published to all who listen. Any number of clients; none of them occupies a
/// worker. Any thread, also several at once; no operation waits for a client.
///
/// It may be destroyed before the server, which ends all streams as `close` does, or after it. A
/// stop of the server waits for its streams: `server.onStopping([&] { events.close(); })`.
class EventStream
{
public:
    /// Starts the thread of the heartbeats for the first topic of the process. Throws
    /// std::system_error when the system has no thread to give.
    explicit EventStream(const EventStreamOptions& options = EventStreamOptions());
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;
    /// As `close`.
    ~EventStream();

    /// Responds to `request` with the stream, for a handler of GET. A client that comes back with
    /// `Last-Event-ID` first gets the events behind that one, or the whole history when the event
    /// is no longer, or not yet, in it. When they are more than `queueBytes`, the stream ends
    /// behind the first of them, at least one; when the memory budget has no space, it ends without
    /// any. The client comes back for the others. After `close`: 503.
    void subscribe(Request& request);

    /// Sends an event to all who listen. `event`: the name that a page listens to; empty:
    /// "message". `data` may have several lines. `id` comes back as `Last-Event-ID`; empty: a
    /// number that no other event has, nor one of an earlier process. Throws std::invalid_argument
    /// for a line break or NUL in `event` or `id`.
    void publish(std::string_view event, std::string_view data, std::string_view id = {});

    /// Ends all streams, queued events are sent first. There are no new ones.
    void close();

    /// Clients that listen.
    size_t subscribers() const;

private:
    class Topic;
    class Heart;

    const std::shared_ptr<Heart> mHeart;
    const std::shared_ptr<Topic> mTopic;
};

}  // namespace qv::kit

#endif
