// Preloaded into a server: leaks with each accepted connection. WENDREL_LEAK holds any of
// "descriptors", "threads" and "memory". The tests of the soak check that each leak is detected.

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr size_t kLostBytes = 8192;

bool isLost(const char* what)
{
    const char* all = std::getenv("WENDREL_LEAK");
    return all != nullptr && std::strstr(all, what) != nullptr;
}

void* sleepForEver(void*)
{
    while (true)
        pause();
    return nullptr;
}

void lose()
{
    if (isLost("descriptors"))
        static_cast<void>(open("/dev/null", O_RDONLY | O_CLOEXEC));
    pthread_t thread;
    if (isLost("threads") && pthread_create(&thread, nullptr, sleepForEver, nullptr) == 0)
        pthread_detach(thread);
    if (isLost("memory")) {
        void* volatile lost = std::malloc(kLostBytes);
        if (lost != nullptr)
            std::memset(lost, 1, kLostBytes);
    }
}

}  // namespace

extern "C" int accept4(int listening, sockaddr* address, socklen_t* length, int flags)
{
    using Accept = int (*)(int, sockaddr*, socklen_t*, int);
    static const auto real = reinterpret_cast<Accept>(dlsym(RTLD_NEXT, "accept4"));
    const int accepted = real(listening, address, length, flags);
    if (accepted >= 0)
        lose();
    return accepted;
}
