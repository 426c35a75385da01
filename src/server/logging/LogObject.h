// The log statement: made on the stack where something is to be logged, filled by insertion,
// written when it goes out of scope.
#ifndef WENDREL_SERVER_LOGGING_LOGOBJECT_H
#define WENDREL_SERVER_LOGGING_LOGOBJECT_H

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

namespace qv
{

class qvLog;

namespace impl
{
struct TestAccess;  // of the tests
}

class qvLogObject
{
public:
    static constexpr int kInformation = 2;
    static constexpr int kWarning = 4;
    static constexpr int kError = 5;
    static constexpr int kDiscard = 6;

    // Null category or system-log name: none. Levels 4 and 5 are urgent: their line is
    // flushed at once.
    explicit qvLogObject(int level, const char* category = nullptr,
                         const char* systemLogName = nullptr);
    // Writes the entry; exceptions of the log pass through.
    ~qvLogObject() noexcept(false);
    qvLogObject(const qvLogObject&) = delete;
    qvLogObject& operator=(const qvLogObject&) = delete;

    template <typename Value> qvLogObject& operator<<(const Value& value)
    {
        if (mLevel != kDiscard)
            stream() << value;
        return *this;
    }

    // Stream manipulators such as std::hex.
    qvLogObject& operator<<(std::ios_base& (*manipulator)(std::ios_base&));

private:
    friend struct impl::TestAccess;

    std::ostringstream& stream();
    void emit();

    std::string mThreadId;
    std::unique_ptr<std::string> mCategory;
    std::unique_ptr<std::string> mSystemLogName;
    qvLog* mSink;
    std::unique_ptr<std::ostringstream> mMessage;
    int32_t mLevel;
    int64_t mTimestampMs;
    bool mUrgent;
};

}  // namespace qv

#endif
