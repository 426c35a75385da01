// Files of any size in constant memory: uploads to a directory, downloads with ranges.

#include <Wendrel/kit/Server.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using qv::kit::ContentType;
using qv::kit::FileOptions;
using qv::kit::HttpError;
using qv::kit::Request;

constexpr size_t kPieceBytes = 65536;
constexpr uint64_t kMaxFileBytes = 16UL * 1024 * 1024;  // 16 MiB

// The name comes from the client: it must neither leave the directory nor be a hidden file.
std::string pathOf(Request& request)
{
    constexpr const char* kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                     "0123456789-_.";
    const std::string& name = request.pathParameter("name");
    if (name[0] == '.' || name.find_first_not_of(kAllowed) != std::string::npos)
        throw HttpError(400, "This name is not allowed.");
    return "uploads/" + name;
}

// A file that gets its name when it is complete; otherwise it is removed.
class NewFile
{
public:
    NewFile() : mStream(mTemporary, std::ios::binary) {}
    ~NewFile() { std::remove(mTemporary.c_str()); }

    void write(const char* data, size_t size)
    {
        mStream.write(data, static_cast<std::streamsize>(size));
    }

    bool complete(const std::string& path)
    {
        mStream.close();
        return mStream && std::rename(mTemporary.c_str(), path.c_str()) == 0;
    }

private:
    static inline std::atomic<unsigned> sFiles{0};  // handlers run on several threads at once

    const std::string mTemporary = "uploads/.part" + std::to_string(++sFiles);
    std::ofstream mStream;
};

// PUT /files/{name}. readBody throws when the client leaves, or sends more than the limit.
void storeFile(Request& request)
{
    const std::string path = pathOf(request);
    NewFile file;
    std::vector<char> piece(kPieceBytes);
    uint64_t total = 0;
    while (const size_t got = request.readBody(piece.data(), piece.size())) {
        file.write(piece.data(), got);
        total += got;
    }
    if (!file.complete(path))
        throw HttpError(500, "The file could not be written.");
    request.reply(std::to_string(total) + " bytes stored\n");
}

// GET /files/{name}. As bytes: a page that somebody has uploaded is not shown.
void sendFile(Request& request)
{
    FileOptions options;
    options.type = ContentType::bytes().value();
    request.replyFile(pathOf(request), options);
}

int main(int argc, char** argv)
{
    std::filesystem::create_directory("uploads");
    qv::kit::Server server;
    server.router().put("/files/{name}", storeFile).streaming().maxBodyBytes(kMaxFileBytes);
    server.router().get("/files/{name}", sendFile);
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
