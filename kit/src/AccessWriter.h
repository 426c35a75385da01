// The thread that writes the access log.
#ifndef WENDREL_KIT_SRC_ACCESSWRITER_H
#define WENDREL_KIT_SRC_ACCESSWRITER_H

#include <Wendrel/kit/AccessLog.h>
#include <Wendrel/kit/CompletedRequest.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace qv::kit
{

// Lines wait in a bounded queue; one that finds it full is lost and counted. Its mutex is a leaf,
// and no line is written under it.
class AccessWriter
{
public:
    using Sink = std::function<void(std::string_view line)>;

    // Bytes of lines that wait.
    static constexpr size_t kMaxQueueBytes = 4194304;

    AccessWriter(std::string path, AccessLog format);
    AccessWriter(Sink sink, AccessLog format);
    ~AccessWriter();
    AccessWriter(const AccessWriter&) = delete;
    AccessWriter& operator=(const AccessWriter&) = delete;

    // Opens the file and starts the thread. Returns why it cannot; empty on success. Throws
    // std::system_error when the system has no thread to give.
    std::string start();

    // Writes the lines that wait, then joins the thread.
    void stop();

    // Any thread; waits for no file.
    void write(const CompletedRequest& request) noexcept;
    void reopen();
    uint64_t lostLines() const { return mLost; }

private:
    void run();
    bool enqueue(std::string_view line);
    bool takeLines(std::string& lines);
    bool openFile(std::string& why);
    void closeFile();
    void reopenFile() noexcept;
    void writeLines(std::string_view lines) noexcept;
    void giveToSink(std::string_view lines) noexcept;
    void writeToFile(std::string_view lines) noexcept;
    void tellLost() noexcept;

    const std::string mPath;  // empty: the sink
    const Sink mSink;
    const AccessLog mFormat;
    std::atomic<uint64_t> mLost{0};

    qvMutex mMutex;
    qvWaitCondition mQueued;
    std::string mQueue QV_GUARDED_BY(mMutex);
    bool mIsAwaited QV_GUARDED_BY(mMutex) = false;  // the thread sleeps until a line comes
    bool mIsReopening QV_GUARDED_BY(mMutex) = false;
    bool mIsStopping QV_GUARDED_BY(mMutex) = false;

    // The thread's.
    int mFile = -1;
    bool mIsTorn = false;  // the last line of the file has no end
    uint64_t mToldLost = 0;

    std::thread mThread;
};

}  // namespace qv::kit

#endif
