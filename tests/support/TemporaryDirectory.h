// A directory for the files of one test.
#ifndef WENDREL_TESTS_SUPPORT_TEMPORARYDIRECTORY_H
#define WENDREL_TESTS_SUPPORT_TEMPORARYDIRECTORY_H

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace qv::tests
{

// Empty at first. The destructor removes it with its contents.
class TemporaryDirectory
{
public:
    TemporaryDirectory()
    {
        std::string path = std::filesystem::temp_directory_path() / "wendrel-test-XXXXXX";
        if (::mkdtemp(path.data()) == nullptr)
            throw std::runtime_error("cannot create " + path);
        mPath = path;
    }

    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }

    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return mPath; }
    std::string operator/(const std::string& name) const { return mPath / name; }

private:
    std::filesystem::path mPath;
};

}  // namespace qv::tests

#endif
