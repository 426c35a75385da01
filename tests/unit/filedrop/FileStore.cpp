// The directory: the files it serves, and the files that uploads leave in it.

#include "FileStore.h"

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace filedrop
{

namespace
{

namespace fs = std::filesystem;

class FileStoreTest : public testing::Test
{
protected:
    FileStoreTest() { fs::create_directory(mServed); }

    std::unique_ptr<FileStore> openStore()
    {
        std::string error;
        std::unique_ptr<FileStore> store = FileStore::open(mServed.string(), error);
        EXPECT_NE(store, nullptr) << error;
        return store;
    }

    void put(const std::string& name, const std::string& content) const
    {
        std::ofstream(mServed / name, std::ios::binary) << content;
    }

    std::string contentOf(const std::string& name) const
    {
        std::ifstream in(mServed / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    std::vector<std::string> namesOnDisk() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(mServed))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    static std::vector<std::string> namesIn(const FileStore& store)
    {
        std::vector<FileInfo> files;
        EXPECT_TRUE(store.list(files));
        std::vector<std::string> names;
        for (const FileInfo& file : files)
            names.push_back(file.name);
        return names;
    }

    static StoreResult openResult(const FileStore& store, const std::string& name)
    {
        Descriptor fd;
        FileInfo info;
        const StoreResult result = store.openFile(name, fd, info);
        EXPECT_EQ(fd.isOpen(), result == StoreResult::Done);
        return result;
    }

    const qv::tests::TemporaryDirectory mDirectory;
    const fs::path mRoot = mDirectory.path();
    const fs::path mServed = mRoot / "served";
};

using Names = std::vector<std::string>;

}  // namespace

TEST_F(FileStoreTest, DoesNotOpenWhatIsNoDirectory)
{
    put("file", "");
    std::string error;
    EXPECT_EQ(FileStore::open((mServed / "file").string(), error), nullptr);
    EXPECT_EQ(error,
              "cannot open directory '" + (mServed / "file").string() + "': Not a directory");
    EXPECT_EQ(FileStore::open((mServed / "none").string(), error), nullptr);
    EXPECT_EQ(error, "cannot open directory '" + (mServed / "none").string() +
                         "': No such file or directory");
}

TEST_F(FileStoreTest, IsTheOnlyOneOfItsDirectory)
{
    std::string error;
    {
        const std::unique_ptr<FileStore> first = openStore();
        EXPECT_EQ(FileStore::open(mServed.string(), error), nullptr);
        EXPECT_EQ(error, "directory '" + mServed.string() + "' is served by another filedrop");
    }
    EXPECT_NE(FileStore::open(mServed.string(), error), nullptr);
}

TEST_F(FileStoreTest, RemovesWhatACrashHasLeft)
{
    put(".filedrop-upload-00112233", "half");
    put(".filedrop-upload-", "half");
    put(".filedrop", "mine");
    put("kept", "whole");
    const std::unique_ptr<FileStore> store = openStore();
    EXPECT_EQ(store->removedLeftovers(), 2u);
    EXPECT_EQ(namesOnDisk(), (Names{".filedrop", "kept"}));
}

TEST_F(FileStoreTest, ListsRegularFilesThatCanBeNamed)
{
    put("b", "12345");
    put("a", "");
    put("bad\nname", "");
    put("bad\xff", "");
    fs::create_directory(mServed / "directory");
    fs::create_symlink("b", mServed / "link");
    ASSERT_EQ(mkfifo((mServed / "pipe").c_str(), 0600), 0);
    const std::unique_ptr<FileStore> store = openStore();
    const std::unique_ptr<Upload> unfinished = store->beginUpload();
    ASSERT_NE(unfinished, nullptr);
    const struct timespec times[2] = {{784887151, 250000000}, {784887151, 250000000}};
    ASSERT_EQ(utimensat(AT_FDCWD, (mServed / "b").c_str(), times, 0), 0);

    std::vector<FileInfo> files;
    ASSERT_TRUE(store->list(files));
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0].name, "a");
    EXPECT_EQ(files[0].size, 0u);
    EXPECT_EQ(files[1].name, "b");
    EXPECT_EQ(files[1].size, 5u);
    EXPECT_EQ(files[1].modifiedSeconds, 784887151);
    EXPECT_EQ(files[1].modifiedNanoseconds, 250000000);
}

TEST_F(FileStoreTest, OpensOnlyRegularFilesInside)
{
    put("file", "text");
    std::ofstream(mRoot / "secret") << "secret";
    fs::create_symlink("../secret", mServed / "out");
    fs::create_symlink("file", mServed / "in");
    fs::create_symlink("nowhere", mServed / "dangling");
    fs::create_directory(mServed / "directory");
    ASSERT_EQ(mkfifo((mServed / "pipe").c_str(), 0600), 0);
    const std::unique_ptr<FileStore> store = openStore();
    EXPECT_EQ(openResult(*store, "file"), StoreResult::Done);
    for (const char* name : {"out", "in", "dangling", "directory", "pipe", "none"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(openResult(*store, name), StoreResult::NotFound);
        EXPECT_EQ(store->remove(name), StoreResult::NotFound);
    }
    EXPECT_EQ(openResult(*store, std::string(256, 'n')), StoreResult::NameTooLong);
    EXPECT_EQ(store->remove(std::string(256, 'n')), StoreResult::NameTooLong);
    EXPECT_TRUE(fs::exists(mRoot / "secret"));
    EXPECT_TRUE(fs::is_symlink(mServed / "out"));
}

TEST_F(FileStoreTest, RemovesAFileOnce)
{
    put("file", "text");
    const std::unique_ptr<FileStore> store = openStore();
    EXPECT_EQ(store->remove("file"), StoreResult::Done);
    EXPECT_EQ(store->remove("file"), StoreResult::NotFound);
    EXPECT_EQ(namesOnDisk(), Names{});
}

TEST_F(FileStoreTest, ShowsAnUploadOnlyWhenItIsComplete)
{
    const std::unique_ptr<FileStore> store = openStore();
    std::unique_ptr<Upload> upload = store->beginUpload();
    ASSERT_NE(upload, nullptr);
    EXPECT_EQ(upload->write("hello ", 6), StoreResult::Done);
    EXPECT_EQ(upload->write("world", 5), StoreResult::Done);
    EXPECT_EQ(upload->size(), 11u);
    EXPECT_EQ(namesIn(*store), Names{});
    EXPECT_EQ(upload->commit("new"), StoreResult::Done);
    upload.reset();
    EXPECT_EQ(namesOnDisk(), Names{"new"});
    EXPECT_EQ(contentOf("new"), "hello world");
}

TEST_F(FileStoreTest, ReplacesAFileInOneStep)
{
    put("file", "old");
    const std::unique_ptr<FileStore> store = openStore();
    Descriptor old;
    FileInfo info;
    ASSERT_EQ(store->openFile("file", old, info), StoreResult::Done);
    const std::unique_ptr<Upload> upload = store->beginUpload();
    ASSERT_EQ(upload->write("newer", 5), StoreResult::Done);
    EXPECT_EQ(contentOf("file"), "old");
    EXPECT_EQ(upload->commit("file"), StoreResult::Replaced);
    EXPECT_EQ(contentOf("file"), "newer");
    EXPECT_EQ(namesOnDisk(), Names{"file"});
    char byte = 0;
    EXPECT_EQ(pread(old.get(), &byte, 1, 0), 1) << "a reader keeps the file it has opened";
    EXPECT_EQ(byte, 'o');
}

TEST_F(FileStoreTest, LeavesNothingOfAnUploadThatIsGivenUp)
{
    const std::unique_ptr<FileStore> store = openStore();
    std::unique_ptr<Upload> upload = store->beginUpload();
    ASSERT_EQ(upload->write("half", 4), StoreResult::Done);
    EXPECT_EQ(namesOnDisk().size(), 1u);
    upload.reset();
    EXPECT_EQ(namesOnDisk(), Names{});
}

TEST_F(FileStoreTest, DoesNotReplaceWhatIsNoRegularFile)
{
    std::ofstream(mRoot / "secret") << "secret";
    fs::create_symlink("../secret", mServed / "link");
    fs::create_directory(mServed / "directory");
    ASSERT_EQ(mkfifo((mServed / "pipe").c_str(), 0600), 0);
    const std::unique_ptr<FileStore> store = openStore();
    for (const char* name : {"link", "directory", "pipe"}) {
        SCOPED_TRACE(name);
        const std::unique_ptr<Upload> upload = store->beginUpload();
        ASSERT_EQ(upload->write("x", 1), StoreResult::Done);
        EXPECT_EQ(upload->commit(name), StoreResult::NameTaken);
    }
    EXPECT_EQ(namesOnDisk(), (Names{"directory", "link", "pipe"}));
    EXPECT_TRUE(fs::is_symlink(mServed / "link"));
    std::ifstream secret(mRoot / "secret");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(secret), {}), "secret");
}

TEST_F(FileStoreTest, StaysInItsDirectoryWhenThatIsMoved)
{
    put("file", "text");
    const std::unique_ptr<FileStore> store = openStore();
    fs::rename(mServed, mRoot / "elsewhere");
    fs::create_directory(mServed);
    put("other", "");
    EXPECT_EQ(namesIn(*store), Names{"file"});
}

}  // namespace filedrop
