// Descriptors that run out.
#ifndef WENDREL_TESTS_SUPPORT_DESCRIPTORS_H
#define WENDREL_TESTS_SUPPORT_DESCRIPTORS_H

#include <sys/resource.h>
#include <unistd.h>

#include <stdexcept>

namespace qv::tests
{

// As long as it exists the process gets no descriptor but the `left` lowest that are free.
class NoDescriptors
{
public:
    explicit NoDescriptors(rlim_t left = 0)
    {
        const int lowest = ::dup(STDERR_FILENO);
        ::close(lowest);
        if (lowest < 0 || ::getrlimit(RLIMIT_NOFILE, &mBefore) != 0)
            throw std::runtime_error("no descriptor");
        const rlimit none{static_cast<rlim_t>(lowest) + left, mBefore.rlim_max};
        if (::setrlimit(RLIMIT_NOFILE, &none) != 0)
            throw std::runtime_error("cannot lower the limit of descriptors");
    }

    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &mBefore); }

    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit mBefore{};
};

}  // namespace qv::tests

#endif
