// The scenarios.

#include "Scenarios.h"

#include "Application.h"
#include "Boundary.h"
#include "Daemon.h"
#include "System.h"

#include <Wendrel/WebSocket.h>

#include "websocket/BlockPool.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <vector>

namespace qv::bench
{
namespace
{

constexpr size_t kPieceBytes = 16384;
constexpr size_t kBlockBytes = 65536;
constexpr size_t kMebibyte = 1048576;

// Maximum block of a chunked response: the free memory of a connection.
constexpr size_t kReaderCapacityBytes = 262000;

constexpr std::string_view kHello = "Hello, world\n";

// Where bodies come from and go to. Aligned, so that copies cost the same wherever the program is.
alignas(64) std::array<char, kBlockBytes> gSource;
alignas(64) std::array<char, kReaderCapacityBytes> gTarget;

// The calls of the daemon for one request after the other on one connection.
class Exchange
{
public:
    Exchange(std::span<const HeadValue> head, Application::Handler handler)
        : mConnection(head), mApplication(new Application(handler)), mServer(mApplication)
    {}
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    void open(const char* target)
    {
        mConnection.status = 0;
        mConnection.response = nullptr;
        InLibrary([&] { mSlot = mOpen(nullptr, target, &mConnection); });
    }

    void access(const char* method, const char* data = nullptr, size_t size = 0)
    {
        // The library finds the target in the context and not here.
        InLibrary([&] {
            mHandle(&mServer, &mConnection, "/", method, MHD_HTTP_VERSION_1_1, data, &size, &mSlot);
        });
    }

    ssize_t read(uint64_t position)
    {
        const MHD_Response& response = *mConnection.response;
        ssize_t got = 0;
        InLibrary([&] {
            got = response.reader(response.closure, position, gTarget.data(), gTarget.size());
        });
        return got;
    }

    void complete()
    {
        InLibrary([&] {
            mComplete(&mServer, &mConnection, &mSlot, MHD_REQUEST_TERMINATED_COMPLETED_OK);
        });
        mApplication->destroyRequest();
    }

    HttpBaseRequest& request() const { return mApplication->getRequest(); }
    bool hasResponse() const { return mConnection.status == MHD_HTTP_OK; }

    // With a length that was not declared.
    bool isStreamed() const
    {
        return hasResponse() && mConnection.response->declaredBytes == MHD_SIZE_UNKNOWN &&
               mConnection.response->reader;
    }

    // The body of a response from one buffer.
    std::string_view body() const
    {
        const MHD_Response* response = mConnection.response;
        return hasResponse() ? std::string_view(response->body.data(), response->bodyBytes)
                             : std::string_view();
    }

private:
    using Server = http::HttpServerImpl;
    using OpenCallback = void* (*)(void*, const char*, MHD_Connection*);
    using CompleteCallback = void (*)(void*, MHD_Connection*, void**, MHD_RequestTerminationCode);

    const OpenCallback mOpen = reinterpret_cast<OpenCallback>(Server::GetUriLogCallback());
    const MHD_AccessHandlerCallback mHandle =
        reinterpret_cast<MHD_AccessHandlerCallback>(Server::GetHttpCallback());
    const CompleteCallback mComplete =
        reinterpret_cast<CompleteCallback>(Server::GetRequestCompletedCallback());

    MHD_Connection mConnection;
    Application* mApplication;  // the server's
    http::HttpServer mServer;
    void* mSlot = nullptr;
};

void startWork(HttpBaseRequest& request)
{
    InLibrary([&] { request.workerThreadStartHandling(qvThread::CurrentThreadId()); });
}

void endWork(HttpBaseRequest& request)
{
    InLibrary([&] { request.workerThreadStopHandling(qvThread::CurrentThreadId()); });
}

void write(HttpBaseRequest& request, const char* data, size_t size)
{
    InLibrary([&] { request.getResponseDevice().writeBytes(data, size); });
}

void endResponse(HttpBaseRequest& request)
{
    InLibrary([&] { request.getResponseDevice().endSending(); });
}

void announce(HttpBaseRequest& request)
{
    InLibrary([&] { request.getResponseDevice().setResponseReady(); });
}

void respondHello(HttpBaseRequest& request)
{
    startWork(request);
    write(request, kHello.data(), kHello.size());
    endResponse(request);
    announce(request);
    endWork(request);
}

void leaveToWorker(HttpBaseRequest&) {}

constexpr HeadValue kHelloHead[] = {
    {MHD_HEADER_KIND, "Host", "127.0.0.1:8080"},
    {MHD_HEADER_KIND, "User-Agent", "wrk/4.1.0"},
    {MHD_HEADER_KIND, "Accept", "*/*"},
};

constexpr HeadValue kBrowserHead[] = {
    {MHD_HEADER_KIND, "Host", "shop.example.com"},
    {MHD_HEADER_KIND, "Connection", "keep-alive"},
    {MHD_HEADER_KIND, "Cache-Control", "max-age=0"},
    {MHD_HEADER_KIND, "Upgrade-Insecure-Requests", "1"},
    {MHD_HEADER_KIND, "User-Agent",
     "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/120.0.0.0 "
     "Safari/537.36"},
    {MHD_HEADER_KIND, "Accept",
     "text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,*/*;q=0.8"},
    {MHD_HEADER_KIND, "Sec-Fetch-Site", "same-origin"},
    {MHD_HEADER_KIND, "Sec-Fetch-Mode", "navigate"},
    {MHD_HEADER_KIND, "Sec-Fetch-User", "?1"},
    {MHD_HEADER_KIND, "Sec-Fetch-Dest", "document"},
    {MHD_HEADER_KIND, "Referer", "https://shop.example.com/catalogue/garden"},
    {MHD_HEADER_KIND, "Accept-Encoding", "gzip, deflate, br"},
    {MHD_HEADER_KIND, "Accept-Language", "en-GB,en;q=0.9,de;q=0.7"},
    {MHD_HEADER_KIND, "If-Modified-Since", "Tue, 17 Feb 2026 09:30:00 GMT"},
    {MHD_HEADER_KIND, "Cookie",
     "session=5f1d3c9a7b2e4680a1c3e5f708192a3b; theme=dark; locale=en-GB; basket=1042.7; "
     "consent=necessary-statistics"},
    {MHD_COOKIE_KIND, "session", "5f1d3c9a7b2e4680a1c3e5f708192a3b"},
    {MHD_COOKIE_KIND, "theme", "dark"},
    {MHD_COOKIE_KIND, "locale", "en-GB"},
    {MHD_COOKIE_KIND, "basket", "1042.7"},
    {MHD_COOKIE_KIND, "consent", "necessary-statistics"},
    {MHD_GET_ARGUMENT_KIND, "category", "garden"},
    {MHD_GET_ARGUMENT_KIND, "sort", "price"},
    {MHD_GET_ARGUMENT_KIND, "page", "3"},
    {MHD_GET_ARGUMENT_KIND, "text", "b\xC3\xA4nk und tische"},
    {MHD_GET_ARGUMENT_KIND, "view", "list"},
};
constexpr const char* kBrowserTarget =
    "/catalogue/garden?category=garden&sort=price&page=3&text=b%C3%A4nk%20und%20tische&view=list";

constexpr HeadValue kUploadHead[] = {
    {MHD_HEADER_KIND, "Host", "127.0.0.1:8080"},
    {MHD_HEADER_KIND, "User-Agent", "curl/7.88.1"},
    {MHD_HEADER_KIND, "Accept", "*/*"},
    {MHD_HEADER_KIND, "Content-Length", "1048576"},
};

// A request without body and with an immediate response.
class ImmediateResponse : public Scenario
{
public:
    ImmediateResponse(std::span<const HeadValue> head, const char* target)
        : mExchange(head, &respondHello), mTarget(target)
    {}

    bool run() override
    {
        mExchange.open(mTarget);
        mExchange.access(MHD_HTTP_METHOD_GET);
        const bool understood = !mExchange.request().hasParseError();
        mExchange.access(MHD_HTTP_METHOD_GET);
        const bool responded = mExchange.body() == kHello;
        mExchange.complete();
        return understood && responded;
    }

private:
    Exchange mExchange;
    const char* mTarget;
};

class Hello : public ImmediateResponse
{
public:
    Hello() : ImmediateResponse(kHelloHead, "/hello") {}
};

class Browser : public ImmediateResponse
{
public:
    Browser() : ImmediateResponse(kBrowserHead, kBrowserTarget) {}
};

// The whole body has come before the worker reads it: so nobody waits.
class Upload : public Scenario
{
public:
    bool run() override
    {
        mExchange.open("/upload");
        mExchange.access(MHD_HTTP_METHOD_POST);
        for (size_t fed = 0; fed < kMebibyte; fed += kPieceBytes)
            mExchange.access(MHD_HTTP_METHOD_POST, gSource.data(), kPieceBytes);
        mExchange.access(MHD_HTTP_METHOD_POST);
        HttpBaseRequest& request = mExchange.request();
        const bool complete = readAll(request) == kMebibyte;
        respondHello(request);
        mExchange.access(MHD_HTTP_METHOD_POST);
        const bool responded = mExchange.body() == kHello;
        mExchange.complete();
        return complete && responded;
    }

private:
    static uint64_t readAll(HttpBaseRequest& request)
    {
        uint64_t total = 0;
        bool more = true;
        startWork(request);
        while (more) {
            InLibrary([&] {
                HttpReceiveDevice& device = request.getReceiveDevice();
                total += device.readBytes(gTarget.data(), kBlockBytes);
                more = !device.atEnd();
            });
        }
        endWork(request);
        return total;
    }

    Exchange mExchange{kUploadHead, &leaveToWorker};
};

// The worker writes a block, the daemon fetches it.
class Stream : public Scenario
{
public:
    bool run() override
    {
        mExchange.open("/stream?bytes=1048576");
        mExchange.access(MHD_HTTP_METHOD_GET);
        mExchange.access(MHD_HTTP_METHOD_GET);
        const bool complete = mExchange.isStreamed() && pass() && atEnd();
        mExchange.complete();
        return complete;
    }

private:
    bool pass()
    {
        HttpBaseRequest& request = mExchange.request();
        startWork(request);
        bool whole = true;
        for (size_t sent = 0; sent < kMebibyte; sent += kBlockBytes) {
            write(request, gSource.data(), kBlockBytes);
            whole = whole && mExchange.read(sent) == static_cast<ssize_t>(kBlockBytes);
        }
        endResponse(request);
        endWork(request);
        return whole;
    }

    bool atEnd() { return mExchange.read(kMebibyte) == MHD_CONTENT_READER_END_OF_STREAM; }

    Exchange mExchange{kHelloHead, &announce};
};

class EchoSocket : public http::WebSocket
{
public:
    EchoSocket() : WebSocket(kSocket, nullptr) {}

    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        Outside([&] {
            InLibrary([&] { writeMessage(received.data(), received.size(), isBinary); });
            mEchoedBytes = received.size();
            mEchoedText = received.front() == kLetter && received.back() == kLetter;
        });
    }

    static constexpr uint8_t kLetter = 'w';

    size_t mEchoedBytes = 0;
    bool mEchoedText = false;
};

// As a worker of the WebSocketThread does it, turn after turn until the socket is empty.
template <size_t payloadBytes> class Echo : public Scenario
{
public:
    Echo() : mFrame(clientFrame()) {}

    bool run() override
    {
        SetIncoming(mFrame);
        mSocket.mEchoedBytes = 0;
        bool good = true;
        InLibrary([&] { mSocket.setReadEnabled(true); });
        while (good && mSocket.hasReadPending()) {
            InLibrary([&] {
                mSocket.assignCurrentThread();
                good = mSocket.sendDataIfAvailable() && mSocket.readDataIfAvailable();
                mSocket.clearCurrentThread();
            });
        }
        return good && mSocket.mEchoedBytes == payloadBytes && mSocket.mEchoedText &&
               GetSentBytes() == payloadBytes + kServerHeaderBytes;
    }

private:
    static constexpr uint8_t kBinaryFrame = 0x82;
    static constexpr uint8_t kMaskBit = 0x80;
    static constexpr std::array<uint8_t, 4> kMaskKey = {0x12, 0xa5, 0x7e, 0xc3};
    static constexpr size_t kMaxLengthInByte = 125;
    static constexpr uint8_t kEightByteLength = 127;
    static constexpr size_t kServerHeaderBytes = payloadBytes <= kMaxLengthInByte ? 2 : 10;

    static std::vector<uint8_t> clientFrame()
    {
        std::vector<uint8_t> frame{kBinaryFrame};
        if constexpr (payloadBytes <= kMaxLengthInByte) {
            frame.push_back(kMaskBit | payloadBytes);
        } else {
            frame.push_back(kMaskBit | kEightByteLength);
            for (int shift = 56; shift >= 0; shift -= 8)
                // cppcheck-suppress shiftTooManyBits ; the number has 64 bits
                frame.push_back(static_cast<uint8_t>(payloadBytes >> shift));
        }
        for (const uint8_t byte : kMaskKey)
            frame.push_back(byte);
        for (size_t i = 0; i < payloadBytes; ++i)
            frame.push_back(EchoSocket::kLetter ^ kMaskKey[i % kMaskKey.size()]);
        return frame;
    }

    const std::vector<uint8_t> mFrame;
    EchoSocket mSocket;
    impl::BlockPool mPool;  // as a worker thread has them
};

template <typename Made> std::unique_ptr<Scenario> make()
{
    return std::make_unique<Made>();
}

// A frame begins in a block of 1024 bytes where the one before has ended: after so many it is the
// beginning of a block again.
constexpr unsigned kEchoesPerRun = 512;

constexpr NamedScenario kScenarios[] = {
    {"hello", "GET /hello with three headers, response in handleRequest", 200, &make<Hello>},
    {"browser", "GET with 15 headers, 5 cookies and 5 query arguments, response in handleRequest",
     200, &make<Browser>},
    {"upload", "POST of 1 MiB that comes in pieces of 16 KiB and is read in blocks of 64 KiB", 10,
     &make<Upload>},
    {"stream", "GET with a response of 1 MiB, not declared, written in blocks of 64 KiB", 10,
     &make<Stream>},
    {"echo-64", "message of 64 bytes received and sent back", kEchoesPerRun, &make<Echo<64>>},
    {"echo-64k", "message of 64 KiB received and sent back", kEchoesPerRun, &make<Echo<65536>>},
};

}  // namespace

std::span<const NamedScenario> AllScenarios()
{
    return kScenarios;
}

}  // namespace qv::bench
