// Which locks are taken on the path of a request by more than one server of the process. Every
// such lock is shared by all connections, and limits a machine with many processors.

#include "../support/CurlClient.h"
#include "../support/KitRun.h"
#include "../support/Pattern.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace
{

constexpr int kNoServer = -1;
constexpr size_t kServers = 2;

// The server that the calling thread works for.
thread_local int tServer = kNoServer;

// The mutexes that the threads of each server have locked. Filled under a spin lock: a mutex would
// be counted itself.
class LockRecord
{
public:
    void add(int server, const pthread_mutex_t* mutex)
    {
        if (!mIsOn || server == kNoServer)
            return;
        while (mBusy.test_and_set(std::memory_order_acquire)) {
        }
        ++mAcquisitions;
        mMutexes[static_cast<size_t>(server)].insert(mutex);
        mBusy.clear(std::memory_order_release);
    }

    void setOn(bool isOn) { mIsOn = isOn; }

    uint64_t acquisitions() const { return mAcquisitions; }

    std::vector<const pthread_mutex_t*> locksOfBoth() const
    {
        std::vector<const pthread_mutex_t*> both;
        for (const pthread_mutex_t* mutex : mMutexes[0]) {
            if (mMutexes[1].count(mutex) != 0)
                both.push_back(mutex);
        }
        return both;
    }

private:
    std::atomic<bool> mIsOn{false};
    std::atomic_flag mBusy = ATOMIC_FLAG_INIT;
    uint64_t mAcquisitions = 0;
    std::array<std::set<const pthread_mutex_t*>, kServers> mMutexes;
};

LockRecord& record()
{
    static auto* theRecord = new LockRecord;
    return *theRecord;
}

using LockFunction = int (*)(pthread_mutex_t*);

int lockReal(const char* name, pthread_mutex_t* mutex)
{
    // Allocates in its first call; nothing that it calls locks through here.
    return reinterpret_cast<LockFunction>(::dlsym(RTLD_NEXT, name))(mutex);
}

}  // namespace

// In the place of the C library's for all libraries of the process.
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto real =
        reinterpret_cast<LockFunction>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    const int result = real ? real(mutex) : lockReal("pthread_mutex_lock", mutex);
    record().add(tServer, mutex);
    return result;
}

namespace integration
{
namespace
{

constexpr uint64_t kBodyBytes = 300000;

// Marks the threads that its requests run on: the daemon's, and the workers.
class MarkedApplication : public KitApplication
{
public:
    explicit MarkedApplication(int server) : KitApplication(Options{2, 64}), mServer(server) {}

protected:
    qv::kit::Request* newRequest() override
    {
        tServer = mServer;
        return KitApplication::newRequest();
    }

    void serve(qv::kit::Request& request) override
    {
        tServer = mServer;
        KitApplication::serve(request);
    }

private:
    const int mServer;
};

class MarkedServer
{
public:
    // `shared`: taken by one of the routes, as a lock that all servers use.
    MarkedServer(int number, std::mutex& shared)
    {
        constexpr int kTries = 5;
        for (int i = 0; i < kTries; ++i) {
            auto application = std::make_unique<MarkedApplication>(number);
            addRoutes(application->getRouter(), shared);
            mServer = std::make_unique<qv::kit::Server>(std::move(application));
            qv::http::HttpServer::Parameters parameters;
            parameters.port = mPort = qv::tests::TakenPort().port();
            parameters.threadPoolSize = 2;
            if (mServer->start(parameters, std::chrono::seconds(60)))
                return;
        }
        throw std::runtime_error("the server of the test did not start");
    }

    std::string url(const std::string& path) const
    {
        return "http://127.0.0.1:" + std::to_string(mPort) + path;
    }

private:
    static void addRoutes(qv::kit::Router& router, std::mutex& shared)
    {
        using qv::kit::Request;
        router.add(qv::HttpBaseRequest::GET, "/small",
                   [](Request& request) { request.reply(200, "text/plain", "small"); });
        router.add(qv::HttpBaseRequest::GET, "/shared", [&shared](Request& request) {
            const std::lock_guard<std::mutex> lock(shared);
            request.reply(200, "text/plain", "shared");
        });
        router.add(qv::HttpBaseRequest::GET, "/large", [](Request& request) {
            const std::vector<char> piece(kBodyBytes, 'x');
            request.startStream();
            request.write(piece.data(), piece.size());
            request.finish();
        });
        router.add(qv::HttpBaseRequest::PUT, "/upload", [](Request& request) {
            std::string body;
            request.readWholeBody(2 * kBodyBytes, body);
            request.reply(200, "text/plain", std::to_string(body.size()));
        });
    }

    std::unique_ptr<qv::kit::Server> mServer;
    uint16_t mPort = 0;
};

// Every kind of request, on a new connection and on one that is used again.
void useServer(const MarkedServer& server)
{
    CurlClient client;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(client.get(server.url("/small?a=b"), {"Cookie: a=b; c=d"}).body, "small");
        EXPECT_EQ(client.get(server.url("/large")).body.size(), kBodyBytes);
        EXPECT_EQ(client.putPattern(server.url("/upload"), kBodyBytes, i == 1, false).status, 200);
        EXPECT_EQ(client.get(server.url("/nothing")).status, 404);
        EXPECT_EQ(client.get(server.url("/%zz")).status, 400);
    }
}

TEST(ProcessWideLocks, ThereIsNoneOnThePathOfARequest)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer replaces the same function";
#endif
    std::mutex shared;
    const MarkedServer first(0, shared);
    const MarkedServer second(1, shared);
    // Locks of initialisation per process are not on the path of later requests.
    useServer(first);
    useServer(second);

    record().setOn(true);
    for (int i = 0; i < 5; ++i) {
        useServer(first);
        useServer(second);
    }
    EXPECT_GT(record().acquisitions(), 0u);
    for (const pthread_mutex_t* mutex : record().locksOfBoth()) {
        Dl_info info{};
        const bool isStatic = ::dladdr(mutex, &info) != 0;
        ADD_FAILURE() << "mutex " << mutex << " of "
                      << (isStatic ? info.dli_fname : "the heap or a stack")
                      << " is locked for requests of both servers";
    }
    // The check finds such a lock.
    CurlClient client;
    for (const MarkedServer* server : {&first, &second})
        EXPECT_EQ(client.get(server->url("/shared")).body, "shared");
    record().setOn(false);
    EXPECT_EQ(record().locksOfBoth(), std::vector<const pthread_mutex_t*>{shared.native_handle()});
}

}  // namespace
}  // namespace integration
