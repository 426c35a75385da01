// The ends of secure connections: responses that count as sent with their last record, cut bodies,
// lost clients, half messages of a handshake, places and descriptors until everything is closed.

#include "support/Certificates.h"
#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/ProcessCounts.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <Wendrel/UpgradedConnection.h>

#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::countDescriptors;
using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::kLimit;
using integration::localhostTls;
using integration::onOneThread;
using integration::pattern;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::http::ServerOptions;
using std::chrono::milliseconds;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Optional;

// More than the client's socket holds, and less than that, the hop and the pair together.
constexpr size_t kHeldBytes = 250000;

void prepareNothing(SSL_CTX*, SSL*) {}

ServerOptions secureOptions()
{
    ServerOptions options = onOneThread();
    options.tls.push_back(localhostTls());
    return options;
}

RawClient secureClient(uint16_t port)
{
    return RawClient(port, &prepareNothing);
}

void respond(EventRequest& request)
{
    const std::string& target = request.getOriginalFullUrl();
    if (target == "/ping")
        request.respondHere(200, "pong");
    else if (target == "/large")
        request.respondHere(200, pattern(kHeldBytes));
    else if (target == "/upgrade")
        request.respondHere(101, "");
}

bool isServed(RawClient& client)
{
    client.send(getRequest("/ping"));
    const auto response = client.receive();
    return response && response->status == 200 && response->body == "pong";
}

bool hasCloseNotify(const RawClient& client)
{
    return (SSL_get_shutdown(client.session()) & SSL_RECEIVED_SHUTDOWN) != 0;
}

// A server on a Unix socket, whose buffers do not grow.
class HeldResponse : public testing::Test
{
protected:
    HeldResponse() : mPath("/tmp/wendrel-test-" + std::to_string(::getpid()) + ".socket") {}

    void serve(size_t maxConnections)
    {
        ServerOptions options = secureOptions();
        options.listen = {"unix:" + mPath};
        options.maxConnections = static_cast<uint32_t>(maxConnections);
        mRun = std::make_unique<EventRun>(&respond, options);
    }

    std::unique_ptr<RawClient> connect() const
    {
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        mPath.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(
            ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return std::make_unique<RawClient>(RawClient::Connected{descriptor}, &prepareNothing);
    }

    // The client has read nothing of a response when the daemon has closed its end.
    std::unique_ptr<RawClient>
    connectAndHold(const std::string& requests = getRequest("/large", "Connection: close\r\n"))
    {
        auto client = connect();
        EXPECT_TRUE(isServed(*client));
        const size_t descriptors = countDescriptors();
        client->send(requests);
        EXPECT_TRUE(waitUntil([&] { return countDescriptors() == descriptors - 1; }));
        return client;
    }

    EventRequest& large() { return *mRun->request(1); }

    const std::string mPath;
    std::unique_ptr<EventRun> mRun;
};

TEST_F(HeldResponse, IsSentWithItsLastRecord)
{
    serve(10);
    const auto client = connectAndHold();
    EXPECT_EQ(large().completions, 0);
    const auto response = client->receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, pattern(kHeldBytes));
    ASSERT_TRUE(waitUntil([&] { return large().completions == 1; }));
    EXPECT_EQ(large().code, 0);
}

TEST_F(HeldResponse, IsAbortedWithItsClient)
{
    serve(10);
    const auto client = connectAndHold();
    client->reset();
    ASSERT_TRUE(waitUntil([&] { return large().completions == 1; }));
    EXPECT_NE(large().code, 0);
    EXPECT_EQ(large().abortReason(), "WriteError");
    EXPECT_THAT(large().connectionError(), HasSubstr("WriteError"));
}

// The refusal has been reported already.
TEST_F(HeldResponse, OfARefusedUpgradeIsAbortedOnce)
{
    serve(10);
    const auto client =
        connectAndHold(getRequest("/large") + getRequest("/upgrade", "Connection: close\r\n"));
    EventRequest& refused = *mRun->request(2);
    EXPECT_EQ(refused.completions, 0);
    client->reset();
    ASSERT_TRUE(waitUntil([&] { return refused.completions == 1; }));
    EXPECT_NE(refused.code, 0);
    EXPECT_EQ(refused.aborts, 1);
    EXPECT_EQ(refused.abortReason(), "UpgradeRefused");
}

TEST_F(HeldResponse, KeepsThePlaceOfItsConnection)
{
    serve(1);
    const auto client = connectAndHold();
    const auto refused = connect();
    EXPECT_THAT(refused->receive(), Optional(Field(&RawResponse::status, 503)));
    ASSERT_TRUE(client->receive());
    client->close();
    EXPECT_TRUE(waitUntil([&] { return isServed(*connect()); }));
}

TEST_F(HeldResponse, IsWaitedForByAShutdown)
{
    serve(10);
    const auto client = connectAndHold();
    std::atomic<bool> isOver{false};
    std::thread stopping([&] {
        EXPECT_TRUE(mRun->server().shutDown(kLimit));
        isOver = true;
    });
    // Longer than a shutdown waits for clients that have been sent everything.
    std::this_thread::sleep_for(milliseconds(700));
    EXPECT_FALSE(isOver);
    const auto response = client->receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, pattern(kHeldBytes));
    EXPECT_TRUE(client->isClosedByServer());
    EXPECT_TRUE(hasCloseNotify(*client));
    client->close();
    stopping.join();
    EXPECT_EQ(large().code, 0);
}

TEST_F(HeldResponse, IsAbortedAtTheDeadlineOfAShutdown)
{
    serve(10);
    const auto client = connectAndHold();
    EXPECT_FALSE(mRun->server().shutDown(milliseconds(100)));
    EXPECT_EQ(large().completions, 1);
    EXPECT_NE(large().code, 0);
}

TEST(SecureResponses, AreCompletedInOrder)
{
    constexpr int kRequests = 200;
    EventRun run(&respond, secureOptions());
    RawClient client = secureClient(run.port());
    std::string requests;
    for (int i = 0; i < kRequests; ++i)
        requests += getRequest("/ping");
    ASSERT_TRUE(client.send(requests));
    for (int i = 0; i < kRequests; ++i)
        ASSERT_THAT(client.receive(), Optional(Field(&RawResponse::body, "pong")));
    for (int i = 0; i < kRequests; ++i)
        ASSERT_TRUE(waitUntil([&] { return run.request(static_cast<size_t>(i))->code == 0; }));
}

// The clients of the first two would take a part of the body for all of it.
TEST(SecureBody, OfUnknownLengthHasACloseNotifyOnlyWhenItIsWhole)
{
    const struct
    {
        const char* name;
        const char* target;
        bool isWhole;
    } rows[] = {{"an error of its writer", "/fail", false},
                {"the deadline of a shutdown", "/wait", false},
                {"its end", "/end", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::atomic<bool> hasBegun{false};
        EventRun run(
            [&](EventRequest& request) {
                run.work(request, [&](EventRequest& r) {
                    r.beginStream();
                    r.getResponseDevice().writeBytes("begun", 5);
                    r.getResponseDevice().flush();
                    EXPECT_TRUE(waitUntil([&] { return hasBegun.load(); }));
                    if (r.getOriginalFullUrl() == "/fail")
                        r.getResponseDevice().setDeviceError("the source has failed");
                    else if (r.getOriginalFullUrl() == "/end")
                        r.getResponseDevice().endSending();
                    else
                        r.waitForConnectionError();
                });
            },
            secureOptions());
        RawClient client = secureClient(run.port());
        ASSERT_TRUE(client.send(std::string("GET ") + row.target + " HTTP/1.0\r\nHost: x\r\n\r\n"));
        ASSERT_TRUE(client.receiveHead());
        EXPECT_EQ(client.receiveExactly(5), "begun");
        hasBegun = true;
        if (std::string(row.target) == "/wait") {
            EXPECT_FALSE(run.server().shutDown(milliseconds(0)));
        }
        EXPECT_EQ(client.receiveToEnd(), "");
        EXPECT_EQ(hasCloseNotify(client), row.isWhole);
        ASSERT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
        EXPECT_EQ(run.request(0)->code == 0, row.isWhole);
    }
}

// The sends decide about a client that has half closed, but nothing is sent.
TEST(SecureStream, EndsWithAClientThatIsLostAfterItsHalfClose)
{
    for (const bool halfClosedClients : {false, true}) {
        SCOPED_TRACE(halfClosedClients);
        ServerOptions options = secureOptions();
        options.halfClosedClients = halfClosedClients;
        EventRun run(
            [&](EventRequest& request) {
                run.work(request, [](EventRequest& r) {
                    r.beginStream();
                    r.getResponseDevice().writeBytes("begun", 5);
                    r.getResponseDevice().flush();
                    r.waitForConnectionError();
                });
            },
            options);
        RawClient client = secureClient(run.port());
        ASSERT_TRUE(client.send(getRequest("/")));
        ASSERT_TRUE(client.receiveHead());
        ASSERT_FALSE(client.receiveSome(1).empty());
        client.finishSending();
        // The listener sees the half close before the reset.
        std::this_thread::sleep_for(milliseconds(100));
        EXPECT_EQ(run.request(0)->completions, 0);
        client.reset();
        ASSERT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
        EXPECT_EQ(run.request(0)->abortReason(), "WriteError");
    }
}

// The client goes on with a body that nobody reads.
TEST(SecureShutDown, WaitsBrieflyForAClientThatHasNotSeenItsResponse)
{
    ServerOptions options = secureOptions();
    EventRun run([](EventRequest& request) { request.respondHere(200, "early"); }, options);
    RawClient client = secureClient(run.port());
    ASSERT_TRUE(client.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\nbody"));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "early")));
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_TRUE(run.server().shutDown(kLimit));
    // Half a second; 5 s while the server runs.
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(4));
}

// The end of the pair is the same for the application.
TEST(SecureUpgraded, ConnectionTellsWhetherItWasCutOff)
{
    const struct
    {
        const char* name;
        void (*end)(RawClient&);
        bool isCutOff;
    } rows[] = {
        {"close_notify", [](RawClient& c) { c.finishSending(); }, false},
        {"no close_notify", [](RawClient& c) { ::shutdown(c.descriptor(), SHUT_WR); }, true},
        {"a reset", [](RawClient& c) { c.reset(); }, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::unique_ptr<qv::UpgradedConnection> upgraded;
        std::atomic<bool> isUpgraded{false};
        EventRun run(
            [&](EventRequest& request) {
                request.takeUpgraded = [&](std::unique_ptr<qv::UpgradedConnection> connection) {
                    upgraded = std::move(connection);
                    isUpgraded = true;
                };
                request.response.headers["upgrade"] = {"Upgrade", "echo"};
                request.respondHere(101, "");
            },
            secureOptions());
        RawClient client = secureClient(run.port());
        ASSERT_TRUE(client.send(getRequest("/", "Connection: Upgrade\r\nUpgrade: echo\r\n")));
        EXPECT_THAT(client.receiveHead(), Optional(Field(&RawResponse::status, 101)));
        ASSERT_TRUE(waitUntil([&] { return isUpgraded.load(); }));
        EXPECT_FALSE(upgraded->isCutOff());
        row.end(client);
        pollfd readable{upgraded->getDescriptor(), POLLIN, 0};
        ASSERT_EQ(::poll(&readable, 1, 60000), 1);
        char byte = 0;
        EXPECT_EQ(::recv(upgraded->getDescriptor(), &byte, 1, 0), 0);
        EXPECT_EQ(upgraded->isCutOff(), row.isCutOff);
        const qv::UpgradedConnection moved(std::move(*upgraded));
        EXPECT_EQ(moved.isCutOff(), row.isCutOff);
    }
}

// Connections without a place get 503 after their handshake: they are closed first.
TEST(Handshakes, OfRefusedConnectionsDriveOutNoOther)
{
    constexpr size_t kPlaces = 600;
    constexpr size_t kRefused = 600;
    ServerOptions options = secureOptions();
    options.maxConnections = kPlaces;
    options.tls.front().handshakeTimeout = std::chrono::minutes(10);
    EventRun run(&respond, options);
    const auto connectSilent = [&] {
        return std::make_unique<RawClient>(
            RawClient::Connected{integration::connectPlain(run.port())});
    };
    std::vector<int> counted;
    std::vector<std::unique_ptr<RawClient>> refused;
    for (size_t i = 0; i < kPlaces; ++i)
        counted.push_back(integration::connectPlain(run.port()));
    for (size_t i = 0; i < kRefused; ++i)
        refused.push_back(connectSilent());
    // Closed beyond the limit of all handshakes.
    EXPECT_TRUE(refused.front()->isClosedByServer());
    for (const int descriptor : counted) {
        RawClient client(RawClient::Connected{descriptor}, &prepareNothing);
        ASSERT_TRUE(client.isSecure());
        if (descriptor == counted.front()) {
            EXPECT_TRUE(isServed(client));
        }
    }
}

// Secrets of the client's records with TLS_AES_128_GCM_SHA256.
class RecordMaker
{
public:
    static constexpr size_t kKeyBytes = 16;
    static constexpr size_t kVectorBytes = 12;
    static constexpr size_t kTagBytes = 16;

    explicit RecordMaker(const std::string& secret)
        : mKey(derive(secret, "key", kKeyBytes)), mVector(derive(secret, "iv", kVectorBytes))
    {}

    // The record number `number` with a handshake message, or a part of one.
    std::string makeHandshake(uint64_t number, std::string plain) const
    {
        constexpr char kHandshakeType = 0x16;
        plain += kHandshakeType;
        const size_t bytes = plain.size() + kTagBytes;
        std::string record("\x17\x03\x03", 3);
        record += static_cast<char>(bytes >> 8);
        record += static_cast<char>(bytes & 0xff);
        std::string vector = mVector;
        for (size_t i = 0; i < sizeof number; ++i)
            vector[kVectorBytes - 1 - i] ^= static_cast<char>(number >> (8 * i));
        const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher(
            EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
        std::string sealed(bytes, '\0');
        int size = 0;
        EXPECT_EQ(EVP_EncryptInit_ex(cipher.get(), EVP_aes_128_gcm(), nullptr, bytesOf(mKey),
                                     bytesOf(vector)),
                  1);
        EVP_EncryptUpdate(cipher.get(), nullptr, &size, bytesOf(record),
                          static_cast<int>(record.size()));
        EVP_EncryptUpdate(cipher.get(), bytesOf(sealed), &size, bytesOf(plain),
                          static_cast<int>(plain.size()));
        EVP_EncryptFinal_ex(cipher.get(), bytesOf(sealed) + size, &size);
        EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_AEAD_GET_TAG, kTagBytes,
                            bytesOf(sealed) + plain.size());
        return record + sealed;
    }

private:
    static const unsigned char* bytesOf(const std::string& text)
    {
        return reinterpret_cast<const unsigned char*>(text.data());
    }
    static unsigned char* bytesOf(std::string& text)
    {
        return reinterpret_cast<unsigned char*>(text.data());
    }

    // HKDF-Expand-Label of TLS 1.3 without a context.
    static std::string derive(const std::string& secret, const std::string& label, size_t bytes)
    {
        const std::string full = "tls13 " + label;
        std::string info{'\0', static_cast<char>(bytes), static_cast<char>(full.size())};
        info += full;
        info += '\0';
        const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
            EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr), &EVP_PKEY_CTX_free);
        std::string derived(bytes, '\0');
        EVP_PKEY_derive_init(context.get());
        EVP_PKEY_CTX_set_hkdf_mode(context.get(), EVP_PKEY_HKDEF_MODE_EXPAND_ONLY);
        EVP_PKEY_CTX_set_hkdf_md(context.get(), EVP_sha256());
        EVP_PKEY_CTX_set1_hkdf_key(context.get(), bytesOf(secret), static_cast<int>(secret.size()));
        EVP_PKEY_CTX_add1_hkdf_info(context.get(), bytesOf(info), static_cast<int>(info.size()));
        EXPECT_EQ(EVP_PKEY_derive(context.get(), bytesOf(derived), &bytes), 1);
        return derived;
    }

    const std::string mKey;
    const std::string mVector;
};

// Of the line that a client writes to its key log; the client has sent no record with it.
std::string sClientSecret;

void noteSecret(const SSL*, const char* line)
{
    constexpr std::string_view kLabel = "CLIENT_TRAFFIC_SECRET_0 ";
    const std::string_view text(line);
    if (text.substr(0, kLabel.size()) != kLabel)
        return;
    const std::string_view digits = text.substr(text.rfind(' ') + 1);
    sClientSecret.clear();
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        sClientSecret +=
            static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
}

void prepareRecords(SSL_CTX* context, SSL* session)
{
    SSL_CTX_set_keylog_callback(context, &noteSecret);
    SSL_set_ciphersuites(session, "TLS_AES_128_GCM_SHA256");
}

// A KeyUpdate that asks for one of the server.
const std::string kKeyUpdate("\x18\x00\x00\x01\x01", 5);

bool sendPlain(const RawClient& client, const std::string& bytes)
{
    return ::send(client.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

TEST(KeyUpdate, BetweenTwoRequestsIsFollowed)
{
    EventRun run(&respond, secureOptions());
    RawClient client(run.port(), &prepareRecords);
    ASSERT_TRUE(client.isSecure());
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(isServed(client));
        ASSERT_EQ(SSL_key_update(client.session(), SSL_KEY_UPDATE_REQUESTED), 1);
    }
    EXPECT_TRUE(isServed(client));
}

// OpenSSL writes nothing while it has half a message of a handshake.
TEST(KeyUpdate, ThatIsHalfSentEndsTheConnection)
{
    EventRun run(&respond, secureOptions());
    RawClient client(run.port(), &prepareRecords);
    ASSERT_TRUE(client.isSecure());
    ASSERT_EQ(sClientSecret.size(), 32u);
    ASSERT_TRUE(client.send(getRequest("/work")));
    ASSERT_TRUE(run.request(0));
    const RecordMaker records(sClientSecret);
    ASSERT_TRUE(sendPlain(client, records.makeHandshake(1, kKeyUpdate.substr(0, 4))));
    ASSERT_TRUE(client.waitUntilTaken());
    run.work(*run.request(0), [](EventRequest& r) { r.respond(200, pattern(100000)); });
    EXPECT_TRUE(client.isClosedByServer());
    ASSERT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    EXPECT_NE(run.request(0)->code, 0);
    RawClient other = secureClient(run.port());
    EXPECT_TRUE(isServed(other));
}

// In two records it is whole.
TEST(KeyUpdate, InTwoRecordsIsFollowed)
{
    EventRun run(&respond, secureOptions());
    RawClient client(run.port(), &prepareRecords);
    ASSERT_TRUE(client.isSecure());
    ASSERT_TRUE(client.send(getRequest("/work")));
    ASSERT_TRUE(run.request(0));
    const RecordMaker records(sClientSecret);
    ASSERT_TRUE(sendPlain(client, records.makeHandshake(1, kKeyUpdate.substr(0, 4))));
    ASSERT_TRUE(sendPlain(client, records.makeHandshake(2, kKeyUpdate.substr(4))));
    ASSERT_TRUE(client.waitUntilTaken());
    run.work(*run.request(0), [](EventRequest& r) { r.respond(200, "updated"); });
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "updated")));
}

// Sockets that the epoll sets of this process watch.
size_t countWatched()
{
    size_t watched = 0;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc/self/fdinfo"), &::closedir);
    while (const dirent* const entry = ::readdir(folder.get())) {
        std::ifstream lines(std::string("/proc/self/fdinfo/") + entry->d_name);
        for (std::string line; std::getline(lines, line);)
            watched += line.compare(0, 4, "tfd:") == 0 ? 1 : 0;
    }
    return watched;
}

// A process that holds all descriptors of this one until it is killed.
class Child
{
public:
    Child() : mProcess(::fork())
    {
        while (mProcess == 0)
            ::pause();
    }
    ~Child()
    {
        ::kill(mProcess, SIGKILL);
        ::waitpid(mProcess, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool isRunning() const { return mProcess > 0; }

private:
    const pid_t mProcess;
};

// Events of a connection that a child holds would come for ever, for an object that is no more.
TEST(Descriptors, ThatAChildHoldsAreNotWatchedAfterTheirEnd)
{
    EventRun run(&respond, secureOptions());
    const auto open = std::make_unique<RawClient>(run.port(), &prepareNothing);
    EXPECT_TRUE(isServed(*open));
    // The client's socket, and both ends of the pair, one of them twice.
    const size_t watched = countWatched();
    // In its handshake.
    auto silent =
        std::make_unique<RawClient>(RawClient::Connected{integration::connectPlain(run.port())});
    silent->send("GE");
    ASSERT_TRUE(waitUntil([&] { return countWatched() == watched + 1; }));
    const Child child;
    ASSERT_TRUE(child.isRunning());
    open->finishSending();
    silent->finishSending();
    EXPECT_TRUE(waitUntil([&] { return countWatched() == watched - 4; }));
    // An event of both, had they been left.
    open->send("x");
    silent->send("x");
    RawClient other = secureClient(run.port());
    EXPECT_TRUE(isServed(other));
}

}  // namespace
