// The functions take the place of those of the system in the whole program.

#include "FailingLoop.h"

#include <support/TestsOwn.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define WENDREL_TESTS_OWN_MALLOC 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define WENDREL_TESTS_OWN_MALLOC 0
#endif
#endif
#ifndef WENDREL_TESTS_OWN_MALLOC
#define WENDREL_TESTS_OWN_MALLOC 1
#endif

#if WENDREL_TESTS_OWN_MALLOC
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void __libc_free(void* memory);
}
#endif

namespace websockettests
{
namespace
{

constinit thread_local bool tIsLoop = false;
constinit thread_local bool tIsChosen = false;
std::atomic<bool> gOnLoops{false};
std::atomic<int> gKind{-1};
std::atomic<size_t> gNumber{0};
std::atomic<size_t> gCalls{0};
std::atomic<bool> gAndAllLater{false};
std::atomic<bool> gHasFailed{false};

bool failsNow(Failing kind)
{
    if (!(gOnLoops ? tIsLoop : tIsChosen) ||
        gKind.load(std::memory_order_relaxed) != static_cast<int>(kind) ||
        qv::tests::TestsOwn::isActive())
        return false;
    const size_t call = ++gCalls;
    const bool fails = call == gNumber || (gAndAllLater && call > gNumber);
    if (fails)
        gHasFailed = true;
    return fails;
}

int fail(int error)
{
    errno = error;
    return -1;
}

template <typename Function> Function* realOf(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

const char* nameOf(Failing kind)
{
    constexpr const char* kNames[] = {
        "new",     "malloc",       "epoll_create1", "epoll_ctl",     "epoll_wait", "eventfd",
        "sendmsg", "full sendmsg", "short sendmsg", "recv",          "empty recv", "short recv",
        "read",    "setsockopt",   "shutdown",      "pthread_create"};
    return kNames[static_cast<size_t>(kind)];
}

bool canFailMalloc()
{
    return WENDREL_TESTS_OWN_MALLOC;
}

FailNth::FailNth(Failing kind, size_t number, bool andAllLater, On threads)
{
    gOnLoops = threads == On::Loops;
    tIsChosen = threads == On::ThisThread;
    gHasFailed = false;
    gCalls = 0;
    gNumber = number;
    gAndAllLater = andAllLater;
    gKind = static_cast<int>(kind);
}

FailNth::~FailNth()
{
    gKind = -1;
    tIsChosen = false;
}

bool FailNth::hasFailed()
{
    return gHasFailed;
}

namespace
{

void* allocate(size_t size)
{
#if WENDREL_TESTS_OWN_MALLOC
    return __libc_malloc(std::max<size_t>(size, 1));
#else
    return std::malloc(std::max<size_t>(size, 1));
#endif
}

void* allocateOrThrow(size_t size)
{
    void* const memory = failsNow(Failing::New) ? nullptr : allocate(size);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void release(void* memory)
{
#if WENDREL_TESTS_OWN_MALLOC
    __libc_free(memory);
#else
    std::free(memory);
#endif
}

}  // namespace
}  // namespace websockettests

using websockettests::fail;
using websockettests::Failing;
using websockettests::failsNow;
using websockettests::realOf;

void* operator new(size_t size)
{
    return websockettests::allocateOrThrow(size);
}

void* operator new[](size_t size)
{
    return websockettests::allocateOrThrow(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return failsNow(Failing::New) ? nullptr : websockettests::allocate(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept
{
    return failsNow(Failing::New) ? nullptr : websockettests::allocate(size);
}

void operator delete(void* memory) noexcept
{
    websockettests::release(memory);
}

void operator delete[](void* memory) noexcept
{
    websockettests::release(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    websockettests::release(memory);
}

void operator delete[](void* memory, size_t) noexcept
{
    websockettests::release(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    websockettests::release(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    websockettests::release(memory);
}

extern "C" {

#if WENDREL_TESTS_OWN_MALLOC

void* malloc(size_t size)
{
    if (failsNow(Failing::Malloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    if (failsNow(Failing::Malloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size)
{
    if (failsNow(Failing::Malloc)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_realloc(memory, size);
}

void free(void* memory)
{
    __libc_free(memory);
}

#endif

int epoll_create1(int flags) noexcept
{
    static auto* const real = realOf<int(int)>("epoll_create1");
    return failsNow(Failing::EpollCreate) ? fail(EMFILE) : real(flags);
}

int epoll_ctl(int set, int operation, int descriptor, epoll_event* event) noexcept
{
    static auto* const real = realOf<int(int, int, int, epoll_event*)>("epoll_ctl");
    return failsNow(Failing::EpollControl) ? fail(ENOSPC) : real(set, operation, descriptor, event);
}

// Only event loops call it: from now on this is the thread of one.
int epoll_wait(int set, epoll_event* events, int count, int timeout)
{
    static auto* const real = realOf<int(int, epoll_event*, int, int)>("epoll_wait");
    websockettests::tIsLoop = true;
    return failsNow(Failing::EpollWait) ? fail(EINTR) : real(set, events, count, timeout);
}

int eventfd(unsigned int value, int flags) noexcept
{
    static auto* const real = realOf<int(unsigned int, int)>("eventfd");
    return failsNow(Failing::EventFd) ? fail(EMFILE) : real(value, flags);
}

ssize_t sendmsg(int descriptor, const msghdr* message, int flags)
{
    static auto* const real = realOf<ssize_t(int, const msghdr*, int)>("sendmsg");
    if (failsNow(Failing::Send))
        return fail(ECONNRESET);
    if (failsNow(Failing::SendBlocked))
        return fail(EAGAIN);
    if (!failsNow(Failing::SendOneByte))
        return real(descriptor, message, flags);
    iovec* part = message->msg_iov;
    while (part->iov_len == 0)
        ++part;
    iovec byte{part->iov_base, 1};
    msghdr shortened{};
    shortened.msg_iov = &byte;
    shortened.msg_iovlen = 1;
    return real(descriptor, &shortened, flags);
}

ssize_t recv(int descriptor, void* bytes, size_t size, int flags)
{
    static auto* const real = realOf<ssize_t(int, void*, size_t, int)>("recv");
    if (failsNow(Failing::Receive))
        return fail(ECONNRESET);
    if (failsNow(Failing::ReceiveNothing))
        return fail(EINTR);
    return real(descriptor, bytes, failsNow(Failing::ReceiveOneByte) ? 1 : size, flags);
}

ssize_t read(int descriptor, void* bytes, size_t size)
{
    static auto* const real = realOf<ssize_t(int, void*, size_t)>("read");
    return failsNow(Failing::ReadEvent) ? fail(EINTR) : real(descriptor, bytes, size);
}

int setsockopt(int descriptor, int level, int name, const void* value, socklen_t size) noexcept
{
    static auto* const real = realOf<int(int, int, int, const void*, socklen_t)>("setsockopt");
    return failsNow(Failing::SetOption) ? fail(ENOPROTOOPT)
                                        : real(descriptor, level, name, value, size);
}

int shutdown(int descriptor, int how) noexcept
{
    static auto* const real = realOf<int(int, int)>("shutdown");
    return failsNow(Failing::ShutDown) ? fail(ENOTCONN) : real(descriptor, how);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept
{
    static auto* const real =
        realOf<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    if (failsNow(Failing::StartThread))
        return EAGAIN;
    return real(thread, attributes, start, argument);
}
}
