// The callbacks of one session, in order and one at a time.

#include "websocket/Strand.h"

#include <utility>

namespace qv::kit::websocket
{
namespace
{

// Counted for each notice besides its payload.
constexpr size_t kNoticeBytes = 96;

}  // namespace

bool Strand::add(const Notice& notice)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    if (notice.kind == Notice::Kind::Open) {
        mHasOpen = true;
    } else if (notice.kind == Notice::Kind::Close) {
        mClose = notice;
        mHasClose = true;
    } else {
        if (mIsRefused)
            return false;
        const size_t bytes = kNoticeBytes + notice.payload.size();
        mNotices.push_back({notice, std::string(notice.payload.asText())});
        // It has been received already.
        const bool isWithinBudget = mBudget.charge(bytes);
        if (!isWithinBudget)
            mBudget.chargeAlways(bytes);
        mBytes += bytes;
        mWasFull = mWasFull || mBytes >= mMaxBytes || !isWithinBudget;
    }
    return !std::exchange(mIsRunning, true);
}

// Under mMutex.
bool Strand::takeNext(Stored& stored)
{
    if (std::exchange(mHasOpen, false)) {
        stored.notice = {.kind = Notice::Kind::Open};
    } else if (!mNotices.empty()) {
        stored = std::move(mNotices.front());
        mNotices.pop_front();
        const size_t bytes = kNoticeBytes + stored.payload.size();
        mBytes -= bytes;
        mBudget.credit(bytes);
        stored.notice.payload = BinaryView(stored.payload);
    } else if (std::exchange(mHasClose, false)) {
        stored.notice = mClose;
    } else {
        return false;
    }
    return true;
}

Strand::Result Strand::run(const Call& call, size_t maxNotices)
{
    for (size_t ran = 0;; ++ran) {
        Stored stored;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (ran == maxNotices && (mHasOpen || mHasClose || !mNotices.empty()))
                return Result::HasMore;
            if (!takeNext(stored)) {
                mIsRunning = false;
                return std::exchange(mWasFull, false) ? Result::HasSpace : Result::Empty;
            }
        }
        call(stored.notice);
    }
}

void Strand::discardMessages() noexcept
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsRefused = true;
    mNotices.clear();
    mBudget.credit(std::exchange(mBytes, 0));
}

bool Strand::isFull() const noexcept
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mWasFull;
}

}  // namespace qv::kit::websocket
