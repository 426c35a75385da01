// The application of the bare daemon, built on the library. Responds 400 to a parse error.

#include "../support/TestServer.h"
#include "Report.h"

#include <qvSystem/qvLog.h>

#include <sys/prctl.h>

#include <csignal>
#include <memory>
#include <string>

namespace
{

using integration::TestRequest;

std::string joined(const std::list<std::string>* values)
{
    std::string text;
    if (values)
        for (const std::string& value : *values)
            text += (text.empty() ? "" : ",") + value;
    return text;
}

void respond(TestRequest& request)
{
    const std::string& target = request.getOriginalFullUrl();
    const bool isNotModified = target.ends_with(framing::kNotModifiedTarget);
    if (!isNotModified && !target.ends_with(framing::kUndeclaredTarget)) {
        request.respond(200, "seen\n");
        return;
    }
    request.response.statusCode = isNotModified ? 304 : 200;
    request.beginStream();
    request.getResponseDevice().endSending();
}

void serve(TestRequest& request)
{
    const uint16_t port = request.getClientAddress().getPort();
    framing::reportHead(port, qv::HttpBaseRequest::RequestTypeToString(request.getRequestType()),
                        request.getOriginalFullUrl(), joined(request.getHeader("x-forwarded-for")));
    request.response.headers["x-application"] = {framing::kOwnHeader, "1"};
    if (request.hasParseError()) {
        framing::report(port, "refused", request.getParseError());
        request.respond(400, "refused\n");
        return;
    }
    const uint64_t bodyBytes = request.readBody().size();
    if (request.getReceiveDevice().hasDeviceError())
        return;
    framing::reportWhole(port, bodyBytes);
    respond(request);
}

integration::TestServerOptions options()
{
    integration::TestServerOptions options;
    options.allowWebSocket = true;
    options.onNewWebSocket = [](std::unique_ptr<qv::http::WebSocket> upgraded) {
        upgraded->markForDeletion();
    };
    return options;
}

}  // namespace

int main()
{
    // Before any thread, so that all of them leave the signals to sigwait.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    // A test that is cut off leaves no server behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);

    qv::qvLog log;
    log.addSink(qv::MakeStandardErrorSink());
    log.install();
    const integration::TestServer server(serve, options());
    std::printf("port %u\n", static_cast<unsigned>(server.port()));
    std::fflush(stdout);
    int number = 0;
    sigwait(&stopSignals, &number);
    return 0;
}
