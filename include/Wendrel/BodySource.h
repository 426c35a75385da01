/// Response bodies that the daemon fetches while it sends them: memory, files, callbacks.
#ifndef WENDREL_BODYSOURCE_H
#define WENDREL_BODYSOURCE_H

#include <Wendrel/Export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace qv
{

namespace impl
{
class BodySignal;
struct DispatchAccess;
}  // namespace impl

/// The result of `BodySource::read`: `return {BodyRead::Data, bytes};`, `return {BodyRead::End};`.
struct BodyRead
{
    /// The outcome of a read.
    enum State : uint8_t {
        Data,    ///< `bytes` bytes have been written to the buffer: at least 1, at most its size
        NotYet,  ///< nothing at the moment; the next read follows a `BodyResumer::resume`
        End,     ///< the body is complete
        Failed   ///< the body cannot be completed: the connection is closed
    };

    State state;       ///< the outcome
    size_t bytes = 0;  ///< of `Data`
};

/// Resumes a response whose source has said "not yet". Copies are handles of the same response.
class WENDREL_EXPORT BodyResumer
{
public:
    /// A handle for one response at a time, once it has been given to a source.
    BodyResumer();

    /// The source is read again, once for any number of calls before the read. Call it after the
    /// data has been made available. A call while the source is being read is not lost; one before
    /// the source has been set, after the response has ended or after the request has been deleted
    /// does nothing. Any thread, also in `BodySource::read`; waits for no other thread's work.
    void resume() const;

private:
    friend struct impl::DispatchAccess;

    std::shared_ptr<impl::BodySignal> mSignal;
};

/// The body of one response, fetched by the daemon thread as fast as the client takes it. Given to
/// `HttpResponseDevice::setBodySource`; event-driven mode only.
///
/// Derive from it, or use one of the factories. Every operation is called without a lock. Until the
/// source is set, its owner calls them; then the daemon thread does, one call at a time. They must
/// not wait, and an exception ends the process. The library destroys the source on the daemon
/// thread, at the latest right before `HttpBaseRequest::onCompleted`; on the thread that calls
/// `setBodySource` when that refuses.
class WENDREL_EXPORT BodySource
{
public:
    /// As the length of a range: to the end of the body.
    static constexpr uint64_t kToEnd = UINT64_MAX;

    BodySource() = default;
    virtual ~BodySource();
    BodySource(const BodySource&) = delete;
    BodySource& operator=(const BodySource&) = delete;

    /// Length of the body in bytes; negative: not known. Must not change once the source is set.
    virtual int64_t getLength() const = 0;

    /// Writes up to `size` bytes, at least 1, of the body from `offset` on to `buffer`. `offset` is
    /// the number of bytes read so far. Not called again after `End`, after `Failed` and when
    /// `getLength` bytes have been read. May be called although nobody has resumed it.
    virtual BodyRead read(uint64_t offset, char* buffer, size_t size) = 0;

    /// Restricts the body to `length` bytes from `offset` on, for a 206 response; `getLength` and
    /// the offsets of `read` are then those of the range. Call it before the source is set. False,
    /// with nothing changed, when the range does not lie within the body, and for a source without
    /// ranges, which the default is.
    virtual bool setRange(uint64_t offset, uint64_t length = kToEnd);

    /// The body when all of it, `getLength` bytes, is in memory: it is then sent from there without
    /// a copy and `read` is not called. The memory must not change; it is released on the daemon
    /// thread after the response, later than the source itself. Null by default.
    virtual std::shared_ptr<const char> getMemory() const;

    /// The handle that resumes this source; null, the default, for one that never says "not yet":
    /// `NotYet` is a failure then. It must live as long as the source.
    virtual const BodyResumer* getResumer() const;

    /// Maximum size of the buffer of `read` when the length is known, in bytes. The buffer is
    /// allocated with the response and kept until its end, also while the source waits: 16384 by
    /// default. With an unknown length the buffer is the free memory of the connection.
    virtual size_t getBlockBytes() const;

    /// A text that any number of responses share. Sent without a copy. A null text is an empty one.
    static std::unique_ptr<BodySource> fromString(std::shared_ptr<const std::string> text);

    /// `size` bytes at `data`, kept alive by `owner`. Sent without a copy.
    static std::unique_ptr<BodySource> fromMemory(std::shared_ptr<const void> owner,
                                                  const void* data, size_t size);

    /// `length` bytes of a file from `offset` on, read in blocks of 65536 bytes. The source owns
    /// `descriptor`, also when it returns null, and does not use its file position. Null, with the
    /// reason in `errno`, for anything but a regular file (EISDIR, EINVAL) and for a range that
    /// does not lie within the file (EINVAL).
    ///
    /// The connection is closed, with a line in the log, when the file has become shorter or cannot
    /// be read. The daemon thread waits for the disk.
    static std::unique_ptr<BodySource> fromDescriptor(int descriptor, uint64_t offset = 0,
                                                      uint64_t length = kToEnd);

    /// The same for the file at `path`; also null when it cannot be opened (`errno` of open(2)).
    static std::unique_ptr<BodySource> fromFile(const std::string& path, uint64_t offset = 0,
                                                uint64_t length = kToEnd);

    /// As `read`. Threads as for `read`.
    using Callback = std::function<BodyRead(uint64_t offset, char* buffer, size_t size)>;

    /// A body that a callback fills. Keep a copy of `resumer` to resume it. A length of -1 is not
    /// known; with a known one there are ranges, and the callback sees offsets of the whole body.
    static std::unique_ptr<BodySource> fromCallback(Callback callback, const BodyResumer& resumer,
                                                    int64_t length = -1);
};

}  // namespace qv

#endif
