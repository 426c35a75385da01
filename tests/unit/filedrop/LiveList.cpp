// The list of files for the pages that listen, without memory for it.

#include "LiveList.h"

#include "support/FakeSession.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>

namespace
{

using filedrop::LiveList;

constexpr std::chrono::seconds kLimit{60};

// Has no memory for the first message.
class Page : public qv::tests::FakeSession
{
public:
    std::string awaitMessage()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mHeardOne.wait_for(lock, kLimit, [this] { return !mHeard.empty(); });
        return mHeard;
    }

private:
    void hear(std::string_view message) override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (++mCalls == 1)
            throw std::bad_alloc();
        mHeard = message;
        mHeardOne.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mHeardOne;
    std::string mHeard;
    int mCalls = 0;
};

TEST(LiveList, SendsTheListLaterWhenThereWasNoMemory)
{
    int looks = 0;
    const auto source = [&]() -> std::optional<std::string> {
        if (++looks == 1)
            throw std::bad_alloc();
        return "the list";
    };
    std::atomic<uint64_t> counter{0};
    const auto page = std::make_shared<Page>();
    LiveList list(source, counter);
    const auto handler = list.listen();
    handler->onOpen(page);
    EXPECT_EQ(page->awaitMessage(), "the list");
    handler->onClose(*page, 1000, "", true);
    EXPECT_EQ(list.listenerCount(), 0u);
}

}  // namespace
