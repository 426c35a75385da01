// Making a request, filling it and serving it while memory runs out.

#include "failure_injection/Support.h"
#include "support/TestRequest.h"

#include <qvSystem/qvThread.h>

#include "request/Utf8.h"

#include <memory>
#include <sstream>
#include <string>

namespace qv::tests
{
namespace
{

using Type = HttpBaseRequest::RequestType;

void PrintValues(std::ostream& out, const std::string& name, const std::list<std::string>& values)
{
    // A name without a value would be neither there nor missing.
    EXPECT_THAT(values, testing::Not(testing::IsEmpty())) << name;
    out << name << ":";
    for (const std::string& value : values)
        out << " [" << value << "]";
    out << "\n";
}

// All that a request holds.
std::string Contents(const HttpBaseRequest& request)
{
    std::ostringstream out;
    for (const auto& [name, values] : request.getHeaders())
        PrintValues(out, "header " + name, values);
    for (const auto& [name, values] : request.getCookies())
        PrintValues(out, "cookie " + name, values);
    for (const auto& [name, values] : request.getQueryParameters())
        PrintValues(out, "argument " + name, values);
    const auto& url = request.getUrl();
    out << request.getRequestHeadBytes() << " bytes, type " << request.getRequestType()
        << ", target " << request.getOriginalFullUrl() << ", url " << url.isValid() << " "
        << url.host() << " " << url.path() << " " << url.pathSegments().size() << " " << url.query()
        << ", worker " << request.getCurrentWorkerThreadId() << ", error "
        << request.hasParseError() << " " << request.getParseError();
    return out.str();
}

class InitializedTable : public testing::Test
{
protected:
    InitializedTable() { HttpBaseRequest::InitRequestTypes(); }
    ~InitializedTable() override { HttpBaseRequest::ClearRequestTypes(); }
};

class RequestFailures : public InitializedTable
{};

// A request with something of each kind in it.
std::unique_ptr<TestRequest> Filled()
{
    auto request = std::make_unique<TestRequest>();
    request->addHeader("Accept-Something-Or-Other", "text/html");
    request->addCookie("the name of a long-lived cookie", "1");
    request->addQueryParameter("the name of a long argument", "1");
    return request;
}

template <typename Fill>
Operation FillingNamed(const char* name, Fill fill, Points points = Points::Some)
{
    return AllOrNothing(name, &Filled, fill, &Contents, points);
}

TEST_F(RequestFailures, ConstructionReleasesWhatItHasMade)
{
    FailEachCallOf({{"request: construction", [](Attempt& attempt) {
                         std::unique_ptr<TestRequest> request;
                         const bool done =
                             attempt([&] { request = std::make_unique<TestRequest>(); });
                         EXPECT_EQ(request != nullptr, done);
                         if (!done)
                             request = std::make_unique<TestRequest>();
                         EXPECT_EQ(Contents(*request), Contents(TestRequest()));
                     }}});
}

TEST_F(RequestFailures, ValuesAreTakenWholeOrNotAtAll)
{
    static const std::string tooLong(8097, 'x');
    FailEachCallOf({
        FillingNamed("addHeader: new name",
                     [](TestRequest& r) { r.addHeader("X-A-New-Name-Of-A-Header", "1"); }),
        FillingNamed("addHeader: one long value",
                     [](TestRequest& r) { r.addHeader("X-New", kLongText.c_str()); }),
        FillingNamed("addHeader: several values",
                     [](TestRequest& r) {
                         r.addHeader("X-New", (kLongText + ", b, " + kLongText + ",d").c_str());
                     }),
        FillingNamed("addHeader: empty value", [](TestRequest& r) { r.addHeader("X-New", ""); }),
        FillingNamed("addHeader: known name",
                     [](TestRequest& r) {
                         r.addHeader("Accept-Something-Or-Other",
                                     (kLongText + "," + kLongText).c_str());
                     }),
        FillingNamed("addCookie: new name",
                     [](TestRequest& r) { r.addCookie("a new and long name", kLongText.c_str()); }),
        FillingNamed("addCookie: short name", [](TestRequest& r) { r.addCookie("a", "1"); }),
        FillingNamed("addCookie: known name",
                     [](TestRequest& r) {
                         r.addCookie("the name of a long-lived cookie", kLongText.c_str());
                     }),
        FillingNamed("addCookie: without value",
                     [](TestRequest& r) { r.addCookie("a new and long name", nullptr); }),
        FillingNamed(
            "addQueryParameter: new name",
            [](TestRequest& r) { r.addQueryParameter("a new and long name", kLongText.c_str()); }),
        FillingNamed("addQueryParameter: short name",
                     [](TestRequest& r) { r.addQueryParameter("a", "1"); }),
        FillingNamed("addQueryParameter: known name",
                     [](TestRequest& r) {
                         r.addQueryParameter("the name of a long argument", kLongText.c_str());
                     }),
    });
}

TEST_F(RequestFailures, RefusalsAreRecordedWholeOrNotAtAll)
{
    static const std::string tooLong(8097, 'x');
    FailEachCallOf({
        FillingNamed(
            "addHeader: too long", [](TestRequest& r) { r.addHeader("", tooLong.c_str()); },
            Points::None),
        FillingNamed("addHeader: name not UTF-8",
                     [](TestRequest& r) { r.addHeader("\xC0\x80", "1"); }),
        FillingNamed("addHeader: control character",
                     [](TestRequest& r) { r.addHeader("a\x01", "1"); }),
        FillingNamed("addHeader: value without end",
                     [](TestRequest& r) { r.addHeader("a", "b, \"c"); }),
        FillingNamed("addCookie: too long",
                     [](TestRequest& r) { r.addCookie("", tooLong.c_str()); }),
        FillingNamed("addCookie: name not UTF-8",
                     [](TestRequest& r) { r.addCookie("\xC0\x80", "1"); }),
        FillingNamed("addCookie: name with control character",
                     [](TestRequest& r) { r.addCookie("a\x01", "1"); }),
        FillingNamed("addCookie: value not UTF-8",
                     [](TestRequest& r) { r.addCookie("a", "\xED\xA0\x80"); }),
        FillingNamed("addCookie: value with control character",
                     [](TestRequest& r) { r.addCookie("a", "\x7F"); }),
        FillingNamed("addQueryParameter: name not UTF-8",
                     [](TestRequest& r) { r.addQueryParameter("\xC0\x80", "1"); }),
        FillingNamed("addQueryParameter: name with control character",
                     [](TestRequest& r) { r.addQueryParameter("a\x01", "1"); }),
        FillingNamed("addQueryParameter: value not UTF-8",
                     [](TestRequest& r) { r.addQueryParameter("a", "\xF4\x90\x80\x80"); }),
        FillingNamed("addQueryParameter: value with control character",
                     [](TestRequest& r) { r.addQueryParameter("a", "\x1F"); }),
        FillingNamed("setHttpMethod: unknown", [](TestRequest& r) { r.setHttpMethod("get"); }),
        FillingNamed("setParseError",
                     [](TestRequest& r) { r.setParseError(std::string(kLongText)); }),
        FillingNamed("setOriginalFullUrl: too long",
                     [](TestRequest& r) { r.setOriginalFullUrl("/" + tooLong); }),
        FillingNamed("setOriginalFullUrl: not parsed",
                     [](TestRequest& r) { r.setOriginalFullUrl("/a b"); }),
        FillingNamed("setOriginalFullUrl: not UTF-8 once decoded",
                     [](TestRequest& r) { r.setOriginalFullUrl("/a%C0%80"); }),
        FillingNamed("setOriginalFullUrl: no address in brackets",
                     [](TestRequest& r) { r.setOriginalFullUrl("@[1::2::3]/"); }),
    });
}

TEST_F(RequestFailures, TargetsAreTakenWholeOrNotAtAll)
{
    FailEachCallOf({
        FillingNamed("setOriginalFullUrl: short",
                     [](TestRequest& r) { r.setOriginalFullUrl("/"); }),
        FillingNamed("setOriginalFullUrl: long, with tolerated characters",
                     [](TestRequest& r) {
                         r.setOriginalFullUrl("/a/{b}/" + std::string(200, 'c') +
                                              "/d%20e?f=" + kLongText.substr(0, 1) +
                                              "|g&h=" + std::string(100, 'i'));
                     }),
    });
}

TEST_F(RequestFailures, AServedRequestStaysWhatItWas)
{
    FailEachCallOf({
        FillingNamed("workerThreadStartHandling",
                     [](TestRequest& r) { r.workerThreadStartHandling(kLongText); }),
        AllOrNothing(
            "setKeepAliveCallback", &Filled,
            [](TestRequest& r) {
                r.setKeepAliveCallback([text = std::make_shared<std::string>(kLongText)] {}, 10);
            },
            &Contents),
        {"workerThreadStopHandling",
         [](Attempt& attempt) {
             const auto request = Filled();
             request->serveOnThisThread();
             request->setKeepAliveCallback([text = kLongText] {}, 10);
             EXPECT_TRUE(attempt([&] { request->workerThreadStopHandling(std::string()); }));
             EXPECT_EQ(request->getCurrentWorkerThreadId(), "");
         },
         Points::None},
    });
}

TEST_F(RequestFailures, LookUpsPassTheExceptionThrough)
{
    FailEachCallOf({
        {"getHeader, getCookie, getQueryParameter",
         [](Attempt& attempt) {
             const auto request = Filled();
             size_t found = 0;
             const bool done = attempt([&] {
                 found += request->getHeader("accept-something-or-other")->size();
                 found += request->getCookie("the name of a long-lived cookie")->size();
                 found += request->getQueryParameter("the name of a long argument")->size();
             });
             EXPECT_EQ(found == 3, done);
         }},
        {"isCompleted, method, client address",
         [](Attempt& attempt) {
             const auto request = Filled();
             EXPECT_TRUE(attempt([&] {
                 EXPECT_FALSE(request->isCompleted());
                 EXPECT_EQ(HttpBaseRequest::RequestTypeToString(Type::GET), "GET");
                 EXPECT_FALSE(request->getClientAddress().isValid());
             }));
         },
         Points::None},
    });
}

TEST_F(RequestFailures, TheMethodTableCanBeFilledAgain)
{
    FailEachCallOf({{"InitRequestTypes",
                     [](Attempt& attempt) {
                         HttpBaseRequest::ClearRequestTypes();
                         if (!attempt(&HttpBaseRequest::InitRequestTypes)) {
                             // The entries that exist are correct.
                             for (const auto& [name, type] : HttpBaseRequest::sRequestTypes)
                                 EXPECT_EQ(HttpBaseRequest::RequestTypeToString(type), name);
                             HttpBaseRequest::InitRequestTypes();
                         }
                         EXPECT_EQ(HttpBaseRequest::sRequestTypes.size(), 9u);
                         HttpBaseRequest::ClearRequestTypes();
                     }},
                    {"RequestTypeBitFieldToString", [](Attempt& attempt) {
                         std::string text;
                         const bool done = attempt(
                             [&] { text = HttpBaseRequest::RequestTypeBitFieldToString(-1); });
                         EXPECT_EQ(text, done ? "GET,POST,PUT,DELETE,OPTIONS,HEAD,CONNECT,TRACE,"
                                                "PATCH,UNKNOWN_HTTP_METHOD"
                                              : "");
                     }}});
}

TEST_F(RequestFailures, TheUtf8CheckNeedsNoMemory)
{
    FailEachCallOf({{"IsValidUtf8",
                     [](Attempt& attempt) {
                         EXPECT_TRUE(attempt([] { EXPECT_TRUE(impl::IsValidUtf8(kLongText)); }));
                     },
                     Points::None}});
}

}  // namespace
}  // namespace qv::tests
