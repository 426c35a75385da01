// Body sources by themselves: their reads and ranges, and files that are refused.

#include <Wendrel/BodySource.h>

#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qv::tests
{
namespace
{

// Everything that a source reads, in pieces of `size` bytes.
std::string readAll(BodySource& source, size_t size)
{
    std::string all;
    std::vector<char> buffer(size);
    const auto length = static_cast<uint64_t>(source.getLength());
    while (all.size() < length) {
        const BodyRead part = source.read(all.size(), buffer.data(), size);
        EXPECT_EQ(part.state, BodyRead::Data);
        if (part.state != BodyRead::Data || part.bytes == 0 || part.bytes > size)
            break;
        all.append(buffer.data(), part.bytes);
    }
    return all;
}

class BodySourceTest : public testing::Test
{
protected:
    // The sources with ranges, of "0123456789".
    std::vector<std::pair<const char*, std::unique_ptr<BodySource>>> makeAll()
    {
        std::ofstream(mPath) << kText;
        std::vector<std::pair<const char*, std::unique_ptr<BodySource>>> all;
        all.emplace_back("memory", BodySource::fromString(std::make_shared<std::string>(kText)));
        all.emplace_back("file", BodySource::fromFile(mPath));
        all.emplace_back("callback", BodySource::fromCallback(
                                         [this](uint64_t offset, char* buffer, size_t size) {
                                             return readText(offset, buffer, size);
                                         },
                                         BodyResumer(), static_cast<int64_t>(kText.size())));
        return all;
    }

    BodyRead readText(uint64_t offset, char* buffer, size_t size) const
    {
        return {BodyRead::Data, kText.copy(buffer, size, offset)};
    }

    const std::string kText = "0123456789";
    const TemporaryDirectory mDirectory;
    const std::string mPath = mDirectory / "file";
};

TEST_F(BodySourceTest, ReadsAllInPiecesOfAnySize)
{
    for (auto& [name, source] : makeAll()) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(source);
        EXPECT_EQ(source->getLength(), 10);
        for (const size_t size : {1, 3, 9, 10, 11, 100})
            EXPECT_EQ(readAll(*source, size), kText);
    }
}

TEST_F(BodySourceTest, RestrictsTheRangeThatItHas)
{
    const struct
    {
        uint64_t offset;
        uint64_t length;
        bool accepted;
        const char* body;
    } rows[] = {
        {0, 10, true, "0123456789"},
        {0, BodySource::kToEnd, true, "0123456789"},
        {3, BodySource::kToEnd, true, "3456789"},
        {3, 4, true, "3456"},
        {9, 1, true, "9"},
        {10, 0, true, ""},
        {10, BodySource::kToEnd, true, ""},
        {0, 11, false, "0123456789"},
        {9, 2, false, "0123456789"},
        {10, 1, false, "0123456789"},
        {11, 0, false, "0123456789"},
        {11, BodySource::kToEnd, false, "0123456789"},
        {UINT64_MAX, 2, false, "0123456789"},
        {2, UINT64_MAX - 1, false, "0123456789"},
    };
    for (const auto& row : rows) {
        for (auto& [name, source] : makeAll()) {
            SCOPED_TRACE(testing::Message() << name << " " << row.offset << " " << row.length);
            ASSERT_TRUE(source);
            EXPECT_EQ(source->setRange(row.offset, row.length), row.accepted);
            EXPECT_EQ(source->getLength(), static_cast<int64_t>(std::string(row.body).size()));
            EXPECT_EQ(readAll(*source, 2), row.body);
        }
    }
}

TEST_F(BodySourceTest, RestrictsARangeFurther)
{
    for (auto& [name, source] : makeAll()) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(source->setRange(2, 6));
        EXPECT_FALSE(source->setRange(0, 7));
        EXPECT_TRUE(source->setRange(1, 3));
        EXPECT_EQ(readAll(*source, 100), "345");
    }
}

TEST_F(BodySourceTest, EndsBehindItsRange)
{
    for (auto& [name, source] : makeAll()) {
        SCOPED_TRACE(name);
        char byte = 0;
        EXPECT_TRUE(source->setRange(2, 6));
        EXPECT_EQ(source->read(6, &byte, 1).state, BodyRead::End);
    }
}

TEST(BodySource, OfUnknownLengthHasNoRange)
{
    const auto source = BodySource::fromCallback(
        [](uint64_t, char*, size_t) -> BodyRead { return {BodyRead::End}; }, BodyResumer());
    EXPECT_EQ(source->getLength(), -1);
    EXPECT_FALSE(source->setRange(0, 0));
    EXPECT_FALSE(source->setRange(0));
}

TEST(BodySource, LendsItsMemoryAndKeepsTheOwner)
{
    const auto text =
        std::make_shared<const std::string>("a text that is not in the string object");
    auto source = BodySource::fromString(text);
    EXPECT_EQ(source->getMemory().get(), text->data());
    EXPECT_TRUE(source->setRange(7, 4));
    std::shared_ptr<const char> memory = source->getMemory();
    EXPECT_EQ(memory.get(), text->data() + 7);
    EXPECT_EQ(text.use_count(), 3);
    source.reset();
    EXPECT_EQ(text.use_count(), 2);
    memory.reset();
    EXPECT_EQ(text.use_count(), 1);
}

TEST(BodySource, OfNoTextIsEmpty)
{
    EXPECT_EQ(BodySource::fromString(nullptr)->getLength(), 0);
    EXPECT_EQ(BodySource::fromMemory(nullptr, nullptr, 0)->getLength(), 0);
}

TEST(BodySource, HasNoRangeMemoryOrResumerByDefault)
{
    class Plain : public BodySource
    {
        int64_t getLength() const override { return 10; }
        BodyRead read(uint64_t, char*, size_t) override { return {BodyRead::End}; }
    };
    Plain source;
    BodySource& base = source;
    EXPECT_FALSE(base.setRange(0, 10));
    EXPECT_EQ(base.getMemory(), nullptr);
    EXPECT_EQ(base.getResumer(), nullptr);
    EXPECT_EQ(base.getBlockBytes(), 16384u);
}

TEST_F(BodySourceTest, RefusesAFileThatCannotBeSent)
{
    std::ofstream(mPath) << kText;
    const std::string pipe = mDirectory / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const struct
    {
        const char* name;
        std::string path;
        uint64_t offset;
        uint64_t length;
        int error;
    } rows[] = {
        {"missing", mDirectory / "nothing", 0, BodySource::kToEnd, ENOENT},
        {"directory", mDirectory.path(), 0, BodySource::kToEnd, EISDIR},
        {"pipe", pipe, 0, BodySource::kToEnd, EINVAL},
        {"begins behind the end", mPath, 11, BodySource::kToEnd, EINVAL},
        {"ends behind the end", mPath, 5, 6, EINVAL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        errno = 0;
        EXPECT_EQ(BodySource::fromFile(row.path, row.offset, row.length), nullptr);
        EXPECT_EQ(errno, row.error);
    }
    EXPECT_EQ(BodySource::fromDescriptor(-1), nullptr);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(BodySourceTest, OfAFileNeedsNoLargerBlockThanItsRange)
{
    std::ofstream(mPath) << std::string(100000, 'x');
    const auto source = BodySource::fromFile(mPath);
    ASSERT_TRUE(source);
    EXPECT_EQ(source->getBlockBytes(), 65536u);
    ASSERT_TRUE(source->setRange(0, 65535));
    EXPECT_EQ(source->getBlockBytes(), 65535u);
    ASSERT_TRUE(source->setRange(10, 0));
    EXPECT_EQ(source->getBlockBytes(), 0u);
}

TEST_F(BodySourceTest, OwnsItsDescriptorAlsoWhenItIsRefused)
{
    std::ofstream(mPath) << kText;
    const auto isOpen = [](int descriptor) { return fcntl(descriptor, F_GETFD) != -1; };
    const int taken = open(mPath.c_str(), O_RDONLY | O_CLOEXEC);
    auto source = BodySource::fromDescriptor(taken, 2, 3);
    ASSERT_TRUE(source);
    EXPECT_EQ(readAll(*source, 10), "234");
    EXPECT_TRUE(isOpen(taken));
    EXPECT_EQ(lseek(taken, 0, SEEK_CUR), 0);
    source.reset();
    EXPECT_FALSE(isOpen(taken));
    const int refused = open(mPath.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(BodySource::fromDescriptor(refused, 11), nullptr);
    EXPECT_FALSE(isOpen(refused));
}

TEST(BodyResumer, WithoutAResponseDoesNothing)
{
    BodyResumer resumer;
    const BodyResumer copy = resumer;
    copy.resume();
    const BodyResumer moved = std::move(resumer);
    moved.resume();
    resumer.resume();  // NOLINT(bugprone-use-after-move): it is harmless
}

}  // namespace
}  // namespace qv::tests
