// The functions take the place of those of the system and of the daemon in the whole program.

#include "FailingSystem.h"

#include <microhttpd.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>

namespace integration
{
namespace
{

constexpr size_t kCalls = static_cast<size_t>(SystemCall::StartThread) + 1;

struct Plan
{
    std::atomic<size_t> number{0};  // 0: none fails
    std::atomic<size_t> calls{0};
};
Plan gPlans[kCalls];
std::atomic<pthread_t> gThread{};

Plan& planOf(SystemCall call)
{
    return gPlans[static_cast<size_t>(call)];
}

bool isOfTheLibrary(void* caller)
{
    Dl_info info{};
    return ::dladdr(caller, &info) != 0 && info.dli_fname &&
           std::strstr(info.dli_fname, "/libWendrel.so");
}

bool failsNow(SystemCall call, bool isCounted)
{
    Plan& plan = planOf(call);
    return isCounted && plan.calls.fetch_add(1) + 1 == plan.number;
}

bool failsNow(SystemCall call, void* caller)
{
    return failsNow(call, isOfTheLibrary(caller));
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

const char* nameOf(SystemCall call)
{
    constexpr const char* kNames[] = {
        "MHD_add_connection",
        "MHD_start_daemon",
        "MHD_create_response_...",
        "MHD_queue_response",
        "epoll_create1",
        "epoll_ctl",
        "epoll_wait",
        "eventfd",
        "accept4",
        "socket",
        "socketpair",
        "fcntl(F_DUPFD_CLOEXEC)",
        "dup3",
        "shutdown",
        "pthread_create",
    };
    return kNames[static_cast<size_t>(call)];
}

size_t countCalls(SystemCall call)
{
    return planOf(call).calls;
}

FailNth::FailNth(SystemCall call, size_t number) : mCall(call), mNumber(number)
{
    gThread = ::pthread_self();
    planOf(call).calls = 0;
    planOf(call).number = number;
}

FailNth::~FailNth()
{
    planOf(mCall).number = 0;
}

size_t FailNth::calls() const
{
    return countCalls(mCall);
}

}  // namespace integration

using integration::fail;
using integration::failsNow;
using integration::realOf;
using integration::SystemCall;

#define QV_CALLER __builtin_return_address(0)

extern "C" {

// The daemon owns the descriptor also when it does not take it.
MHD_Result MHD_add_connection(MHD_Daemon* daemon, MHD_socket client, const sockaddr* address,
                              socklen_t size)
{
    static auto* const real = realOf<decltype(MHD_add_connection)>("MHD_add_connection");
    if (failsNow(SystemCall::AddConnection, QV_CALLER)) {
        ::close(client);
        errno = ENOMEM;
        return MHD_NO;
    }
    return real(daemon, client, address, size);
}

MHD_Daemon* MHD_start_daemon(unsigned int flags, uint16_t port, MHD_AcceptPolicyCallback policy,
                             void* policyClosure, MHD_AccessHandlerCallback handler,
                             void* handlerClosure, ...)
{
    if (failsNow(SystemCall::StartDaemon, QV_CALLER)) {
        errno = ENOMEM;
        return nullptr;
    }
    va_list options;
    va_start(options, handlerClosure);
    MHD_Daemon* const daemon =
        MHD_start_daemon_va(flags, port, policy, policyClosure, handler, handlerClosure, options);
    va_end(options);
    return daemon;
}

MHD_Response* MHD_create_response_from_callback(uint64_t size, size_t block,
                                                MHD_ContentReaderCallback reader, void* closure,
                                                MHD_ContentReaderFreeCallback release)
{
    static auto* const real =
        realOf<decltype(MHD_create_response_from_callback)>("MHD_create_response_from_callback");
    if (failsNow(SystemCall::CreateResponse, QV_CALLER))
        return nullptr;
    return real(size, block, reader, closure, release);
}

MHD_Response* MHD_create_response_from_buffer(size_t size, void* buffer,
                                              MHD_ResponseMemoryMode mode)
{
    static auto* const real =
        realOf<decltype(MHD_create_response_from_buffer)>("MHD_create_response_from_buffer");
    if (failsNow(SystemCall::CreateResponse, QV_CALLER))
        return nullptr;
    return real(size, buffer, mode);
}

MHD_Response* MHD_create_response_from_buffer_with_free_callback_cls(
    size_t size, void* buffer, MHD_ContentReaderFreeCallback release, void* closure)
{
    static auto* const real =
        realOf<decltype(MHD_create_response_from_buffer_with_free_callback_cls)>(
            "MHD_create_response_from_buffer_with_free_callback_cls");
    if (failsNow(SystemCall::CreateResponse, QV_CALLER))
        return nullptr;
    return real(size, buffer, release, closure);
}

MHD_Response* MHD_create_response_for_upgrade(MHD_UpgradeHandler handler, void* closure)
{
    static auto* const real =
        realOf<decltype(MHD_create_response_for_upgrade)>("MHD_create_response_for_upgrade");
    if (failsNow(SystemCall::CreateResponse, QV_CALLER))
        return nullptr;
    return real(handler, closure);
}

MHD_Result MHD_queue_response(MHD_Connection* connection, unsigned int status,
                              MHD_Response* response)
{
    static auto* const real = realOf<decltype(MHD_queue_response)>("MHD_queue_response");
    if (failsNow(SystemCall::QueueResponse, QV_CALLER))
        return MHD_NO;
    return real(connection, status, response);
}

int epoll_create1(int flags) noexcept
{
    static auto* const real = realOf<int(int)>("epoll_create1");
    return failsNow(SystemCall::EpollCreate, QV_CALLER) ? fail(EMFILE) : real(flags);
}

int epoll_ctl(int set, int operation, int descriptor, epoll_event* event) noexcept
{
    static auto* const real = realOf<int(int, int, int, epoll_event*)>("epoll_ctl");
    return failsNow(SystemCall::EpollControl, QV_CALLER) ? fail(ENOSPC)
                                                         : real(set, operation, descriptor, event);
}

int epoll_wait(int set, epoll_event* events, int count, int timeout)
{
    static auto* const real = realOf<int(int, epoll_event*, int, int)>("epoll_wait");
    return failsNow(SystemCall::EpollWait, QV_CALLER) ? fail(EINTR)
                                                      : real(set, events, count, timeout);
}

int eventfd(unsigned int value, int flags) noexcept
{
    static auto* const real = realOf<int(unsigned int, int)>("eventfd");
    return failsNow(SystemCall::EventFd, QV_CALLER) ? fail(EMFILE) : real(value, flags);
}

int accept4(int descriptor, sockaddr* __restrict address, socklen_t* __restrict size, int flags)
{
    static auto* const real = realOf<int(int, sockaddr*, socklen_t*, int)>("accept4");
    return failsNow(SystemCall::Accept, QV_CALLER) ? fail(EMFILE)
                                                   : real(descriptor, address, size, flags);
}

int socket(int domain, int type, int protocol) noexcept
{
    static auto* const real = realOf<int(int, int, int)>("socket");
    return failsNow(SystemCall::Socket, QV_CALLER) ? fail(EMFILE) : real(domain, type, protocol);
}

int socketpair(int domain, int type, int protocol, int pair[2]) noexcept
{
    static auto* const real = realOf<int(int, int, int, int*)>("socketpair");
    return failsNow(SystemCall::SocketPair, QV_CALLER) ? fail(EMFILE)
                                                       : real(domain, type, protocol, pair);
}

// Every command of the library takes an integer or nothing.
int fcntl(int descriptor, int command, ...)
{
    static auto* const real = realOf<int(int, int, ...)>("fcntl");
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (command == F_DUPFD_CLOEXEC && failsNow(SystemCall::DuplicateDescriptor, QV_CALLER))
        return fail(EMFILE);
    return real(descriptor, command, argument);
}

int dup3(int from, int to, int flags) noexcept
{
    static auto* const real = realOf<int(int, int, int)>("dup3");
    return failsNow(SystemCall::ReplaceDescriptor, QV_CALLER) ? fail(EBUSY) : real(from, to, flags);
}

int shutdown(int descriptor, int how) noexcept
{
    static auto* const real = realOf<int(int, int)>("shutdown");
    return failsNow(SystemCall::ShutDown, QV_CALLER) ? fail(ENOTCONN) : real(descriptor, how);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept
{
    static auto* const real =
        realOf<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    if (failsNow(SystemCall::StartThread,
                 ::pthread_equal(integration::gThread, ::pthread_self()) != 0))
        return EAGAIN;
    return real(thread, attributes, start, argument);
}
}
