// Certificates are exchanged all at once: sessions keep the context with which they began.

#include "listener/TlsEngine.h"

#include <numeric>
#include <system_error>
#include <utility>

namespace qv::impl
{

std::shared_ptr<TlsEngine> TlsEngine::Open(const std::vector<http::TlsOptions>& options,
                                           size_t sinks, bool halfClosedClients, std::string& why)
{
    std::shared_ptr<TlsEngine> made(new TlsEngine(options));
    why = made->reload();
    if (!why.empty())
        return nullptr;
    try {
        for (size_t i = 0; i < sinks; ++i)
            made->mRelays.push_back(std::make_unique<TlsRelay>(halfClosedClients));
    } catch (const std::system_error& error) {
        why = std::string("cannot start a thread for secure connections: ") + error.what();
        return nullptr;
    }
    return made;
}

std::string TlsEngine::load(Contexts& contexts) const
{
    for (size_t i = 0; i < mOptions.size(); ++i) {
        std::string why;
        contexts.push_back(TlsContext::Load(mOptions[i], mKeys, why));
        if (!contexts.back())
            return "ServerOptions::tls[" + std::to_string(i) + "]." + why;
    }
    return std::string();
}

std::string TlsEngine::reload()
{
    Contexts loaded;
    std::string why = load(loaded);
    if (!why.empty())
        return why;
    const qvMutexLocker locker(&mMutex);
    mContexts.swap(loaded);
    return why;
}

std::shared_ptr<const TlsContext> TlsEngine::getContext(size_t index) const
{
    const qvMutexLocker locker(&mMutex);
    return mContexts[index];
}

size_t TlsEngine::getUnfinished() const
{
    return std::accumulate(
        mRelays.begin(), mRelays.end(), size_t{0},
        [](size_t sum, const auto& relay) { return sum + relay->getUnfinished(); });
}

size_t TlsEngine::getFlushing() const
{
    return std::accumulate(
        mRelays.begin(), mRelays.end(), size_t{0},
        [](size_t sum, const auto& relay) { return sum + relay->getFlushing(); });
}

size_t TlsEngine::getUnseen() const
{
    return std::accumulate(mRelays.begin(), mRelays.end(), size_t{0},
                           [](size_t sum, const auto& relay) { return sum + relay->getUnseen(); });
}

void TlsEngine::closeAll()
{
    for (const auto& relay : mRelays)
        relay->closeAll();
}

}  // namespace qv::impl
