// The threads that serve WebSocket sessions.

#include <Wendrel/kit/websocket/Engine.h>

#include "src/KitLog.h"
#include "websocket/Connection.h"
#include "websocket/Loop.h"

#include <qvSystem/qvSystemUtils.h>

#include <algorithm>
#include <utility>

namespace qv::kit::websocket
{
namespace
{

constexpr std::chrono::milliseconds kCallbackGrace = std::chrono::seconds(1);
constexpr std::chrono::milliseconds kMaxDeadline = std::chrono::hours(24 * 365);

}  // namespace

SessionHandler::~SessionHandler() = default;
void SessionHandler::onOpen(const std::shared_ptr<Session>&) {}
void SessionHandler::onText(Session&, std::string_view) {}
void SessionHandler::onBinary(Session&, BinaryView) {}
void SessionHandler::onPong(Session&, BinaryView) {}
void SessionHandler::onDrained(Session&) {}
void SessionHandler::onClose(Session&, uint16_t, std::string_view, bool) {}

Engine::Engine(const EngineOptions& options)
    : mMembership(std::make_shared<Membership>(options.memoryBudgetBytes))
{
    const unsigned loops = options.loops != 0
                               ? options.loops
                               : static_cast<unsigned>(qvSystemUtils::GetIdealThreadCount());
    for (unsigned i = 0; i < loops; ++i)
        mLoops.push_back(std::make_shared<Loop>(mMembership));
}

Engine::~Engine()
{
    shutDown(std::chrono::milliseconds(0));
}

std::shared_ptr<Session> Engine::open(std::unique_ptr<UpgradedConnection> connection,
                                      const Agreement& agreement,
                                      std::shared_ptr<SessionHandler> handler,
                                      std::shared_ptr<const WebSocketOptions> options)
{
    const auto lighter = [](const auto& a, const auto& b) { return a->load() < b->load(); };
    const std::shared_ptr<Loop>& loop = *std::min_element(mLoops.begin(), mLoops.end(), lighter);
    auto session = std::make_shared<Connection>(loop, mMembership, std::move(connection), agreement,
                                                std::move(handler), std::move(options));
    if (!mMembership->join([&] { loop->adopt(session); }))
        return nullptr;
    return session;
}

void Engine::shareMemory(const MemoryAccount& memory)
{
    mMembership->share(memory);
}

size_t Engine::sessionCount() const
{
    return mMembership->count();
}

bool Engine::shutDown(std::chrono::milliseconds deadline)
{
    if (Loop::isLoopThread()) {
        LogError("a WebSocket callback cannot shut its engine down");
        return false;
    }
    const auto limited = std::clamp(deadline, std::chrono::milliseconds(0), kMaxDeadline);
    mMembership->close();
    // Before the lock, which the first call holds until it returns.
    for (const auto& loop : mLoops)
        loop->beginShutDown(Loop::nowMs() + limited.count());
    mMembership->limitWait(std::chrono::steady_clock::now() + limited + kCallbackGrace);
    const std::lock_guard<std::mutex> lock(mShutDownMutex);
    if (std::exchange(mIsShutDown, true))
        return mWasClean;
    const bool isEmpty = mMembership->waitUntilEmpty();
    for (const auto& loop : mLoops)
        loop->stop();
    mWasClean = isEmpty && mMembership->forced == 0;
    return mWasClean;
}

}  // namespace qv::kit::websocket
