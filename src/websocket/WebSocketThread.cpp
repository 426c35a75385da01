// The poll thread of upgraded connections and its workers.

#include <Wendrel/WebSocket.h>

#include "server/logging/LogObject.h"
#include "websocket/BlockPool.h"

#include <qvSystem/Rollback.h>
#include <qvSystem/SystemError.h>

#include <poll.h>

#include <cerrno>
#include <utility>

namespace qv::http
{
namespace
{

// Bounds how long bytes that another thread queues wait for the next cycle.
constexpr int kPollTimeoutMs = 10;

constexpr unsigned long kThreadEndLimitMs = 2147483647;

// Asks the system which connections are ready; the result of poll().
int pollConnections(const std::vector<std::unique_ptr<WebSocket>>& cycle,
                    std::vector<pollfd>& polled)
{
    polled.clear();
    for (const auto& connection : cycle) {
        const int events = POLLIN | (connection->hasWritePending() ? POLLOUT : 0);
        polled.push_back({connection->getSocket(), static_cast<short>(events), 0});
    }
    return ::poll(polled.data(), polled.size(), kPollTimeoutMs);
}

}  // namespace

WebSocketWorkerThread::WebSocketWorkerThread(WebSocketThread* owner) : mOwner(owner)
{
    startThread(nullptr);
}

WebSocketWorkerThread::~WebSocketWorkerThread()
{
    waitThread(kThreadEndLimitMs);
}

void WebSocketWorkerThread::run()
{
    const impl::BlockPool pool;
    std::unique_ptr<WebSocket> connection;
    for (;;) {
        mOwner->getFirstWebSocket(connection);
        if (!connection)
            return;
        connection->assignCurrentThread();
        const bool sent = connection->sendDataIfAvailable();
        const bool readOk = connection->readDataIfAvailable();
        connection->clearCurrentThread();
        // Required: a closed connection stays here until the next one takes its place; when the
        // threads are stopped before that, this loop does not end.
        if (readOk && sent)
            mOwner->giveBackWebSocket(connection);
        else
            connection->markForDeletion();
    }
}

WebSocketThread::WebSocketThread() : pollThreadIdle(false), running(true) {}

WebSocketThread::~WebSocketThread()
{
    stopThreads(true);
    std::vector<std::unique_ptr<WebSocketWorkerThread>> ended;
    qvMutexLocker locker(&lock);
    ended.swap(workers);
    // Each waits for its thread, which may still want the lock.
    locker.unlock();
    ended.clear();
}

void WebSocketThread::startThreads(unsigned count)
{
    qvMutexLocker locker(&lock);
    if (!workers.empty())
        return;
    workers.reserve(count);
    std::list<std::unique_ptr<WebSocket>> nothing(count);
    // Without a poll thread connections would wait for ever. A worker that gets nothing ends.
    Rollback started([&]() QV_NO_THREAD_SAFETY_ANALYSIS {
        nothing.resize(workers.size());
        readySockets.splice(readySockets.begin(), nothing);
        workerWake.wakeAll();
        std::vector<std::unique_ptr<WebSocketWorkerThread>> ending;
        ending.swap(workers);
        // Each waits for its thread, which wants the lock.
        locker.unlock();
        ending.clear();
    });
    for (unsigned i = 0; i < count; ++i)
        workers.push_back(std::make_unique<WebSocketWorkerThread>(this));
    startThread(nullptr);
    started.commit();
}

void WebSocketThread::addWebSocket(std::unique_ptr<WebSocket>& socket)
{
    qvMutexLocker locker(&lock);
    if (!running) {
        locker.unlock();
        socket->markForDeletion();
        return;
    }
    newSockets.push_back(std::move(socket));
    if (pollThreadIdle)
        pollWake.wakeAll();
}

void WebSocketThread::getFirstWebSocket(std::unique_ptr<WebSocket>& socket)
{
    qvMutexLocker locker(&lock);
    while (running && readySockets.empty())
        workerWake.wait(&lock, qvWaitCondition::kNoTimeout);
    if (!running)
        return;
    // The connection that the worker had before is destroyed with the entry.
    socket.swap(readySockets.front());
    readySockets.pop_front();
}

void WebSocketThread::giveBackWebSocket(std::unique_ptr<WebSocket>& socket)
{
    if (!socket->hasReadPending()) {
        addWebSocket(socket);
        return;
    }
    qvMutexLocker locker(&lock);
    if (!running) {
        locker.unlock();
        socket->markForDeletion();
        return;
    }
    readySockets.push_back(std::move(socket));
    workerWake.wakeOne();
}

void WebSocketThread::stopThreads(bool wait)
{
    {
        qvMutexLocker locker(&lock);
        running = false;
        pollWake.wakeAll();
        workerWake.wakeAll();
    }
    if (!wait)
        return;
    for (size_t i = 0; WebSocketWorkerThread* worker = workerAt(i); ++i)
        worker->waitThread(kThreadEndLimitMs);
    waitThread(kThreadEndLimitMs);
}

WebSocketWorkerThread* WebSocketThread::workerAt(size_t index)
{
    qvMutexLocker locker(&lock);
    return index < workers.size() ? workers[index].get() : nullptr;
}

// Moves each connection of the cycle to where its events lead; those left in the cycle are
// to be destroyed. Returns how many are for a worker.
size_t WebSocketThread::sortCycle(Connections& cycle, const std::vector<pollfd>& polled)
{
    size_t ready = 0;
    for (size_t i = 0; i < cycle.size(); ++i) {
        const short events = polled[i].revents;
        std::unique_ptr<WebSocket> connection = std::move(cycle[i]);
        if (events & (POLLERR | POLLHUP)) {
            connection->markForDeletion();
        } else if (!(events & (POLLIN | POLLOUT))) {
            // Required: this is also the way of a descriptor that is not open (POLLNVAL).
            newSockets.push_back(std::move(connection));
        } else {
            connection->setReadEnabled((events & POLLIN) != 0);
            readySockets.push_back(std::move(connection));
            ++ready;
        }
    }
    return ready;
}

void WebSocketThread::run()
{
    Connections cycle;
    std::vector<pollfd> polled;
    qvMutexLocker locker(&lock);
    pollThreadIdle = false;
    while (running) {
        if (newSockets.empty()) {
            pollThreadIdle = true;
            pollWake.wait(&lock, qvWaitCondition::kNoTimeout);
            pollThreadIdle = false;
            continue;
        }
        cycle.reserve(newSockets.size());
        cycle.swap(newSockets);
        locker.unlock();
        if (pollConnections(cycle, polled) < 0) {
            const std::string reason = SystemError(errno).toString();
            qvLogObject(qvLogObject::kError) << "Got an error during call to poll " << reason;
            // Required: the thread ends, and its connections are destroyed without being closed.
            return;
        }
        locker.relock();
        const size_t ready = sortCycle(cycle, polled);
        if (ready == 1)
            workerWake.wakeOne();
        else if (ready > 1)
            workerWake.wakeAll();
        cycle.clear();
    }
}

}  // namespace qv::http
