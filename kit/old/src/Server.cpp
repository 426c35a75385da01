// A server from start to clean stop.

#include <Wendrel/kit/Server.h>

#include <Wendrel/Wendrel.h>

#include <qvSystem/Rollback.h>

#include <csignal>

namespace qv::kit
{
namespace
{

constexpr unsigned long kStateLookMs = 1;
constexpr std::chrono::seconds kDeletionLimit(10);

sigset_t stopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

Server::Server(std::unique_ptr<Application> application) : mApplication(application.get())
{
    // cppcheck-suppress useInitializationList ; the application changes hands right after
    mServer = std::make_unique<http::HttpServer>(application.get());
    static_cast<void>(application.release());  // the server's, now that there is one
    Rollback counted(&terminateWendrel);  // an initialisation that throws has been counted, too
    initializeWendrel();
    counted.commit();
}

Server::~Server()
{
    stop(std::chrono::milliseconds(0));
    mServer.reset();
    terminateWendrel();
}

bool Server::start(const http::HttpServer::Parameters& parameters, std::chrono::milliseconds limit)
{
    if (mServer->getState() != http::HttpServer::Stopped || mServer->isStopRequested())
        return false;
    mServer->startServer(parameters);
    // The server offers no condition to wait on, only its state.
    const auto end = std::chrono::steady_clock::now() + limit;
    while (mServer->getState() == http::HttpServer::Starting &&
           std::chrono::steady_clock::now() < end)
        qvThread::msleep(kStateLookMs);
    return mServer->getState() == http::HttpServer::Running;
}

bool Server::start(const http::ServerOptions& options)
{
    mIsEventDriven = mServer->serve(options);
    return mIsEventDriven;
}

// In event-driven mode requests that have been sent already are served.
bool Server::stop(std::chrono::milliseconds limit)
{
    const bool drained = mIsEventDriven ? mServer->shutDown(limit) : mApplication->drain(limit);
    mServer->stopServer(true);
    mApplication->stopWorkers();
    // Every request is completed and its worker done: this only waits until all are deleted.
    mApplication->drain(kDeletionLimit);
    return drained;
}

StopSignal::StopSignal()
{
    const sigset_t signals = stopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int StopSignal::wait()
{
    const sigset_t signals = stopSignals();
    int number = 0;
    sigwait(&signals, &number);
    return number;
}

}  // namespace qv::kit
