// The handlers of docs/files.md: a download, and a directory.

#include <Wendrel/kit/Server.h>

#include <string>

using qv::kit::DirectoryOptions;
using qv::kit::FileOptions;
using qv::kit::Request;

namespace
{

void sendReport(Request& request, const std::string& directory)
{
    FileOptions options;
    options.downloadName = request.query("as").asText("report.pdf");
    request.replyFile(directory + "/report.pdf", options);
}

void addDirectory(qv::kit::Server& server, const std::string& directory)
{
    DirectoryOptions options;
    options.listing = true;
    server.router().directory("/public", directory, options);
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string directory = argc > 2 ? argv[2] : ".";

    qv::kit::Server server;
    server.router().get("/report", [&](Request& request) { sendReport(request, directory); });
    addDirectory(server, directory);
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
