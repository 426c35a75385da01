// Decides whether a response is compressed, and on which thread.

#include "Compressor.h"
#include "Conditional.h"
#include "Exchange.h"
#include "ServerCore.h"
#include "Text.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr int kOk = 200;
constexpr int kNonAuthoritative = 203;
constexpr int kPartial = 206;
constexpr int kNotModified = 304;
constexpr int kMinError = 400;
constexpr int64_t kMaxFileBytes = 1048576;
constexpr size_t kBlockBytes = 16384;

// A longer body is compressed piece by piece on a daemon thread: of a worker, and where one is on a
// daemon thread already, or makes no more than a length of it.
constexpr int64_t kMaxWholeBytes = 1048576;
constexpr int64_t kMaxInlineBytes = 65536;

bool isCompressible(const CompressionOptions& options, std::string_view contentType)
{
    const std::string type(trimmed(contentType.substr(0, contentType.find(';'))));
    return std::any_of(options.types.begin(), options.types.end(), [&](const std::string& pattern) {
        const size_t star = pattern.find('*');
        if (star == pattern.npos)
            return equalsIgnoringCase(pattern, type);
        const std::string_view rest = std::string_view(pattern).substr(star + 1);
        return type.size() + 1 >= pattern.size() &&
               equalsIgnoringCase(type.substr(0, star), pattern.substr(0, star)) &&
               equalsIgnoringCase(type.substr(type.size() - rest.size()), rest);
    });
}

void addVary(ResponseHead& head)
{
    for (const auto& [key, header] : head.headers()) {
        if (key.compare(0, 4, "vary") == 0 && equalsIgnoringCase(header.second, "Accept-Encoding"))
            return;
    }
    head.addHeader("Vary", "Accept-Encoding");
}

void weakenTag(ResponseHead& head)
{
    const std::string etag = head.header("ETag");
    if (!etag.empty() && etag.front() == '"')
        head.setHeader("ETag", "W/" + etag);
}

void markCoded(ResponseHead& head, Coding coding)
{
    head.setHeader("Content-Encoding", std::string(nameOf(coding)));
    head.setHeader("Accept-Ranges", std::string());
    weakenTag(head);
}

}  // namespace

const CompressionOptions* Exchange::compression() const
{
    const CompressionOptions* const options =
        mRoute && mRoute->mCompression ? mRoute->mCompression.get() : &mCore.compression();
    return options->enabled ? options : nullptr;
}

// Depends on nothing but the head, so that HEAD and 304 have the headers of the 200.
Coding Exchange::codingFor(ResponseHead& head, int status, int64_t length) const
{
    const CompressionOptions* const options = compression();
    const bool isContent = (status >= kOk && status <= kNonAuthoritative) || status >= kMinError;
    if (!options || !isCompressible(*options, head.header("Content-Type")))
        return Coding::Identity;
    if (status == kPartial)
        addVary(head);
    if (!isContent || length == 0)
        return Coding::Identity;
    if (length > 0 && static_cast<uint64_t>(length) < options->minBytes)
        return Coding::Identity;
    if (!head.header("Content-Encoding").empty() || !head.header("Content-Range").empty())
        return Coding::Identity;
    if (toLower(head.header("Cache-Control")).find("no-transform") != std::string::npos)
        return Coding::Identity;
    addVary(head);
    return chooseCoding(getHeaders().findLine("accept-encoding"));
}

Coding Exchange::codingFor(Response& response) const
{
    const int64_t declared = response.head.contentLength();
    if (response.isStream && declared >= 0)
        return Coding::Identity;
    const bool isDeclared = response.isStream || isHeadOnly(response);
    const int64_t length = isDeclared ? declared : response.source->getLength();
    if (response.isFile && length > kMaxFileBytes)
        return Coding::Identity;
    return codingFor(response.head, response.status, length);
}

// A response to HEAD whose handler has not made the body.
bool Exchange::isHeadOnly(const Response& response) const
{
    return getRequestType() == HEAD && !response.isStream && response.source->getLength() == 0 &&
           response.head.contentLength() > 0;
}

// A handler that compares tags itself does not know the weak one of a compressed response.
bool Exchange::isKnown(const Response& response) const
{
    if (response.isKnown || !compression())
        return response.isKnown;
    const bool isRead = getRequestType() == GET || getRequestType() == HEAD;
    const std::string* const known = getHeaders().findLine("if-none-match");
    const std::string etag = response.head.header("ETag");
    return isRead && known && response.status == kOk && !response.isStream && !etag.empty() &&
           namesETag(*known, etag, false);
}

// Otherwise piece by piece, while it is sent.
bool Exchange::isCodedWhole(const Response& response) const
{
    const int64_t length = response.source->getLength();
    const bool isInline = response.isKnown || !mRoute || mRoute->mIsNonBlocking;
    return length >= 0 && length <= (isInline ? kMaxInlineBytes : kMaxWholeBytes) &&
           (response.isFile || response.source->getMemory());
}

void Exchange::encode(Response& response)
{
    if (response.status == kNotModified && compression())
        fitNotModified(response.head);
    response.isKnown = isKnown(response);
    const Coding coding = codingFor(response);
    if (coding != Coding::Identity)
        applyCoding(response, coding);
    if (response.isKnown)
        becomeNotModified(response);
}

void Exchange::applyCoding(Response& response, Coding coding)
{
    // The length would be that of the compressed body, which is not made.
    const bool isUnknown = response.isStream || isHeadOnly(response);
    if (!isUnknown && isCodedWhole(response)) {
        if (!compressWhole(response.source, coding, MemoryAccount::of(*this)))
            return;
    } else if (response.isKnown || hasNoBody(response.status)) {
        response.source = makeNoBody();
        response.head.setContentLength(-1);
    } else {
        auto source = compressSource(response.source, coding, MemoryAccount::of(*this));
        if (!source)
            return;
        response.source = std::move(source);
    }
    markCoded(response.head, coding);
}

void Exchange::becomeNotModified(Response& response) const
{
    const int64_t length =
        isHeadOnly(response) ? response.head.contentLength() : response.source->getLength();
    response.status = kNotModified;
    response.head.setHeader("Content-Type", std::string());
    response.head.setHeader("Content-Encoding", std::string());
    response.head.setContentLength(length);
    response.source = length < 0 ? makeNoBody() : BodySource::fromString(nullptr);
}

// Of a handler that has compared the tags itself, without a body: the form of the tag is that of
// the 200 that the client has.
void Exchange::fitNotModified(ResponseHead& head) const
{
    addVary(head);
    const std::string* const known = getHeaders().findLine("if-none-match");
    const std::string etag = head.header("ETag");
    if (known && namesETag(*known, etag, false) && !namesETag(*known, etag, true))
        weakenTag(head);
}

// Of a stream that a worker writes.
void Exchange::beginCoding(ResponseHead& head, int status)
{
    if (head.contentLength() >= 0)
        return;
    const Coding coding = codingFor(head, status, -1);
    if (coding == Coding::Identity)
        return;
    mCompressor = Compressor::within(MemoryAccount::of(*this), coding);
    if (mCompressor)
        markCoded(head, coding);
}

bool Exchange::writeCoded(std::string_view data, Compressor::Step step)
{
    std::array<char, kBlockBytes> block;
    Compressor::Result result = Compressor::Result::More;
    while (result == Compressor::Result::More) {
        size_t written = 0;
        result = mCompressor->step(data, step, block.data(), block.size(), written);
        if (result == Compressor::Result::Failed) {
            abandonStream("compression failed");
            return false;
        }
        if (written != 0 && getResponseDevice().writeBytes(block.data(), written) != written)
            return false;
    }
    return true;
}

}  // namespace qv::kit
