// The callbacks of one session, in order and one at a time.

#include "websocket/Strand.h"

#include <algorithm>
#include <utility>

namespace qv::kit::websocket
{
namespace
{

// Counted for each notice besides its payload.
constexpr size_t kNoticeBytes = 96;

bool isMessage(Notice::Kind kind)
{
    return kind != Notice::Kind::Open && kind != Notice::Kind::Close;
}

}  // namespace

bool Strand::add(const Notice& notice)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mIsRefused && isMessage(notice.kind))
        return false;
    mNotices.push_back({notice, std::string(notice.payload.asText())});
    mBytes += kNoticeBytes + notice.payload.size();
    mWasFull = mWasFull || mBytes >= mMaxBytes;
    return !std::exchange(mIsRunning, true);
}

Strand::Result Strand::run(const Call& call, size_t maxNotices)
{
    for (size_t ran = 0;; ++ran) {
        Stored stored;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (mNotices.empty()) {
                mIsRunning = false;
                return std::exchange(mWasFull, false) ? Result::HasSpace : Result::Empty;
            }
            if (ran == maxNotices)
                return Result::HasMore;
            stored = std::move(mNotices.front());
            mNotices.pop_front();
            mBytes -= kNoticeBytes + stored.payload.size();
        }
        stored.notice.payload = BinaryView(stored.payload);
        call(stored.notice);
    }
}

void Strand::discardMessages()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsRefused = true;
    const auto removed = [this](const Stored& stored) {
        if (!isMessage(stored.notice.kind))
            return false;
        mBytes -= kNoticeBytes + stored.payload.size();
        return true;
    };
    mNotices.erase(std::remove_if(mNotices.begin(), mNotices.end(), removed), mNotices.end());
}

bool Strand::isFull() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mWasFull;
}

}  // namespace qv::kit::websocket
