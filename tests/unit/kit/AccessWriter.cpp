#include "AccessWriter.h"

#include <support/Waiting.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace qv::kit
{
namespace
{

CompletedRequest requestOf(const std::string& target)
{
    CompletedRequest request;
    request.method = "GET";
    request.target = target;
    return request;
}

class AccessWriterFile : public testing::Test
{
protected:
    AccessWriterFile()
    {
        std::string name =
            (std::filesystem::temp_directory_path() / "wendrel-access-XXXXXX").string();
        mDirectory = mkdtemp(name.data());
        mPath = mDirectory + "/access.log";
    }
    ~AccessWriterFile() override { std::filesystem::remove_all(mDirectory); }

    static size_t linesOf(const std::string& path)
    {
        std::ifstream file(path);
        size_t lines = 0;
        for (std::string line; std::getline(file, line);)
            ++lines;
        return lines;
    }

    std::string mDirectory;
    std::string mPath;
};

TEST_F(AccessWriterFile, AppendsAndOpensAgain)
{
    const std::string old = mPath + ".1";
    for (int run = 1; run <= 2; ++run) {
        AccessWriter writer(mPath, AccessLog::Combined);
        ASSERT_EQ(writer.start(), "");
        writer.write(requestOf("/1"));
        writer.write(requestOf("/2"));
        writer.stop();
        EXPECT_EQ(writer.lostLines(), 0u);
        EXPECT_EQ(linesOf(mPath), 2u * static_cast<size_t>(run));
    }
    struct stat status
    {};
    ASSERT_EQ(stat(mPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07137, 0u);
    AccessWriter writer(mPath, AccessLog::Combined);
    ASSERT_EQ(writer.start(), "");
    std::filesystem::rename(mPath, old);
    writer.write(requestOf("/3"));
    EXPECT_TRUE(tests::waitUntil([&] { return linesOf(old) == 5; }));
    writer.reopen();
    EXPECT_TRUE(tests::waitUntil([&] { return std::filesystem::exists(mPath); }));
    writer.write(requestOf("/4"));
    writer.stop();
    EXPECT_EQ(linesOf(old), 5u);
    EXPECT_EQ(linesOf(mPath), 1u);
}

TEST_F(AccessWriterFile, TellsWhyItCannotBeOpened)
{
    AccessWriter missing(mDirectory + "/none/a", AccessLog::Combined);
    EXPECT_EQ(missing.start(),
              "cannot write the access log " + mDirectory + "/none/a: No such file or directory");
    // Without a reader it would block.
    const std::string fifo = mDirectory + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    AccessWriter writer(fifo, AccessLog::Combined);
    EXPECT_EQ(writer.start(),
              "cannot write the access log " + fifo + ": No such device or address");
}

TEST_F(AccessWriterFile, LosesTheLinesOfAPipeWhoseReaderHasLeft)
{
    const std::string fifo = mDirectory + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    AccessWriter writer(fifo, AccessLog::Combined);
    ASSERT_EQ(writer.start(), "");
    close(reader);
    writer.write(requestOf("/"));
    writer.stop();
    EXPECT_EQ(writer.lostLines(), 1u);
}

TEST_F(AccessWriterFile, KeepsTheOldFileWhenTheNewOneCannotBeOpened)
{
    AccessWriter writer(mPath, AccessLog::Combined);
    ASSERT_EQ(writer.start(), "");
    const std::string moved = mDirectory + ".moved";
    std::filesystem::rename(mDirectory, moved);
    writer.reopen();
    writer.write(requestOf("/1"));
    writer.stop();
    EXPECT_EQ(linesOf(moved + "/access.log"), 1u);
    std::filesystem::rename(moved, mDirectory);
}

TEST(AccessWriter, CountsLinesThatCannotBeWritten)
{
    AccessWriter writer("/dev/full", AccessLog::Combined);
    ASSERT_EQ(writer.start(), "");
    for (int i = 0; i < 10; ++i)
        writer.write(requestOf("/"));
    writer.stop();
    EXPECT_EQ(writer.lostLines(), 10u);
}

// The sink waits until the queue has been full.
TEST(AccessWriter, LosesLinesBeyondTheQueueAndNoOthers)
{
    tests::Channel<int> go;
    std::vector<size_t> sizes;
    std::mutex mutex;
    AccessWriter writer(
        [&](std::string_view line) {
            const std::lock_guard locker(mutex);
            if (sizes.empty()) {
                EXPECT_TRUE(go.pop());
            }
            sizes.push_back(line.size());
            if (sizes.size() == 2)
                throw std::runtime_error("on purpose");
        },
        AccessLog::Json);
    ASSERT_EQ(writer.start(), "");
    constexpr uint64_t kLines = 200;
    const CompletedRequest request = requestOf("/" + std::string(100000, 'x'));
    for (uint64_t i = 0; i < kLines; ++i)
        writer.write(request);
    const uint64_t lost = writer.lostLines();
    EXPECT_GT(lost, kLines / 2);
    EXPECT_GE((kLines - lost) * 100000, AccessWriter::kMaxQueueBytes - 200000);
    EXPECT_LE((kLines - lost) * 100000, 2 * AccessWriter::kMaxQueueBytes);
    go.push(1);
    writer.stop();
    EXPECT_EQ(sizes.size(), kLines - lost);
    EXPECT_EQ(writer.lostLines(), lost + 1);
}

// The line before the pause wakes the thread, one behind it again.
TEST(AccessWriter, WritesEachLineOfARequestNowAndThen)
{
    tests::Channel<std::string> lines;
    AccessWriter writer([&](std::string_view line) { lines.push(std::string(line)); },
                        AccessLog::Combined);
    ASSERT_EQ(writer.start(), "");
    for (int i = 0; i < 200; ++i) {
        const std::string target = "/" + std::to_string(i);
        writer.write(requestOf(target));
        const std::string line = lines.pop().value_or("");
        ASSERT_NE(line.find(target + " "), std::string::npos) << line;
    }
}

TEST(AccessWriter, KeepsTheOrderOfEachThread)
{
    constexpr int kThreads = 4;
    constexpr int kLines = 5000;
    std::vector<std::string> lines;
    AccessWriter writer([&](std::string_view line) { lines.emplace_back(line); },
                        AccessLog::Combined);
    ASSERT_EQ(writer.start(), "");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < kLines; ++i)
                writer.write(requestOf("/" + std::to_string(thread) + "/" + std::to_string(i)));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    writer.stop();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::array<int, kThreads> next{};
    for (const std::string& line : lines) {
        const size_t at = line.find("GET /") + 5;
        const auto thread = static_cast<size_t>(line.at(at) - '0');
        EXPECT_EQ(std::stoi(line.substr(at + 2)), next.at(thread)++) << line;
    }
}

}  // namespace
}  // namespace qv::kit
