// One behaviour per client: a connection's life, begun again and again until the round ends.

#include "Clients.h"

#include "../support/Pattern.h"
#include "../support/RawClient.h"
#include "../support/WebSocketClient.h"

#include <functional>
#include <optional>
#include <random>
#include <stdexcept>
#include <utility>

namespace integration
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr size_t kStreamBytes = 700000;
constexpr size_t kLargestUpload = 50000;  // arrives at once, with its head
constexpr size_t kHalfUpload = 400000;

std::string putRequest(uint64_t id, size_t length)
{
    return "PUT /upload/" + std::to_string(id) +
           " HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

// True when the response came whole and the connection can go on.
bool takeResponse(Round& round, RawClient& client, uint64_t id, const std::string& wanted)
{
    constexpr int kBusy = 503;
    const auto start = Clock::now();
    const std::optional<RawResponse> response = client.receive();
    if (!response) {
        if (Clock::now() - start >= kLimit)
            round.addError("neither a response nor the end: request " + std::to_string(id));
        return false;
    }
    if (response->status == kBusy) {
        ++round.record(id).refusals;
        round.isLeaving = true;
        return false;
    }
    if (response->status != 200 || response->body != wanted) {
        round.addError("request " + std::to_string(id) + " got " + response->statusLine + ", " +
                       response->body.substr(0, 60));
        return false;
    }
    ++round.record(id).responses;
    ++round.responses;
    return true;
}

bool askSmall(Round& round, RawClient& client, const char* path)
{
    const uint64_t id = round.newId();
    return client.send(getRequest(path + std::to_string(id))) &&
           takeResponse(round, client, id, smallBody(id));
}

void keepAsking(Round& round, uint32_t)
{
    RawClient client(round.port);
    while (askSmall(round, client, "/small/")) {
    }
    // The client has received the response to each of its requests.
    if (!client.receiveToEnd().empty())
        round.addError("bytes that nobody has asked for");
}

void askOnce(Round& round, uint32_t)
{
    RawClient client(round.port);
    askSmall(round, client, "/small/");
}

// Its worker takes its time.
void askForLate(Round& round, uint32_t)
{
    RawClient client(round.port);
    while (askSmall(round, client, "/late/")) {
    }
}

void pipeline(Round& round, uint32_t)
{
    constexpr int kAtOnce = 4;
    RawClient client(round.port);
    for (bool goesOn = true; goesOn;) {
        std::string requests;
        std::vector<uint64_t> ids;
        for (int i = 0; i < kAtOnce; ++i) {
            ids.push_back(round.newId());
            requests += getRequest("/small/" + std::to_string(ids.back()));
        }
        if (!client.send(requests))
            return;
        for (const uint64_t id : ids)
            goesOn = goesOn && takeResponse(round, client, id, smallBody(id));
    }
}

void upload(Round& round, uint32_t dice)
{
    std::minstd_rand random(dice);
    RawClient client(round.port);
    for (bool goesOn = true; goesOn;) {
        const uint64_t id = round.newId();
        const std::string body = pattern(random() % kLargestUpload);
        goesOn = client.send(putRequest(id, body.size()) + body) &&
                 takeResponse(round, client, id, uploadBody(id, body));
    }
}

// Stands still in the middle until the stop is asked for.
void uploadHalf(Round& round, uint32_t dice)
{
    if (!round.holdsUploads) {
        upload(round, dice);
        return;
    }
    RawClient client(round.port);
    const uint64_t id = round.newId();
    const std::string body = pattern(2 * kHalfUpload);
    client.send(putRequest(id, body.size()));
    client.send(std::string_view(body).substr(0, kHalfUpload));
    ++round.halfUploads;
    round.holdsUploads = false;
    if (!round.waitForStop())
        round.addError("nobody has asked for a stop");
    if (round.finishesUploads)
        client.send(std::string_view(body).substr(kHalfUpload));
    takeResponse(round, client, id, uploadBody(id, body));
}

void readStream(Round& round, uint32_t)
{
    RawClient client(round.port);
    for (bool goesOn = true; goesOn;) {
        const uint64_t id = round.newId();
        round.record(id).isStream = true;
        goesOn = client.send(getRequest("/stream/" + std::to_string(id)));
        ++round.streaming;
        goesOn = goesOn && takeResponse(round, client, id, streamBody(id));
        --round.streaming;
    }
}

// A stream of known length, of which each byte is compared, also when it is cut off.
void readMeasuredStream(Round& round, uint32_t)
{
    RawClient client(round.port);
    for (;;) {
        const uint64_t id = round.newId();
        round.record(id).isStream = true;
        client.send(getRequest("/measured/" + std::to_string(id)));
        const std::optional<RawResponse> head = client.receiveHead();
        if (!head || head->status != 200) {
            round.record(id).refusals = head ? 1 : 0;
            round.isLeaving = round.isLeaving || head;
            return;
        }
        const std::string wanted = streamBody(id);
        ++round.streaming;
        const std::string body = client.receiveExactly(wanted.size());
        --round.streaming;
        if (wanted.compare(0, body.size(), body) != 0)
            round.addError("another body of stream " + std::to_string(id));
        if (body.size() != wanted.size())
            return;
        ++round.record(id).responses;
        ++round.responses;
    }
}

void talk(Round& round, uint32_t dice)
{
    constexpr size_t kMaxTextBytes = 40000;
    if (!round.hasWebSockets) {
        round.waitForEnd();
        return;
    }
    std::minstd_rand random(dice);
    const uint64_t messages = 2 + random() % 8;
    WebSocketClient client(round.port);
    for (uint64_t number = 0; round.talksOn || number < messages; ++number) {
        const std::string text = std::to_string(number) + pattern(random() % kMaxTextBytes);
        if (!client.sendBinary(text))
            return;
        const auto echo = client.receive();
        if (!echo)
            return;
        if (echo->bytes != text) {
            round.addError("another echo than what was said");
            return;
        }
        ++round.echoes;
    }
    ++round.quiet;
    if (client.receive())
        round.addError("a message that nobody has asked for");
    client.raw().receiveToEnd();
    --round.quiet;
}

}  // namespace

std::string smallBody(uint64_t id)
{
    return "small " + std::to_string(id);
}

std::string uploadBody(uint64_t id, const std::string& body)
{
    return "upload " + std::to_string(id) + " of " + std::to_string(body.size()) + ", " +
           std::to_string(std::hash<std::string>()(body));
}

std::string streamBody(uint64_t id)
{
    return "stream " + std::to_string(id) + "\n" + pattern(kStreamBytes);
}

Clients::Clients()
{
    std::vector<Behaviour> behaviours = {&keepAsking, &keepAsking, &askOnce,
                                         &askForLate, &pipeline,   &upload,
                                         &uploadHalf, &readStream, &readMeasuredStream};
    behaviours.insert(behaviours.end(), kTalkers, &talk);
    uint32_t seed = 0;
    for (const Behaviour behaviour : behaviours)
        mThreads.emplace_back([this, behaviour, number = ++seed] { live(behaviour, number); });
}

Clients::~Clients()
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEnded = true;
        mChanged.notify_all();
    }
    for (std::thread& thread : mThreads)
        thread.join();
}

void Clients::begin(Round& round)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mRound = &round;
    ++mRounds;
    mBusy = mThreads.size();
    mChanged.notify_all();
}

bool Clients::waitUntilIdle()
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, 2 * kLimit, [this] { return mBusy == 0; });
}

void Clients::live(Behaviour behaviour, uint32_t seed)
{
    uint64_t seen = 0;
    for (;;) {
        Round* round = nullptr;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mChanged.wait(lock, [&] { return mEnded || mRounds != seen; });
            if (mEnded)
                return;
            seen = mRounds;
            round = mRound;
        }
        for (uint32_t life = 0; !round->hasEnded(); ++life) {
            try {
                behaviour(*round, static_cast<uint32_t>(seen * 1000 + life * 20 + seed));
            } catch (const std::runtime_error&) {
                // Nobody listens, or no more.
            }
            // A server that refuses is about to stop, for good.
            if (round->isLeaving)
                round->waitForEnd();
            else
                round->waitForServer();
        }
        const std::lock_guard<std::mutex> lock(mMutex);
        --mBusy;
        mChanged.notify_all();
    }
}

}  // namespace integration
