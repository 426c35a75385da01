// The handlers of docs/streaming.md: bodies of any length in constant memory.

#include <Wendrel/kit/Server.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using qv::BodySource;
using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::DeferredStream;
using qv::kit::HttpError;
using qv::kit::Request;
using qv::kit::StreamWrite;

namespace
{

constexpr size_t kPieceBytes = 65536;
constexpr uint64_t kNoteLimitBytes = 65536;

uint64_t lastOf(Request& request)
{
    return static_cast<uint64_t>(request.pathParameter("last").asInt(std::nullopt, 0));
}

// The server reads the file while it sends it. No worker waits.
void sendFile(Request& request, const std::string& path)
{
    std::unique_ptr<BodySource> file = BodySource::fromFile(path);
    if (!file)
        throw HttpError(404, "There is no such file.");
    request.replySource(std::move(file), ContentType::bytes());
}

// The worker writes at the rate at which the client reads.
void sendNumbers(Request& request)
{
    const uint64_t last = lastOf(request);
    if (!request.startStream())
        return;
    for (uint64_t number = 1; number <= last; ++number) {
        if (!request.write(std::to_string(number) + "\n"))
            return;  // the client has closed the connection
    }
}

// The same without a worker: continued each time that the client has taken enough.
class Numbers : public std::enable_shared_from_this<Numbers>
{
public:
    Numbers(DeferredStream stream, uint64_t last) : mStream(std::move(stream)), mLast(last) {}

    void start()
    {
        // The stream keeps the callback, and so this object, until the stream has ended.
        mStream.onWritable([self = shared_from_this()] { self->writeMore(); });
        writeMore();
    }

private:
    void writeMore()
    {
        for (; mNext <= mLast; ++mNext) {
            if (mStream.write(std::to_string(mNext) + "\n") != StreamWrite::Taken)
                return;  // Full: called again. Gone: never
        }
        mStream.finish();
    }

    DeferredStream mStream;
    uint64_t mNext = 1;
    const uint64_t mLast;
};

void sendNumbersLater(Request& request)
{
    const uint64_t last = lastOf(request);
    DeferredStream stream = request.defer().startStream(ContentType::text());
    std::make_shared<Numbers>(std::move(stream), last)->start();
}

// Reads a body of any length in constant memory. For a streaming route.
void countLines(Request& request)
{
    std::vector<char> piece(kPieceBytes);
    int64_t lines = 0;
    while (const size_t got = request.readBody(piece.data(), piece.size()))
        lines += std::count(piece.data(), piece.data() + got, '\n');
    request.reply(std::to_string(lines) + "\n");
}

// The same without a worker while the client is slow. The callbacks keep the count, and the
// response.
void countLinesLater(Request& request)
{
    struct Count
    {
        DeferredResponse later;
        int64_t lines = 0;
    };
    auto count = std::make_shared<Count>();
    count->later = request.defer();
    count->later.onBody(
        [count](std::string_view piece) {
            count->lines += std::count(piece.begin(), piece.end(), '\n');
        },
        [count] { count->later.reply(std::to_string(count->lines) + "\n"); });
}

// The body has been received when the handler is called.
void takeNote(Request& request)
{
    request.reply("noted: " + request.body() + "\n");
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    qv::kit::ServerOptions options;
    options.listen = {argv[1]};
    options.workers = 4;
    qv::kit::Server server(options);
    qv::kit::Router& router = server.router();
    router.get("/file",
               [path = std::string(argv[2])](Request& request) { sendFile(request, path); });
    router.get("/numbers/{last}", sendNumbers);
    router.get("/numbers-later/{last}", sendNumbersLater);
    router.post("/lines", countLines).streaming();
    router.post("/lines-later", countLinesLater).streaming();
    router.post("/notes", takeNote).maxBodyBytes(kNoteLimitBytes);
    return server.run();
}
