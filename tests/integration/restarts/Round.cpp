// The record of a round, and the comparison of both sides.

#include "Round.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>

#include <gtest/gtest.h>

#include <cstdio>

namespace integration
{

namespace
{

constexpr std::array<const char*, kStages> kStageNames = {"not_reached", "in_work",     "announced",
                                                          "queued",      "handed_over", "broken"};

}  // namespace

Round::Round(uint16_t port_, unsigned number_) : port(port_), number(number_), mRecords(kRecords) {}

void Round::opened(qv::HttpBaseRequest* request)
{
    ++mCreated;
    const std::lock_guard<std::mutex> lock(mMutex);
    mOpen[request] = nullptr;
}

Record& Round::begun(uint64_t id)
{
    Record& known = record(id);
    if (known.begun++ != 0)
        addError("request " + std::to_string(id) + " was given to a worker twice");
    return known;
}

Record& Round::begun(qv::HttpBaseRequest* request, uint64_t id)
{
    Record& known = begun(id);
    known.isFollowed = true;
    const std::lock_guard<std::mutex> lock(mMutex);
    mOpen[request] = &known;
    return known;
}

void Round::deleted(qv::HttpBaseRequest* request)
{
    if (!request->isCompleted())
        addError("a request was deleted before it was completed");
    const std::lock_guard<std::mutex> lock(mMutex);
    const auto found = mOpen.find(request);
    if (Record* known = found->second) {
        known->endedWell = !request->getResponseDevice().hasDeviceError();
        if (!mStopAsked && known->stage == Stage::NotReached)
            known->stage = known->endedWell ? Stage::HandedOver : Stage::Broken;
        ++known->deleted;
    }
    mOpen.erase(found);
}

Stage Round::StageOf(qv::HttpBaseRequest& request, const Record& record)
{
    // In this order: each may change under our eyes, but only to the next.
    const bool isQueued = request.getResponseStartMs() >= 0;
    if (request.isCompleted())
        return request.getResponseDevice().hasDeviceError() ? Stage::Broken : Stage::HandedOver;
    if (!record.finished)
        return Stage::InWork;
    return isQueued ? Stage::Queued : Stage::Announced;
}

void Round::askStop()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& [request, known] : mOpen) {
        if (known && known->stage == Stage::NotReached)
            known->stage = StageOf(*request, *known);
    }
    mStopAsked = true;
    mChanged.notify_all();
}

void Round::goOn()
{
    mStopAsked = false;
}

void Round::end()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mEnded = true;
    mChanged.notify_all();
}

bool Round::waitForStop()
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, kLimit, [this] { return mStopAsked || mEnded; });
}

void Round::waitForEnd()
{
    std::unique_lock<std::mutex> lock(mMutex);
    mChanged.wait(lock, [this] { return mEnded.load(); });
}

void Round::waitForServer()
{
    std::unique_lock<std::mutex> lock(mMutex);
    mChanged.wait_for(lock, std::chrono::milliseconds(1), [this] { return mEnded.load(); });
}

void Round::addError(const std::string& what)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mErrors.push_back(what);
}

std::vector<std::string> Round::errors() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mErrors;
}

size_t Round::openCount() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mOpen.size();
}

void Totals::add(const Round& round, bool losesNothing)
{
    for (const std::string& error : round.errors())
        ADD_FAILURE() << error;
    EXPECT_EQ(round.openCount(), 0u) << "requests that were never deleted";
    ASSERT_LE(round.ids(), round.records().size()) << "more requests than there are places for";
    for (uint64_t id = 0; id < round.ids(); ++id)
        check(round.records()[id], id, losesNothing);
    mRequests += round.created();
    mEchoes += round.echoes;
    mHalfUploads += round.halfUploads;
}

void Totals::check(const Record& record, uint64_t id, bool losesNothing)
{
    EXPECT_LE(record.responses + record.refusals, 1) << "responses to request " << id;
    if (record.isFollowed) {
        EXPECT_EQ(record.begun, record.deleted) << "request " << id;
    }
    mResponses += record.responses;
    mRefusals += record.refusals;
    if (!record.begun) {
        EXPECT_EQ(record.responses, 0) << "a response to request " << id << " without a worker";
        return;
    }
    const Stage stage = record.stage;
    if (stage == Stage::HandedOver) {
        EXPECT_EQ(record.responses, 1) << "request " << id << " was handed over before the stop";
    }
    // Bytes that the kernel has accepted reach the client, whenever the stop came.
    if (record.endedWell) {
        EXPECT_EQ(record.responses, 1) << "request " << id << " was completed without error";
    } else if (record.isFollowed) {
        mResponsesThoughCutOff += record.responses;
    }
    if (losesNothing) {
        EXPECT_EQ(record.responses, 1) << "no response to request " << id << ", which was accepted";
    }
    Counts& counts = record.isStream ? mStreams : mSmall;
    Count& count = counts[static_cast<size_t>(stage)];
    ++count.all;
    count.lost += record.responses == 0;
}

void printMetric(const std::string& name, uint64_t value, const char* unit)
{
    std::printf("metric: %s %llu %s\n", name.c_str(), static_cast<unsigned long long>(value), unit);
}

void Totals::print(const std::string& prefix) const
{
    printMetric(prefix + "_requests", mRequests, "requests");
    printMetric(prefix + "_responded", mResponses, "requests");
    printMetric(prefix + "_refused", mRefusals, "requests");
    printMetric(prefix + "_echoes", mEchoes, "messages");
    printMetric(prefix + "_uploads_stopped_in_the_middle", mHalfUploads, "requests");
    printMetric(prefix + "_responded_though_told_shutdown", mResponsesThoughCutOff, "requests");
    printCounts(prefix + "_small", mSmall);
    printCounts(prefix + "_stream", mStreams);
}

void Totals::printCounts(const std::string& prefix, const Counts& counts)
{
    for (size_t i = 0; i < kStages; ++i) {
        if (counts[i].all == 0)
            continue;
        const std::string name = prefix + "_" + kStageNames[i];
        printMetric(name, counts[i].all, "requests");
        printMetric(name + "_lost", counts[i].lost, "requests");
    }
}

}  // namespace integration
