// A file becomes 200, 206, 304, 412 or 416; its body is read by the daemon thread.

#include "FileResponse.h"

#include "Accept.h"
#include "Conditional.h"
#include "Disposition.h"
#include "Exchange.h"
#include "HttpDate.h"
#include "MediaType.h"
#include "RangesSource.h"

#include <Wendrel/BodySource.h>

#include <qvSystem/SystemError.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>

namespace qv::kit
{
namespace
{

using By = Exchange::By;

constexpr int kOk = 200;
constexpr int kPartial = 206;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kPreconditionFailed = 412;
constexpr int kRangeNotSatisfiable = 416;
constexpr int kServerError = 500;
constexpr int kUnavailable = 503;
constexpr const char* kRetryAfterSeconds = "1";

std::optional<std::string_view> lineOf(const Exchange& exchange, const char* name)
{
    const std::string* const line = exchange.getHeaders().findLine(name);
    return line ? std::optional<std::string_view>(*line) : std::nullopt;
}

// They have a meaning for GET and HEAD alone, ranges for GET.
Conditions conditionsOf(const Exchange& exchange)
{
    Conditions conditions;
    const HttpBaseRequest::RequestType method = exchange.getRequestType();
    if (method != HttpBaseRequest::GET && method != HttpBaseRequest::HEAD)
        return conditions;
    conditions.ifMatch = lineOf(exchange, "if-match");
    conditions.ifUnmodifiedSince = lineOf(exchange, "if-unmodified-since");
    conditions.ifNoneMatch = lineOf(exchange, "if-none-match");
    conditions.ifModifiedSince = lineOf(exchange, "if-modified-since");
    if (method == HttpBaseRequest::GET) {
        conditions.ifRange = lineOf(exchange, "if-range");
        conditions.range = lineOf(exchange, "range");
    }
    return conditions;
}

struct Coding
{
    std::string_view name;
    const char* extension;
};

// In order of preference.
constexpr std::array<Coding, 3> kCodings{{{"zstd", ".zst"}, {"br", ".br"}, {"gzip", ".gz"}}};

bool isEarlier(const timespec& left, const timespec& right)
{
    return std::tie(left.tv_sec, left.tv_nsec) < std::tie(right.tv_sec, right.tv_nsec);
}

// Replaces the file by the sibling that the client wants most; returns its coding, "" for none.
std::string_view chooseSibling(const Exchange& exchange, const OpenSibling& open,
                               FileDescriptor& file, struct stat& status)
{
    const std::string* const accept = exchange.getHeaders().findLine("accept-encoding");
    if (!accept)
        return {};
    std::array<Coding, kCodings.size()> codings = kCodings;
    const auto weight = [&](const Coding& coding) { return weightOfCoding(*accept, coding.name); };
    std::stable_sort(codings.begin(), codings.end(), [&](const Coding& left, const Coding& right) {
        return weight(left) > weight(right);
    });
    for (const Coding& coding : codings) {
        if (weight(coding) == 0 || weight(coding) < weightOfCoding(*accept, "identity"))
            continue;
        FileDescriptor sibling = open(coding.extension);
        struct stat its
        {};
        if (!sibling.isOpen() || fstat(sibling.get(), &its) != 0 || !S_ISREG(its.st_mode))
            continue;
        if (isEarlier(its.st_mtim, status.st_mtim))
            continue;
        file = std::move(sibling);
        status = its;
        return coding.name;
    }
    return {};
}

Validators validatorsOf(const struct stat& status, FileTag tag, int64_t nowSeconds)
{
    Validators validators;
    validators.modifiedSeconds = status.st_mtim.tv_sec;
    if (tag == FileTag::None)
        return validators;
    const bool isSettled = nowSeconds - validators.modifiedSeconds >= kSettledSeconds;
    validators.etag = makeETag(status.st_ino, static_cast<uint64_t>(status.st_size), status.st_mtim,
                               status.st_ctim);
    const bool isUnsettled = tag == FileTag::Automatic && !isSettled;
    // Otherwise weak comparison would find it in the tag of a state that has followed.
    if (isUnsettled)
        validators.etag.insert(validators.etag.size() - 1, "-new");
    if (tag == FileTag::Weak || isUnsettled)
        validators.etag.insert(0, "W/");
    return validators;
}

void setHeaders(ResponseHead& head, const Validators& validators, const FileOptions& options,
                int64_t nowSeconds)
{
    if (!validators.etag.empty())
        head.setHeader("ETag", validators.etag);
    // Never a time that is still to come.
    head.setHeader("Last-Modified",
                   formatHttpDate(std::min(validators.modifiedSeconds, nowSeconds)));
    head.setHeader("Accept-Ranges", "bytes");
    setCacheControl(head, options.cacheControl);
}

// Null when the file cannot be read any more.
std::unique_ptr<BodySource> makeSource(FileDescriptor&& file, const ByteRange& range)
{
    return BodySource::fromDescriptor(file.release(), range.first, range.last - range.first + 1);
}

bool respondContent(Exchange& exchange, ResponseHead&& head, FileDescriptor&& file, uint64_t size,
                    const ByteRanges& ranges, const std::string& type, bool isKnown)
{
    Exchange::Response response;
    response.isFile = ranges.kind == ByteRanges::Whole;
    response.isKnown = isKnown;
    response.status = response.isFile ? kOk : kPartial;
    ContentType sent(type);
    if (ranges.kind == ByteRanges::Whole) {
        response.source = BodySource::fromDescriptor(file.release(), 0, size);
    } else if (ranges.parts.size() == 1) {
        const ByteRange& range = ranges.parts.front();
        head.setHeader("Content-Range", contentRange(range, size));
        response.source = makeSource(std::move(file), range);
    } else if (auto whole = makeSource(std::move(file), {0, size - 1})) {
        auto parts = std::make_unique<RangesSource>(std::move(whole), ranges.parts, size, type);
        sent = ContentType(parts->contentType());
        response.source = std::move(parts);
    }
    response.head = std::move(head);
    response.type = &sent;
    return exchange.respond(By::Application, response);
}

}  // namespace

bool isMissing(int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
    case EISDIR:
    case ELOOP:
    case EXDEV:
    case ENAMETOOLONG:
    case ENXIO:
        return true;
    default:
        return false;
    }
}

bool isExhausted(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

bool respondFailure(Exchange& exchange, ResponseHead&& head, std::string_view name, int error)
{
    int status = kServerError;
    if (isMissing(error))
        status = kNotFound;
    else if (error == EACCES)
        status = kForbidden;
    else
        exchange.log("cannot open the file " + std::string(name) + ": ",
                     SystemError(error).toString());
    if (isExhausted(error)) {
        status = kUnavailable;
        head.setHeader("Retry-After", kRetryAfterSeconds);
    }
    return exchange.respondError(By::Application, std::move(head), status, std::string());
}

void setCacheControl(ResponseHead& head, const std::string& value)
{
    if (!value.empty())
        head.setHeader("Cache-Control", value);
    else if (head.header("Cache-Control").empty())
        head.setHeader("Cache-Control", "no-cache");
}

FileDescriptor openFile(const std::string& path)
{
    return FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
}

bool respondFile(Exchange& exchange, ResponseHead&& head, FileDescriptor&& file,
                 std::string_view name, const FileOptions& options, const OpenSibling& openSibling)
{
    struct stat status
    {};
    if (!file.isOpen() || fstat(file.get(), &status) != 0)
        return respondFailure(exchange, std::move(head), name, errno);
    if (!S_ISREG(status.st_mode))
        return respondFailure(exchange, std::move(head), name, ENOENT);
    std::string_view coding;
    // A file that the handler has coded has no siblings.
    if (options.precompressed && openSibling && head.header("Content-Encoding").empty()) {
        head.addHeader("Vary", "Accept-Encoding");
        coding = chooseSibling(exchange, openSibling, file, status);
    }
    const int64_t now = std::time(nullptr);
    const auto size = static_cast<uint64_t>(status.st_size);
    const Conditions conditions = conditionsOf(exchange);
    const Validators validators = validatorsOf(status, options.tag, now);
    const Condition condition = evaluate(conditions, validators, now);
    if (condition == Condition::Failed)
        return exchange.respondError(By::Application, std::move(head), kPreconditionFailed,
                                     std::string());
    const bool isKnown = condition == Condition::NotModified;
    const ByteRanges ranges = isKnown ? ByteRanges{ByteRanges::Whole, {}}
                                      : chooseRanges(conditions, validators, size, now);
    if (ranges.kind == ByteRanges::Unsatisfiable) {
        head.setHeader("Content-Range", "bytes */" + std::to_string(size));
        return exchange.respondError(By::Application, std::move(head), kRangeNotSatisfiable,
                                     "the file has no such bytes, or the ranges are too many");
    }
    setHeaders(head, validators, options, now);
    if (!coding.empty())
        head.setHeader("Content-Encoding", std::string(coding));
    if (!options.downloadName.empty() && !isKnown)
        head.setHeader("Content-Disposition", attachment(options.downloadName));
    const std::string type = options.type.empty() ? mediaType(name) : options.type;
    head.setHeader("Content-Type", type);
    return respondContent(exchange, std::move(head), std::move(file), size, ranges, type, isKnown);
}

}  // namespace qv::kit
