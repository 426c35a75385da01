// A well-behaved client: libcurl with the operations that the tests need.

#include "CurlClient.h"

#include "TestMode.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace integration
{

namespace
{

// Long enough for the largest body under a sanitizer on a loaded machine.
constexpr long kTransferSeconds = 100;
constexpr long kExpectWaitMs = 20000;

}  // namespace

bool CurlResult::hasHeaderLine(const std::string& line) const
{
    return std::find(headerLines.begin(), headerLines.end(), line) != headerLines.end();
}

CurlClient::CurlClient() : mHandle(curl_easy_init())
{
    if (mHandle == nullptr)
        throw std::runtime_error("curl gives no handle");
}

CurlClient::~CurlClient()
{
    curl_easy_cleanup(mHandle);
}

CurlResult CurlClient::get(const std::string& url, const std::vector<std::string>& headers)
{
    curl_easy_reset(mHandle);
    return perform(url, headers);
}

CurlResult CurlClient::request(const std::string& method, const std::string& url,
                               const std::vector<std::string>& headers)
{
    curl_easy_reset(mHandle);
    curl_easy_setopt(mHandle, CURLOPT_CUSTOMREQUEST, method.c_str());
    if (method == "HEAD")
        curl_easy_setopt(mHandle, CURLOPT_NOBODY, 1L);
    return perform(url, headers);
}

CurlResult CurlClient::getPattern(const std::string& url, PatternChecker& checker)
{
    curl_easy_reset(mHandle);
    mChecker = &checker;
    CurlResult result = perform(url, {});
    mChecker = nullptr;
    return result;
}

CurlResult CurlClient::putPattern(const std::string& url, uint64_t size, bool chunked,
                                  bool expectContinue)
{
    curl_easy_reset(mHandle);
    mUploadSize = size;
    mUploaded = 0;
    curl_easy_setopt(mHandle, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(mHandle, CURLOPT_READFUNCTION, &CurlClient::giveBody);
    curl_easy_setopt(mHandle, CURLOPT_READDATA, this);
    // Without the interim response curl must not send the body before the limit.
    curl_easy_setopt(mHandle, CURLOPT_EXPECT_100_TIMEOUT_MS, kExpectWaitMs);
    std::vector<std::string> headers{expectContinue ? "Expect: 100-continue" : "Expect:"};
    if (chunked)
        headers.emplace_back("Transfer-Encoding: chunked");
    else
        curl_easy_setopt(mHandle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
    return perform(url, headers);
}

CurlResult CurlClient::perform(const std::string& url, const std::vector<std::string>& headers)
{
    curl_slist* list = nullptr;
    for (const std::string& header : headers)
        list = curl_slist_append(list, header.c_str());
    mResult = CurlResult();
    constexpr size_t kSchemeBytes = 4;  // "http"
    const bool becomesSecure = isSecure() && url.compare(0, kSchemeBytes + 1, "http:") == 0;
    const std::string asked = becomesSecure ? "https" + url.substr(kSchemeBytes) : url;
    curl_easy_setopt(mHandle, CURLOPT_URL, asked.c_str());
    // The certificate is signed by itself.
    curl_easy_setopt(mHandle, CURLOPT_SSL_VERIFYPEER, becomesSecure ? 0L : 1L);
    curl_easy_setopt(mHandle, CURLOPT_SSL_VERIFYHOST, becomesSecure ? 0L : 2L);
    curl_easy_setopt(mHandle, CURLOPT_PROXY, "");
    curl_easy_setopt(mHandle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(mHandle, CURLOPT_TIMEOUT, kTransferSeconds);
    curl_easy_setopt(mHandle, CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(mHandle, CURLOPT_HEADERFUNCTION, &CurlClient::takeHeader);
    curl_easy_setopt(mHandle, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(mHandle, CURLOPT_WRITEFUNCTION, &CurlClient::takeBody);
    curl_easy_setopt(mHandle, CURLOPT_WRITEDATA, this);
    mResult.code = curl_easy_perform(mHandle);
    curl_easy_getinfo(mHandle, CURLINFO_RESPONSE_CODE, &mResult.status);
    curl_easy_getinfo(mHandle, CURLINFO_NUM_CONNECTS, &mResult.newConnections);
    curl_slist_free_all(list);
    return std::exchange(mResult, CurlResult());
}

size_t CurlClient::takeHeader(char* data, size_t size, size_t count, void* client)
{
    std::string line(data, size * count);
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n'))
        line.pop_back();
    static_cast<CurlClient*>(client)->mResult.headerLines.push_back(std::move(line));
    return size * count;
}

size_t CurlClient::takeBody(char* data, size_t size, size_t count, void* client)
{
    auto* self = static_cast<CurlClient*>(client);
    if (self->mChecker != nullptr)
        self->mChecker->take(data, size * count);
    else
        self->mResult.body.append(data, size * count);
    return size * count;
}

size_t CurlClient::giveBody(char* out, size_t size, size_t count, void* client)
{
    auto* self = static_cast<CurlClient*>(client);
    const uint64_t left = self->mUploadSize - self->mUploaded;
    const auto piece = static_cast<size_t>(std::min<uint64_t>(size * count, left));
    fillPattern(out, piece, self->mUploaded);
    self->mUploaded += piece;
    return piece;
}

}  // namespace integration
