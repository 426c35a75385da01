// The platform libraries and the library's coming up while memory and threads run out.

#include "failure_injection/Support.h"

#include <Wendrel/HttpRequest.h>
#include <Wendrel/Wendrel.h>

#include <Ostrand/HttpHeaders.h>
#include <Ostrand/HttpUrl.h>
#include <Ostrand/Ostrand.h>
#include <Quenby/Quenby.h>
#include <qvOpenSSL/Base64.h>
#include <qvOpenSSL/HashHelper.h>
#include <qvSystem/IpAddress.h>
#include <qvSystem/LibInitCounter.h>
#include <qvSystem/SystemError.h>
#include <qvSystem/qvIoDevice.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvThread.h>
#include <qvSystem/qvWaitCondition.h>

#include <atomic>
#include <cerrno>
#include <list>
#include <memory>
#include <string>
#include <thread>

namespace qv::tests
{
namespace
{

using testing::Contains;
using testing::Key;
using testing::Not;
using testing::Pair;

// Bringing up.

TEST(InitialisationFailures, ALibraryThatCouldNotBeBroughtUpCanBeTakenDownAndBroughtUp)
{
    FailEachCallOf({{"initializeWendrel", [](Attempt& attempt) {
                         if (!attempt(&initializeWendrel)) {
                             // Required: it counts as initialised all the same.
                             EXPECT_TRUE(IsWendrelInitialized());
                             EXPECT_LT(HttpBaseRequest::sRequestTypes.size() +
                                           GetThirdPartyLibVersionInfos().count("libmicrohttpd"),
                                       10u);
                             // The sibling that was not reached says so.
                             testing::internal::CaptureStderr();
                             terminateWendrel();
                             testing::internal::GetCapturedStderr();
                             EXPECT_FALSE(IsWendrelInitialized());
                             EXPECT_FALSE(IsOstrandInitialized());
                             EXPECT_FALSE(json::IsQvQuenbyInitialized());
                             initializeWendrel();
                         }
                         EXPECT_EQ(HttpBaseRequest::sRequestTypes.size(), 9u);
                         EXPECT_THAT(GetThirdPartyLibVersionInfos(),
                                     Contains(Pair("libmicrohttpd", "0.0.0 (fake)")));
                         EXPECT_TRUE(attempt(&terminateWendrel));
                         EXPECT_TRUE(HttpBaseRequest::sRequestTypes.empty());
                         EXPECT_THAT(GetThirdPartyLibVersionInfos(),
                                     Not(Contains(Key("libmicrohttpd"))));
                     }}});
}

TEST(InitialisationFailures, ARecordOfAVersionIsMadeWholeOrNotAtAll)
{
    FailEachCallOf({{"RegisterThirdPartyLibVersionInfo",
                     [](Attempt& attempt) {
                         const bool done = attempt([] {
                             impl::RegisterThirdPartyLibVersionInfo("a library with a long name",
                                                                    kLongText.c_str());
                         });
                         const auto infos = GetThirdPartyLibVersionInfos();
                         const auto found = infos.find("a library with a long name");
                         ASSERT_EQ(found != infos.end(), done);
                         if (done) {
                             EXPECT_EQ(found->second, kLongText);
                         }
                         impl::UnRegisterThirdPartyLibVersionInfo("a library with a long name");
                     }},
                    {"UnRegisterThirdPartyLibVersionInfo",
                     [](Attempt& attempt) {
                         const char* const name = "a library with a long name";
                         impl::RegisterThirdPartyLibVersionInfo(name, "1");
                         const bool done =
                             attempt([&] { impl::UnRegisterThirdPartyLibVersionInfo(name); });
                         EXPECT_EQ(GetThirdPartyLibVersionInfos().count(name), done ? 0u : 1u);
                         impl::UnRegisterThirdPartyLibVersionInfo(name);
                     }},
                    {"GetThirdPartyLibVersionInfos", [](Attempt& attempt) {
                         std::map<std::string, std::string> infos;
                         const bool done = attempt([&] { infos = GetThirdPartyLibVersionInfos(); });
                         EXPECT_EQ(infos.empty(), !done);
                     }}});
}

TEST(InitialisationFailures, CountingNeedsNoMemory)
{
    FailEachCallOf({{"LibInitCounter",
                     [](Attempt& attempt) {
                         EXPECT_TRUE(attempt([] {
                             impl::LibInitCounter counter("counter", false);
                             EXPECT_TRUE(counter.incrementInitCounter());
                             EXPECT_TRUE(counter.decrementInitCounter());
                             EXPECT_FALSE(counter.decrementInitCounter());
                         }));
                     },
                     Points::None}});
}

// URLs.

std::string Contents(const Url& url)
{
    std::string text = std::to_string(url.isValid()) + " " + url.scheme() + " " + url.host() + " " +
                       std::to_string(url.port()) + " " + url.path() + " " + url.encodedPath() +
                       " " + url.query() + " " + url.fragment();
    for (const std::string& segment : url.pathSegments())
        text += " [" + segment + "]";
    return text;
}

Operation Parsing(const char* name, const std::string& text, Points points = Points::Some)
{
    const auto make = [] {
        auto url = std::make_unique<http::HttpUrl>();
        url->fromEncodedUtf8String("http://before.example.org/and/a/path", nullptr, true, 4096);
        return url;
    };
    return AllOrNothing(
        name, make,
        [text](http::HttpUrl& url) { url.fromEncodedUtf8String(text, nullptr, true, 4096); },
        [](http::HttpUrl& url) { return Contents(url); }, points);
}

TEST(UrlFailures, AUrlIsTakenWholeOrNotAtAll)
{
    FailEachCallOf({
        Parsing("Url: accepted", "http://user@a-host-of-some-length.example.org:8080/a%20b/{c}/" +
                                     std::string(100, 'd') + "?e=" + std::string(50, 'f') +
                                     "#the-fragment-of-this-url"),
        Parsing("Url: address in brackets", "http://[2001:db8::1234:5678]/"),
        Parsing("Url: refused", "http://127.0.0.1:80/a b", Points::None),
        Parsing("Url: no address in brackets", "http://[1::2::3]/"),
        Parsing("Url: not UTF-8", "http://127.0.0.1:80/%C0%80"),
        {"Url: the reason of a refusal",
         [](Attempt& attempt) {
             Url url;
             std::string error;
             const bool done = attempt([&] {
                 EXPECT_FALSE(
                     url.fromEncodedUtf8String("http://127.0.0.1:80/%C0%80", &error, true, 4096));
             });
             EXPECT_FALSE(url.isValid());
             EXPECT_EQ(error, done ? "percent-encoded bytes that are not UTF-8 at byte 21" : "");
         }},
    });
}

// Headers.

TEST(HttpHeadersFailures, ValuesAreAddedWholeOrNotAtAll)
{
    const auto make = [] {
        auto headers = std::make_unique<http::HttpHeaders>();
        headers->addHeaderValues("known", {"1"});
        return headers;
    };
    const auto look = [](http::HttpHeaders& headers) {
        std::string text;
        for (const auto& [name, values] : headers) {
            text += name + std::to_string(values.size());
            for (const std::string& value : values)
                text += " " + value;
            text += " line " + *headers.findLine(name);
        }
        if (headers.findLine("a new and long name") && !headers.find("a new and long name"))
            text += " and a line without a value";
        return text;
    };
    const std::list<std::string> values = {kLongText, "b", kLongText};
    FailEachCallOf(
        {AllOrNothing(
             "HttpHeaders: new name", make,
             [&](http::HttpHeaders& h) { h.addHeaderValues("a new and long name", values); }, look),
         AllOrNothing(
             "HttpHeaders: known name", make,
             [&](http::HttpHeaders& h) { h.addHeaderValues("known", values); }, look),
         AllOrNothing(
             "HttpHeaders: new name with its line", make,
             [&](http::HttpHeaders& h) {
                 h.addHeaderValues("a new and long name", std::list<std::string>(values),
                                   kLongText + ",b ," + kLongText);
             },
             look),
         AllOrNothing(
             "HttpHeaders: known name with its line", make,
             [&](http::HttpHeaders& h) {
                 h.addHeaderValues("known", std::list<std::string>(values),
                                   kLongText + ",b ," + kLongText);
             },
             look),
         {"ParseMultiValueHeader", [&](Attempt& attempt) {
              std::list<std::string> found = {"before"};
              const bool done = attempt([&] {
                  http::HttpHeaders::ParseMultiValueHeader(
                      (kLongText + ", \"a, b\"," + kLongText).c_str(), found);
              });
              EXPECT_EQ(found.size(), done ? 4u : 1u);
          }}});
}

// Digests and base64.

TEST(Base64Failures, ATextIsAppendedWholeOrNotAtAll)
{
    // The second one in several pieces.
    for (const size_t size : {size_t(100), size_t(10) << 20}) {
        const std::string name = "base64Encode: " + std::to_string(size) + " bytes";
        FailEachCall(name.c_str(), [&](Attempt& attempt) {
            const std::string data(size, 'x');
            std::string out = "before";
            const bool done = attempt(
                [&] { base64Encode(data.data(), data.size(), out, Base64CharSet::UrlSafe); });
            EXPECT_EQ(out.size(), done ? 6 + (size * 4 + 2) / 3 : 6);
            EXPECT_EQ(out.substr(0, 6), "before");
        });
    }
}

TEST(HashHelperFailures, ADigestIsMadeOrItsSizeIsNought)
{
    FailEachCall(
        "HashHelper",
        [](Attempt& attempt) {
            char digest[64] = {};
            unsigned long size = 0;
            EXPECT_TRUE(attempt(
                [&] { size = HashHelper(HashType::Sha256).hash("a", 1, digest, sizeof digest); }));
            EXPECT_EQ(size != 0, digest[0] != 0);
            if (!attempt.hasFailed()) {
                EXPECT_EQ(size, 32u);
            }
            EXPECT_EQ(HashHelper(HashType::Sha256).hash("a", 1, digest, sizeof digest), 32u);
            EXPECT_EQ(static_cast<unsigned char>(digest[0]), 0xca);
            attempt.forgiveMalloc();
        },
        CanFailMalloc() ? Points::Some : Points::None);
}

// Threads, locks and waits.

class CountingThread : public qvThread
{
public:
    ~CountingThread() override { waitThread(60000); }
    std::atomic<int> runs{0};

protected:
    void run() override { ++runs; }
};

TEST(qvThreadFailures, AThreadIsStartedOrCanBeStarted)
{
    FailEachCallOf({{"qvThread: start", [](Attempt& attempt) {
                         CountingThread thread;
                         const bool done = attempt(
                             [&] { EXPECT_TRUE(thread.startThread("the name of this thread")); });
                         EXPECT_EQ(done, !attempt.hasFailed());
                         if (!done) {
                             EXPECT_TRUE(thread.waitThread(0));
                             EXPECT_TRUE(thread.startThread(nullptr));
                         }
                         EXPECT_TRUE(thread.waitThread(60000));
                         EXPECT_EQ(thread.runs, 1);
                     }}});
}

TEST(qvThreadFailures, LocksWaitsAndNamesNeedNoMemory)
{
    FailEachCallOf(
        {{"CurrentThreadId: for the first time on a thread",
          [](Attempt& attempt) {
              std::thread fresh([&] {
                  EXPECT_TRUE(attempt([] { EXPECT_FALSE(qvThread::CurrentThreadId().empty()); }));
              });
              fresh.join();
          },
          Points::None},
         {"qvMutex, qvWaitCondition, CurrentThreadId",
          [](Attempt& attempt) {
              EXPECT_TRUE(attempt([] {
                  qvMutex mutex;
                  qvWaitCondition condition;
                  qvMutexLocker locker(&mutex);
                  condition.wakeAll();
                  EXPECT_FALSE(condition.wait(&mutex, 0));
                  EXPECT_FALSE(qvThread::CurrentThreadId().empty());
              }));
          },
          Points::None}});
}

// Texts.

TEST(PlatformTextFailures, TextsAreMadeWholeOrNotAtAll)
{
    FailEachCallOf(
        {{"IpAddress: texts",
          [](Attempt& attempt) {
              std::string text;
              const bool done = attempt([&] {
                  text = IpAddress::fromText("2001:db8::1234:5678", 40000).toStringWithPort();
              });
              EXPECT_EQ(text, done ? "[2001:db8::1234:5678]:40000" : "");
          }},
         {"SystemError", [](Attempt& attempt) {
              std::string text;
              const bool done = attempt([&] { text = SystemError(ECONNRESET).toString(); });
              EXPECT_EQ(text, done ? "Connection reset by peer" : "");
          }}});
}

class Device : public qvIoDevice
{
public:
    Device() : qvIoDevice(BothWays) {}
    uint64_t readBytes(char*, size_t) override { return 0; }
    uint64_t writeBytes(const char*, size_t) override { return 0; }
    bool atEnd() const override { return false; }
};

TEST(qvIoDeviceFailures, AnErrorIsSetWholeOrNotAtAll)
{
    FailEachCallOf({AllOrNothing(
                        "qvIoDevice: error", [] { return std::make_unique<Device>(); },
                        [](Device& device) { device.setDeviceError(kLongText); },
                        [](Device& device) {
                            EXPECT_EQ(device.hasDeviceError(), !device.getDeviceErrorMsg().empty());
                            return device.getDeviceErrorMsg();
                        }),
                    {"qvIoDevice: text of the error", [](Attempt& attempt) {
                         Device device;
                         device.setDeviceError(kLongText);
                         std::string text;
                         const bool done = attempt([&] { text = device.getDeviceErrorMsg(); });
                         EXPECT_EQ(text, done ? kLongText : "");
                         device.clearDeviceError();
                         EXPECT_FALSE(device.hasDeviceError());
                     }}});
}

}  // namespace
}  // namespace qv::tests
