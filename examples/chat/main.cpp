// wendrel-chat: a chat on a web page until it is told to stop.

#include "Chat.h"

#include <Wendrel/Wendrel.h>
#include <Wendrel/kit/Configuration.h>
#include <qvSystem/qvLog.h>

#include <string>

// An exception at the start ends the process with its text.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv)
{
    qv::qvLog log;
    log.addSink(qv::MakeStandardErrorSink());
    log.install();
    qv::kit::Server server;
    CLI::App app("Serves a page on which people talk in rooms and show each other pictures.",
                 "wendrel-chat");
    qv::kit::addServerOptions(app, server.options());
    app.set_version_flag(
        "--version", std::string("wendrel-chat ") +
                         Wendrel::Version::GetDescStringMajorMinorReleaseRevision(false, false));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 1;
    }
    chat::addRoutes(server.router());
    return server.run();
}
