// Files below a directory, with openat2 and without it.

#include "Beneath.h"

#include <support/Capabilities.h>
#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace qv::kit
{
namespace
{

namespace fs = std::filesystem;

using Open = std::function<FileDescriptor(int, const std::string&, SymbolicLinks)>;

// openat2 fails in this thread from now on.
bool forbidOpenat2(int error)
{
    std::array<sock_filter, 4> program{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog filter{program.size(), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

class Beneath : public testing::Test
{
protected:
    Beneath()
    {
        write("secret", "secret");
        fs::create_directories(mDirectory / "root/a/b");
        write("root/file", "file");
        write("root/a/b/deep", "deep");
        fs::create_symlink("a/b/deep", mDirectory / "root/link");
        fs::create_symlink("../../file", mDirectory / "root/a/b/up");
        fs::create_symlink("a/b/", mDirectory / "root/to-directory");
        fs::create_symlink("file/", mDirectory / "root/file-as-directory");
        fs::create_symlink("../secret", mDirectory / "root/out");
        fs::create_symlink("a/../../secret", mDirectory / "root/out-by-a");
        fs::create_symlink("../root/file", mDirectory / "root/out-and-in");
        fs::create_symlink(mDirectory / "secret", mDirectory / "root/absolute");
        fs::create_symlink(mDirectory / "root/file", mDirectory / "root/absolute-within");
        fs::create_symlink("/proc/self/root", mDirectory / "root/magic");
        fs::create_symlink("..", mDirectory / "root/parent");
        fs::create_symlink("loop", mDirectory / "root/loop");
        fs::create_symlink("missing", mDirectory / "root/dangling");
        mRoot =
            FileDescriptor(open((mDirectory / "root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }

    void write(const std::string& name, const std::string& content) const
    {
        std::ofstream(mDirectory / name) << content;
    }

    // The content of the file, "directory", or the error.
    std::string read(const Open& open, const std::string& path, SymbolicLinks links) const
    {
        const FileDescriptor file = open(mRoot.get(), path, links);
        if (!file.isOpen())
            return "error " + std::to_string(errno);
        struct stat status
        {};
        if (fstat(file.get(), &status) != 0)
            return "no status";
        std::array<char, 100> bytes{};
        const ssize_t size = ::read(file.get(), bytes.data(), bytes.size());
        return S_ISDIR(status.st_mode) ? "directory"
                                       : std::string(bytes.data(), size < 0 ? 0 : size);
    }

    void check(const Open& open) const
    {
        const auto error = [](int number) { return "error " + std::to_string(number); };
        const struct
        {
            const char* path;
            std::string within;
            std::string refusing;
        } rows[] = {
            {"", "directory", "directory"},
            {"file", "file", "file"},
            {"a", "directory", "directory"},
            {"a/b/deep", "deep", "deep"},
            {"missing", error(ENOENT), error(ENOENT)},
            {"missing/file", error(ENOENT), error(ENOENT)},
            {"file/file", error(ENOTDIR), error(ENOTDIR)},
            {"link", "deep", error(ELOOP)},
            {"a/b/up", "file", error(ELOOP)},
            {"to-directory", "directory", error(ELOOP)},
            {"to-directory/deep", "deep", error(ELOOP)},
            {"to-directory/up", "file", error(ELOOP)},
            {"file-as-directory", error(ENOTDIR), error(ELOOP)},
            {"out", error(EXDEV), error(ELOOP)},
            {"out-by-a", error(EXDEV), error(ELOOP)},
            {"out-and-in", error(EXDEV), error(ELOOP)},
            {"absolute", error(EXDEV), error(ELOOP)},
            {"absolute-within", error(EXDEV), error(ELOOP)},
            {"magic/etc/passwd", error(EXDEV), error(ELOOP)},
            {"parent/secret", error(EXDEV), error(ELOOP)},
            {"parent", error(EXDEV), error(ELOOP)},
            {"loop", error(ELOOP), error(ELOOP)},
            {"dangling", error(ENOENT), error(ELOOP)},
            {"..", error(EXDEV), error(EXDEV)},
            {"a/../../secret", error(EXDEV), error(EXDEV)},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(row.path);
            EXPECT_EQ(read(open, row.path, SymbolicLinks::Within), row.within);
            EXPECT_EQ(read(open, row.path, SymbolicLinks::Refuse), row.refusing);
        }
        EXPECT_EQ(read(open, std::string(5000, 'x'), SymbolicLinks::Within), error(ENAMETOOLONG));
        EXPECT_EQ(read(open, std::string(300, 'x'), SymbolicLinks::Within), error(ENAMETOOLONG));
    }

    qv::tests::TemporaryDirectory mDirectory;
    FileDescriptor mRoot;
};

TEST_F(Beneath, OpensByTheSystem)
{
    check(&openBeneath);
}

TEST_F(Beneath, OpensNameByName)
{
    check(&walkBeneath);
}

TEST_F(Beneath, OpensWithoutOpenat2)
{
    for (const int error : {ENOSYS, EPERM}) {
        SCOPED_TRACE(error);
        std::thread([&] {
            ASSERT_TRUE(forbidOpenat2(error));
            EXPECT_EQ(syscall(SYS_openat2, 0, "", nullptr, 0), -1);
            EXPECT_EQ(errno, error);
            check(&openBeneath);
        }).join();
    }
}

// The permission to read it is not needed.
TEST_F(Beneath, OpensDirectoriesForTheirFilesAlone)
{
    const qv::tests::PermissionsCount permissions;
    fs::permissions(mDirectory / "root/a/b", fs::perms::owner_exec);
    const auto checkDirectories = [&] {
        const auto open = [&](const char* path, SymbolicLinks links) {
            return openDirectoryBeneath(mRoot.get(), path, links);
        };
        for (const char* path : {"", "a", "a/b", "to-directory"}) {
            SCOPED_TRACE(path);
            EXPECT_TRUE(open(path, SymbolicLinks::Within).isOpen());
        }
        EXPECT_FALSE(openBeneath(mRoot.get(), "a/b", SymbolicLinks::Within).isOpen());
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(read(&openBeneath, "a/b/deep", SymbolicLinks::Within), "deep");
        const struct
        {
            const char* path;
            SymbolicLinks links;
            int error;
        } rows[] = {
            {"file", SymbolicLinks::Within, ENOTDIR},
            {"missing", SymbolicLinks::Within, ENOENT},
            {"parent", SymbolicLinks::Within, EXDEV},
            {"to-directory", SymbolicLinks::Refuse, ELOOP},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(row.path);
            EXPECT_FALSE(open(row.path, row.links).isOpen());
            EXPECT_EQ(errno, row.error);
        }
    };
    checkDirectories();
    std::thread([&] {
        ASSERT_TRUE(forbidOpenat2(ENOSYS));
        checkDirectories();
    }).join();
    fs::permissions(mDirectory / "root/a/b", fs::perms::owner_all);
}

// A reader of a pipe without a writer would wait.
TEST_F(Beneath, DoesNotWaitForPipes)
{
    ASSERT_EQ(mkfifo((mDirectory / "root/pipe").c_str(), 0600), 0);
    EXPECT_EQ(read(&openBeneath, "pipe", SymbolicLinks::Within), "");
    EXPECT_EQ(read(&walkBeneath, "pipe", SymbolicLinks::Within), "");
}

// Links in a row: as many as the system itself follows.
TEST_F(Beneath, FollowsAtMostFortyLinks)
{
    for (int i = 0; i < 45; ++i)
        fs::create_symlink(i == 0 ? "file" : "chain" + std::to_string(i - 1),
                           mDirectory / ("root/chain" + std::to_string(i)));
    for (const Open& open : {Open(&openBeneath), Open(&walkBeneath)}) {
        EXPECT_EQ(read(open, "chain39", SymbolicLinks::Within), "file");
        EXPECT_EQ(read(open, "chain40", SymbolicLinks::Within), "error " + std::to_string(ELOOP));
    }
}

TEST_F(Beneath, LeavesNoDescriptorOpen)
{
    const auto count = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = count();
    check(&openBeneath);
    check(&walkBeneath);
    EXPECT_EQ(count(), before);
}

}  // namespace
}  // namespace qv::kit
