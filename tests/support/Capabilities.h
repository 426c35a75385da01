// Permissions of files that count for the superuser, too.
#ifndef WENDREL_TESTS_SUPPORT_CAPABILITIES_H
#define WENDREL_TESTS_SUPPORT_CAPABILITIES_H

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace qv::tests
{

// As long as it exists this thread, and for good each that it starts meanwhile, has no more access
// to files than their permissions say.
class PermissionsCount
{
public:
    PermissionsCount()
    {
        if (::syscall(SYS_capget, &mHeader, mBefore.data()) != 0)
            throw std::runtime_error("capget");
        auto without = mBefore;
        without[0].effective &= ~((1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH));
        if (::syscall(SYS_capset, &mHeader, without.data()) != 0)
            throw std::runtime_error("capset");
    }

    ~PermissionsCount() { ::syscall(SYS_capset, &mHeader, mBefore.data()); }

    PermissionsCount(const PermissionsCount&) = delete;
    PermissionsCount& operator=(const PermissionsCount&) = delete;

private:
    __user_cap_header_struct mHeader{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> mBefore{};
};

}  // namespace qv::tests

#endif
