/// A well-behaved client: libcurl with the operations that the tests need.
#ifndef WENDREL_TESTS_INTEGRATION_CURLCLIENT_H
#define WENDREL_TESTS_INTEGRATION_CURLCLIENT_H

#include "Pattern.h"

#include <curl/curl.h>

#include <cstdint>
#include <string>
#include <vector>

namespace integration
{

struct CurlResult
{
    CURLcode code = CURLE_OK;
    long status = 0;
    long newConnections = 0;
    std::vector<std::string> headerLines;  ///< without line ends, status lines included
    std::string body;                      ///< empty when the body was only compared

    bool hasHeaderLine(const std::string& line) const;
};

/// One curl handle; it keeps its connection from one transfer to the next.
class CurlClient
{
public:
    CurlClient();
    ~CurlClient();
    CurlClient(const CurlClient&) = delete;
    CurlClient& operator=(const CurlClient&) = delete;

    CurlResult get(const std::string& url, const std::vector<std::string>& headers = {});

    /// As `get`, with another method.
    CurlResult request(const std::string& method, const std::string& url,
                       const std::vector<std::string>& headers = {});

    /// Gets a body and compares it with the pattern instead of keeping it.
    CurlResult getPattern(const std::string& url, PatternChecker& checker);

    /// Puts `size` bytes of the pattern; `chunked` sends no length.
    CurlResult putPattern(const std::string& url, uint64_t size, bool chunked, bool expectContinue);

private:
    CurlResult perform(const std::string& url, const std::vector<std::string>& headers);

    static size_t takeHeader(char* data, size_t size, size_t count, void* client);
    static size_t takeBody(char* data, size_t size, size_t count, void* client);
    static size_t giveBody(char* out, size_t size, size_t count, void* client);

    CURL* mHandle;
    CurlResult mResult;
    PatternChecker* mChecker = nullptr;
    uint64_t mUploadSize = 0;
    uint64_t mUploaded = 0;
};

}  // namespace integration

#endif
