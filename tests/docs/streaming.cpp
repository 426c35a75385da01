// The handlers of docs/streaming.md: stream a file, read request bodies.

#include <Wendrel/kit/Server.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using qv::HttpBaseRequest;
using qv::kit::BodyResult;
using qv::kit::Request;

namespace
{

constexpr size_t kPieceBytes = 65536;
constexpr uint64_t kNoteLimitBytes = 65536;

// With a declared length the client can show progress and detects truncation.
void sendFile(Request& request, const std::string& path)
{
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) {
        request.replyError(404, "There is no such file.");
        return;
    }
    request.getHead().setContentType("application/octet-stream");
    request.getHead().setContentLength(file.tellg());
    if (!request.startStream() || !request.hasBody())
        return;  // the connection is closed, or the request is HEAD
    file.seekg(0);
    std::vector<char> piece(kPieceBytes);
    while (file.read(piece.data(), kPieceBytes) || file.gcount() > 0) {
        if (!request.write(piece.data(), static_cast<size_t>(file.gcount())))
            return;  // the connection is closed
    }
    request.finish();  // closes the connection if the file has been truncated meanwhile
}

// Reads a body of any length in constant memory.
void countLines(Request& request)
{
    std::vector<char> piece(kPieceBytes);
    int64_t lines = 0;
    BodyResult result = BodyResult::More;
    while (result == BodyResult::More) {
        size_t got = 0;
        result = request.readBody(piece.data(), piece.size(), got);
        lines += std::count(piece.data(), piece.data() + got, '\n');
    }
    if (result == BodyResult::Complete)
        request.reply(200, "text/plain; charset=utf-8", std::to_string(lines) + "\n");
}

// Reads a small body as a whole; holds at most the limit in memory.
void takeNote(Request& request)
{
    std::string note;
    switch (request.readWholeBody(kNoteLimitBytes, note)) {
    case BodyResult::Complete:
        request.reply(200, "text/plain; charset=utf-8", "noted: " + note + "\n");
        break;
    case BodyResult::TooLarge:
        request.replyError(413,
                           "A note has at most " + std::to_string(kNoteLimitBytes) + " bytes.");
        break;
    default:
        break;  // the connection is closed or the server stops: nobody receives a response
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: docs_streaming PORT FILE\n");
        return 2;
    }
    qv::kit::StopSignal stopSignal;

    const std::string path = argv[2];
    auto application = std::make_unique<qv::kit::Application>();
    qv::kit::Router& router = application->getRouter();
    router.add(HttpBaseRequest::GET, "/file",
               [path](Request& request) { sendFile(request, path); });
    router.add(HttpBaseRequest::POST, "/lines", countLines);
    router.add(HttpBaseRequest::POST, "/notes", takeNote);

    qv::http::HttpServer::Parameters parameters;
    parameters.port = static_cast<uint16_t>(std::atoi(argv[1]));
    qv::kit::Server server(std::move(application));
    if (!server.start(parameters))
        return 1;
    std::printf("listening on http://127.0.0.1:%u/\n", parameters.port);
    std::fflush(stdout);
    stopSignal.wait();
    server.stop(std::chrono::seconds(10));
    return 0;
}
