// First server: hello, a stream of numbers, uploads, an event stream, and graceful shutdown.

#include <Wendrel/kit/Server.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

using qv::HttpBaseRequest;
using qv::kit::BodyResult;
using qv::kit::Request;

void sendHello(Request& request)
{
    request.reply(200, "text/plain; charset=utf-8",
                  "Hello, " + request.getPathParameter("name") + "!\n");
}

// Generates lines at the rate at which the client reads them.
void sendNumbers(Request& request)
{
    const uint64_t last = std::strtoull(request.getPathParameter("last").c_str(), nullptr, 10);
    for (uint64_t number = 1; number <= last; ++number) {
        const std::string line = std::to_string(number) + "\n";
        if (!request.write(line.data(), line.size()))
            return;  // the connection is closed
    }
    request.finish();
}

constexpr int64_t kUploadLimitBytes = 16LL * 1024 * 1024;  // 16 MiB
constexpr size_t kPieceBytes = 65536;

// Rejects names that leave the directory or are hidden files.
bool isGoodName(const std::string& name)
{
    constexpr const char* kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                     "0123456789-_.";
    return name[0] != '.' && name.find_first_not_of(kAllowed) == std::string::npos;
}

// Writes the body to a file in pieces.
BodyResult receive(Request& request, std::ofstream& file, int64_t& total)
{
    if (request.getDeclaredBodyLength() > kUploadLimitBytes)
        return BodyResult::TooLarge;
    std::vector<char> piece(kPieceBytes);
    BodyResult result = BodyResult::More;
    while (result == BodyResult::More) {
        size_t got = 0;
        result = request.readBody(piece.data(), piece.size(), got);
        total += static_cast<int64_t>(got);
        if (total > kUploadLimitBytes)  // the client may send no Content-Length
            return BodyResult::TooLarge;
        file.write(piece.data(), static_cast<std::streamsize>(got));
    }
    return result;
}

void storeFile(Request& request)
{
    const std::string name = request.getPathParameter("name");
    if (!isGoodName(name)) {
        request.replyError(400, "This name is not allowed.");
        return;
    }
    static std::atomic<unsigned> uploads{0};  // handlers run concurrently
    const std::string unfinished = "uploads/.part" + std::to_string(++uploads);
    std::ofstream file(unfinished, std::ios::binary);
    int64_t total = 0;
    const BodyResult result = receive(request, file, total);
    file.close();
    const bool stored = result == BodyResult::Complete && file &&
                        std::rename(unfinished.c_str(), ("uploads/" + name).c_str()) == 0;
    if (!stored)
        std::remove(unfinished.c_str());

    if (stored)
        request.reply(200, "text/plain; charset=utf-8", std::to_string(total) + " bytes stored\n");
    else if (result == BodyResult::TooLarge)
        request.replyError(413,
                           "At most " + std::to_string(kUploadLimitBytes) + " bytes are taken.");
    else if (result == BodyResult::Complete)
        request.replyError(500, "The file could not be written.");
    // Aborted: the connection is closed, nobody receives a response.
}

class FirstServer : public qv::kit::Application
{
public:
    FirstServer()
    {
        getRouter().add(HttpBaseRequest::GET, "/hello/{name}", sendHello);
        getRouter().add(HttpBaseRequest::GET, "/numbers/{last}", sendNumbers);
        getRouter().add(HttpBaseRequest::PUT, "/files/{name}", storeFile);
        getRouter().add(HttpBaseRequest::GET, "/ticks",
                        [this](Request& request) { sendTicks(request); });
    }

    ~FirstServer() override { stopWorkers(); }  // handlers use the members below

    // Ends the event streams. Any thread.
    void endTicks()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
        mChanged.notify_all();
    }

private:
    void sendTicks(Request& request)
    {
        std::string line;
        for (unsigned number = 1; !isStoppingWithin(std::chrono::seconds(1)); ++number) {
            line = "tick " + std::to_string(number) + "\n";
            // Without `flush` a line is held back until the chunk of 64 KiB is full.
            if (!request.write(line.data(), line.size()) || !request.flush())
                return;  // the connection is closed
        }
        line = "the server stops\n";
        request.write(line.data(), line.size());
        request.finish();
    }

    bool isStoppingWithin(std::chrono::milliseconds time)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, time, [this] { return mStopping; });
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mStopping = false;
};

int main(int argc, char** argv)
{
    qv::kit::StopSignal stopSignal;  // before any thread starts: all block the signals

    auto application = std::make_unique<FirstServer>();
    FirstServer& firstServer = *application;
    std::filesystem::create_directory("uploads");

    qv::http::HttpServer::Parameters parameters;
    if (argc > 1)
        parameters.port = static_cast<uint16_t>(std::atoi(argv[1]));
    const std::chrono::seconds drainLimit(argc > 2 ? std::atoi(argv[2]) : 10);
    qv::kit::Server server(std::move(application));  // owns the application from here
    if (!server.start(parameters)) {
        std::fprintf(stderr, "cannot listen on port %u\n", parameters.port);
        return 1;
    }
    std::printf("listening on http://127.0.0.1:%u/\n", parameters.port);
    std::fflush(stdout);

    stopSignal.wait();
    std::puts("stopping");
    firstServer.endTicks();
    const bool allServed = server.stop(drainLimit);
    std::puts(allServed ? "every request was served" : "some requests were cut off");
    return 0;
}
