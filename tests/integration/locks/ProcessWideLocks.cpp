// Which locks are taken on the path of a request: by more than one server of the process, which
// limits a machine with many processors, and by all connections of one server.

#include "../support/CurlClient.h"
#include "../support/KitTestServer.h"
#include "../support/Pattern.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <vector>

namespace
{

constexpr int kNoServer = -1;
constexpr size_t kServers = 2;

// The server that the calling thread works for.
thread_local int tServer = kNoServer;

// Of the clients: their locks are not those of a server.
thread_local bool tIsClient = false;

// Memory is not used again meanwhile: each mutex has an address of its own.
std::atomic<bool> sKeepsMemory{false};

// The mutexes that threads have locked. Filled under a spin lock: a mutex would be counted itself.
class LockRecord
{
public:
    void add(int server, const pthread_mutex_t* mutex)
    {
        if (!mIsOn || tIsClient || tIsRecording)
            return;
        tIsRecording = true;
        while (mBusy.test_and_set(std::memory_order_acquire)) {
        }
        ++mAcquisitions;
        ++mCounts[mutex];
        if (server != kNoServer)
            mMutexes[static_cast<size_t>(server)].insert(mutex);
        mBusy.clear(std::memory_order_release);
        tIsRecording = false;
    }

    void start()
    {
        mAcquisitions = 0;
        mCounts.clear();
        for (auto& mutexes : mMutexes)
            mutexes.clear();
        mIsOn = true;
    }
    void stop() { mIsOn = false; }

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

    // Of the mutexes that have been locked at least `least` times.
    uint64_t acquisitionsOfShared(uint64_t least) const
    {
        uint64_t sum = 0;
        for (const auto& [mutex, count] : mCounts)
            sum += count >= least ? count : 0;
        return sum;
    }

private:
    static thread_local bool tIsRecording;

    std::atomic<bool> mIsOn{false};
    std::atomic_flag mBusy = ATOMIC_FLAG_INIT;
    uint64_t mAcquisitions = 0;
    std::array<std::set<const pthread_mutex_t*>, kServers> mMutexes;
    std::map<const pthread_mutex_t*, uint64_t> mCounts;
};

thread_local bool LockRecord::tIsRecording = false;

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

#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
void* operator new(size_t size)
{
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

// Not inlined: the compiler would compare it with the allocation.
[[gnu::noinline]] static void release(void* memory)
{
    if (!sKeepsMemory)
        std::free(memory);
}

void operator delete(void* memory) noexcept
{
    release(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    release(memory);
}
#endif

namespace integration
{
namespace
{

using qv::kit::Request;
using qv::kit::Router;

constexpr uint64_t kBodyBytes = 300000;

// Its daemon thread and its worker are marked by the first requests for `/mark`.
class MarkedServer : public KitTestServer
{
public:
    // `shared`: taken by one of the routes, as a lock that all servers use.
    MarkedServer(int number, std::mutex& shared)
        : KitTestServer([&](Router& router) { addRoutes(router, number, shared); }, onTwoThreads())
    {
        EXPECT_EQ(get("/mark/worker").status, 200);
        EXPECT_EQ(get("/mark/inline").status, 200);
    }

    std::string url(const std::string& path) const
    {
        return "http://127.0.0.1:" + std::to_string(port()) + path;
    }

private:
    static qv::kit::ServerOptions onTwoThreads()
    {
        auto options = kitOptions(1);
        options.threads = 1;
        return options;
    }

    static void addRoutes(Router& router, int number, std::mutex& shared)
    {
        const auto mark = [number](Request& request) {
            tServer = number;
            request.reply("marked");
        };
        router.get("/mark/worker", mark);
        router.get("/mark/inline", mark).nonBlocking();
        router.get("/small", [](Request& request) { request.reply("small"); });
        router.get("/inline", [](Request& request) { request.reply("inline"); }).nonBlocking();
        router.get("/deferred", [](Request& request) { request.defer().reply("deferred"); });
        router.get("/shared", [&shared](Request& request) {
            const std::lock_guard<std::mutex> lock(shared);
            request.reply("shared");
        });
        router.get("/large", [](Request& request) {
            request.startStream();
            request.write(std::string(kBodyBytes, 'x'));
        });
        router.put("/upload",
                   [](Request& request) { request.reply(std::to_string(request.body().size())); });
    }
};

// Every kind of request, on a new connection and on one that is used again.
void useServer(const MarkedServer& server)
{
    CurlClient client;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(client.get(server.url("/small?a=b"), {"Cookie: a=b; c=d"}).body, "small");
        EXPECT_EQ(client.get(server.url("/inline")).body, "inline");
        EXPECT_EQ(client.get(server.url("/deferred")).body, "deferred");
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

    record().start();
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
    record().stop();
    EXPECT_EQ(record().locksOfBoth(), std::vector<const pthread_mutex_t*>{shared.native_handle()});
}

// Acquisitions for each GET of `path`, of mutexes that all connections of the server share.
double sharedAcquisitions(const std::string& path)
{
    // So many that the locks of one daemon thread are few among all.
    constexpr size_t kThreads = 32;
    constexpr size_t kConnections = 160;
    constexpr size_t kRounds = 5;
    constexpr size_t kRequests = kConnections * kRounds;
    tIsClient = true;
    std::mutex shared;
    auto options = kitOptions(2);
    options.threads = kThreads;
    KitTestServer server(
        [&](Router& router) {
            const auto reply = [](Request& request) { request.reply("x"); };
            router.get("/worker", reply);
            router.get("/inline", reply).nonBlocking();
            router
                .get("/shared",
                     [&](Request& request) {
                         const std::lock_guard<std::mutex> lock(shared);
                         request.reply("x");
                     })
                .nonBlocking();
        },
        options);
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < kConnections; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.port()));
        EXPECT_TRUE(clients.back()->send(getRequest(path)));
        EXPECT_TRUE(clients.back()->receive());
    }
    sKeepsMemory = true;
    record().start();
    for (size_t round = 0; round < kRounds; ++round) {
        for (const auto& client : clients) {
            EXPECT_TRUE(client->send(getRequest(path)));
            EXPECT_TRUE(client->receive());
        }
    }
    record().stop();
    sKeepsMemory = false;
    EXPECT_GT(record().acquisitions(), kRequests);
    return static_cast<double>(record().acquisitionsOfShared(kRequests * 9 / 10)) / kRequests;
}

TEST(ServerWideLocks, OfAGetAreAtMostTwoByAWorkerAndNoneOnTheDaemonsThread)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer replaces the same functions";
#endif
    // Each worker looks into the queue once more when it ends its wait.
    EXPECT_LE(sharedAcquisitions("/worker"), 2.05);
    EXPECT_EQ(sharedAcquisitions("/inline"), 0);
    // The check finds such a lock.
    EXPECT_EQ(sharedAcquisitions("/shared"), 1);
}

}  // namespace
}  // namespace integration
