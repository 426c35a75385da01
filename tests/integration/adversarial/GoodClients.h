/// Clients that behave well, to see how they are served beside those that do not.
#ifndef WENDREL_TESTS_INTEGRATION_ADVERSARIAL_GOODCLIENTS_H
#define WENDREL_TESTS_INTEGRATION_ADVERSARIAL_GOODCLIENTS_H

#include "Metrics.h"

#include "../support/RawClient.h"
#include "../support/WebSocketClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <thread>

namespace adversarial
{

/// Response times of the successful requests, and the number of failures.
struct Served
{
    Distribution times;
    size_t failures = 0;

    void print(const std::string& name) const
    {
        times.print(name);
        metric(name + ".failures", static_cast<double>(failures), "requests");
    }
};

/// One request for /small on a connection of its own; false without a correct response.
inline bool isServed(uint16_t port)
{
    try {
        integration::RawClient client(port);
        client.send(integration::getRequest("/small"));
        const auto response = client.receive();
        return response && response->status == 200 && response->body == "small";
    } catch (const std::runtime_error&) {
        return false;
    }
}

inline void serveOne(uint16_t port, Served& served)
{
    const auto start = Clock::now();
    if (isServed(port))
        served.times.add(millisecondsSince(start));
    else
        ++served.failures;
}

/// So many requests, one after the other, each on a connection of its own.
inline Served serve(uint16_t port, size_t requests)
{
    Served served;
    for (size_t i = 0; i < requests; ++i)
        serveOne(port, served);
    return served;
}

/// Sends one small message and waits for it to come back.
inline void echoOne(integration::WebSocketClient& client, Served& served)
{
    const auto start = Clock::now();
    client.sendText("hello");
    const auto response = client.receive();
    if (response && response->bytes == "hello")
        served.times.add(millisecondsSince(start));
    else
        ++served.failures;
}

inline Served echo(uint16_t port, size_t messages)
{
    Served served;
    integration::WebSocketClient client(port);
    for (size_t i = 0; i < messages; ++i)
        echoOne(client, served);
    return served;
}

/// A client that goes on in a thread of its own until it is told to stop.
class Meanwhile
{
public:
    enum Kind { Requests, Messages };

    Meanwhile(uint16_t port, Kind kind) : mThread([this, port, kind] { go(port, kind); }) {}
    ~Meanwhile() { stop(); }
    Meanwhile(const Meanwhile&) = delete;
    Meanwhile& operator=(const Meanwhile&) = delete;

    const Served& stop()
    {
        mStop = true;
        if (mThread.joinable())
            mThread.join();
        return mServed;
    }

    /// Responses so far.
    size_t responses() const { return mResponses; }

private:
    void go(uint16_t port, Kind kind)
    {
        // A pause between any two, so that the client does not keep a core to itself.
        constexpr milliseconds kPause(5);
        std::unique_ptr<integration::WebSocketClient> client;
        if (kind == Messages)
            client = std::make_unique<integration::WebSocketClient>(port);
        while (!mStop) {
            if (client)
                echoOne(*client, mServed);
            else
                serveOne(port, mServed);
            mResponses = mServed.times.values.size();
            std::this_thread::sleep_for(kPause);
        }
    }

    Served mServed;  // the thread's until it has ended
    std::atomic<bool> mStop{false};
    std::atomic<size_t> mResponses{0};
    std::thread mThread;
};

}  // namespace adversarial

#endif
