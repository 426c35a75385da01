// Response bodies from sources under load: every kind of source, producers that resume at random,
// and clients that leave. Every request is completed once, which the run checks at its end, every
// source is destroyed, and every response that is received is whole.

#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <Wendrel/BodySource.h>

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::fillPattern;
using integration::pattern;
using integration::RawClient;
using qv::BodyRead;
using qv::BodyResumer;
using qv::BodySource;

constexpr int kClients = 8;
constexpr int kProducers = 3;
constexpr size_t kMaxBytes = 300000;

int requestsOfRun()
{
    const char* const given = std::getenv("WENDREL_STRESS_REQUESTS");
    return given ? std::atoi(given) : WENDREL_TEST_STRESS_REQUESTS;
}

int upTo(std::mt19937& random, int most)
{
    return std::uniform_int_distribution<int>(0, most)(random);
}

// A body of which the producers make a little more available at a time.
struct Production
{
    uint64_t bytes = 0;
    bool isKnown = false;
    std::atomic<uint64_t> available{0};
    BodyResumer resumer;
};

std::atomic<int> gOpen{0};

class Produced : public BodySource
{
public:
    explicit Produced(std::shared_ptr<Production> production) : mProduction(std::move(production))
    {
        ++gOpen;
    }
    ~Produced() override { --gOpen; }

    int64_t getLength() const override
    {
        return mProduction->isKnown ? static_cast<int64_t>(mProduction->bytes) : -1;
    }

    BodyRead read(uint64_t offset, char* buffer, size_t size) override
    {
        if (offset == mProduction->bytes)
            return {BodyRead::End};
        const uint64_t part = std::min<uint64_t>(mProduction->available - offset, size);
        if (part == 0)
            return {BodyRead::NotYet};
        fillPattern(buffer, part, offset);
        return {BodyRead::Data, part};
    }

    const BodyResumer* getResumer() const override { return &mProduction->resumer; }

private:
    const std::shared_ptr<Production> mProduction;
};

// The threads that produce, each whatever it draws; they know nothing of requests.
class Producers
{
public:
    explicit Producers(unsigned seed)
    {
        for (int i = 0; i < kProducers; ++i)
            mThreads.emplace_back([this, seed, i] { run(seed + static_cast<unsigned>(i)); });
    }

    ~Producers()
    {
        mStop = true;
        for (std::thread& thread : mThreads)
            thread.join();
    }

    void add(const std::shared_ptr<Production>& production)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mAll.push_back(production);
    }

private:
    // Goes on with a production after its response has ended, too.
    void run(unsigned seed)
    {
        std::mt19937 random(seed);
        while (!mStop) {
            std::shared_ptr<Production> production = draw(random);
            if (!production) {
                std::this_thread::yield();
                continue;
            }
            const uint64_t made = production->available;
            const uint64_t more = std::min<uint64_t>(
                production->bytes - made, static_cast<uint64_t>(1 + upTo(random, 40000)));
            uint64_t known = made;
            production->available.compare_exchange_strong(known, made + more);
            production->resumer.resume();
            if (upTo(random, 3) == 0)
                production->resumer.resume();
        }
    }

    std::shared_ptr<Production> draw(std::mt19937& random)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mAll.empty())
            return nullptr;
        const auto index = static_cast<size_t>(upTo(random, static_cast<int>(mAll.size()) - 1));
        std::shared_ptr<Production> drawn = mAll[index];
        if (drawn->available == drawn->bytes) {
            mAll[index] = mAll.back();
            mAll.pop_back();
        }
        return drawn;
    }

    std::atomic<bool> mStop{false};
    std::mutex mMutex;
    std::vector<std::shared_ptr<Production>> mAll;
    std::vector<std::thread> mThreads;
};

// Target: "/KIND/SIZE".
class Application
{
public:
    explicit Application(unsigned seed) : mProducers(seed)
    {
        std::ofstream(mFile, std::ios::binary) << *mText;
    }

    void serve(EventRequest& request)
    {
        const std::string& target = request.getOriginalFullUrl();
        const size_t bytes = std::strtoul(target.c_str() + 3, nullptr, 10);
        qv::HttpResponseDevice& device = request.getResponseDevice();
        // The client may have left.
        EXPECT_TRUE(device.setBodySource(make(target[1], bytes)) || device.hasDeviceError());
        EXPECT_TRUE(device.setResponseReady());
    }

private:
    std::unique_ptr<BodySource> make(char kind, size_t bytes)
    {
        std::unique_ptr<BodySource> source;
        if (kind == 'm' || kind == 'f') {
            source = kind == 'm' ? BodySource::fromString(mText) : BodySource::fromFile(mFile);
            EXPECT_TRUE(source->setRange(0, bytes));
            return source;
        }
        const auto production = std::make_shared<Production>();
        production->bytes = bytes;
        production->isKnown = kind == 'k';
        source = std::make_unique<Produced>(production);
        mProducers.add(production);
        return source;
    }

    const qv::tests::TemporaryDirectory mDirectory;
    const std::string mFile = mDirectory / "file";
    const std::shared_ptr<const std::string> mText =
        std::make_shared<const std::string>(pattern(kMaxBytes));
    Producers mProducers;
};

// One connection after the other, each for as long as its requests go well.
class Client
{
public:
    Client(uint16_t port, unsigned seed) : mPort(port), mRandom(seed) {}

    void run(int count)
    {
        for (int i = 0; i < count && !testing::Test::HasFatalFailure(); ++i)
            one();
    }

    int wholeCount = 0;
    int leftCount = 0;

private:
    void one()
    {
        if (!mClient)
            mClient = std::make_unique<RawClient>(mPort);
        const auto bytes = static_cast<size_t>(upTo(mRandom, upTo(mRandom, 1) ? 100 : kMaxBytes));
        const std::string target =
            std::string("/") + "mfku"[upTo(mRandom, 3)] + "/" + std::to_string(bytes);
        const bool isHttp10 = upTo(mRandom, 9) == 0;
        ASSERT_TRUE(mClient->send("GET " + target + " HTTP/1." + (isHttp10 ? "0" : "1") +
                                  "\r\nHost: x\r\n\r\n"));
        if (upTo(mRandom, 5) == 0)
            return leave();
        const auto response = mClient->receive();
        ASSERT_TRUE(response) << target;
        ASSERT_TRUE(response->body == pattern(bytes))
            << target << ": " << response->body.size() << " bytes";
        ++wholeCount;
        if (isHttp10)
            mClient.reset();
    }

    void leave()
    {
        if (upTo(mRandom, 1) == 0)
            mClient->receiveSome(static_cast<size_t>(upTo(mRandom, 999)) + 1);
        if (upTo(mRandom, 1) == 0)
            mClient->reset();
        mClient.reset();
        ++leftCount;
    }

    const uint16_t mPort;
    std::mt19937 mRandom;
    std::unique_ptr<RawClient> mClient;
};

TEST(EventSourceStress, CompletesEveryRequestOnceAndEveryBodyWhole)
{
    const char* const given = std::getenv("WENDREL_STRESS_SEED");
    const unsigned seed =
        given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    SCOPED_TRACE("WENDREL_STRESS_SEED=" + std::to_string(seed));
    qv::http::ServerOptions options = integration::onOneThread();
    options.threads = 2;
    Application application(seed);
    EventRun run([&](EventRequest& request) { application.serve(request); }, options);
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::thread> threads;
    const int each = std::max(requestsOfRun() / kClients, 1);
    clients.reserve(kClients);
    threads.reserve(kClients);
    for (int i = 0; i < kClients; ++i)
        clients.push_back(std::make_unique<Client>(run.port(), seed + static_cast<unsigned>(i)));
    for (const auto& client : clients)
        threads.emplace_back([&client, each] { client->run(each); });
    for (std::thread& thread : threads)
        thread.join();
    int whole = 0;
    int left = 0;
    for (const auto& client : clients) {
        whole += client->wholeCount;
        left += client->leftCount;
    }
    EXPECT_EQ(whole + left, each * kClients);
    EXPECT_GT(whole, 0);
    EXPECT_TRUE(run.server().shutDown(std::chrono::minutes(1)));
    EXPECT_EQ(gOpen, 0);
}

}  // namespace
