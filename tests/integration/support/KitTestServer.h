/// A server of the kit for a test, on a port that the system has chosen.
#ifndef WENDREL_TESTS_INTEGRATION_KITTESTSERVER_H
#define WENDREL_TESTS_INTEGRATION_KITTESTSERVER_H

#include "Certificates.h"
#include "ProcessLog.h"
#include "RawClient.h"
#include "TestMode.h"
#include "Waiting.h"

#include <Wendrel/kit/Server.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

namespace integration
{

/// Two daemon threads, and deadlines that no test reaches.
inline qv::kit::ServerOptions kitOptions(unsigned workers = 8)
{
    qv::kit::ServerOptions options;
    options.listen = {"127.0.0.1:0"};
    options.threads = 2;
    options.workers = workers;
    options.bodyTimeout = options.headTimeout = std::chrono::minutes(10);
    options.minBodyBytesPerSecond = 0;
    return options;
}

class KitTestServer
{
public:
    using Setup = std::function<void(qv::kit::Router&)>;

    explicit KitTestServer(const Setup& setup, const qv::kit::ServerOptions& options = kitOptions(),
                           const std::function<void(qv::kit::Server&)>& prepare = nullptr)
        : mServer(options)
    {
        if (prepare)
            prepare(mServer);
        if (isSecure() && options.tls.empty())
            mServer.options().tls.push_back(localhostTls());
        setup(mServer.router());
        if (!mServer.start())
            throw std::runtime_error(mServer.failureReason());
        const std::string endpoint = mServer.endpoints().front();
        mPort = static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
    }

    qv::kit::Server& server() { return mServer; }
    uint16_t port() const { return mPort; }

    bool stop(std::chrono::milliseconds limit = kLimit) { return mServer.stop(limit); }

    /// Sends `bytes` on a new connection and returns the response; status 0 without one.
    RawResponse ask(const std::string& bytes) const
    {
        RawClient client(mPort);
        client.send(bytes);
        return client.receive(bytes.compare(0, 5, "HEAD ") == 0).value_or(RawResponse());
    }

    RawResponse get(const std::string& target) const { return ask(getRequest(target)); }

private:
    qv::kit::Server mServer;
    uint16_t mPort = 0;
};

/// A request with a body of `length` bytes, which follows.
inline std::string headOf(const std::string& method, const std::string& target, size_t length,
                          const std::string& headerLines = "")
{
    return method + " " + target + " HTTP/1.1\r\nHost: x\r\n" + headerLines +
           "Content-Length: " + std::to_string(length) + "\r\n\r\n";
}

inline std::string withBody(const std::string& method, const std::string& target,
                            const std::string& body)
{
    return headOf(method, target, body.size()) + body;
}

inline std::string chunkedHead(const std::string& method, const std::string& target)
{
    return method + " " + target + " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n";
}

inline std::string chunk(const std::string& bytes)
{
    char size[20];
    std::snprintf(size, sizeof size, "%zx\r\n", bytes.size());
    return size + bytes + "\r\n";
}

/// Waits for a line of the log with exactly this text: lines follow the response.
inline ::testing::AssertionResult logged(const std::string& text)
{
    if (waitUntil([&] { return !processLog->lines(text).empty(); }))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no line \"" << text << "\"";
}

}  // namespace integration

#endif
