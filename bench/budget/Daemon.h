// A fake of the daemon with minimal cost: each MHD_ function that the library calls, with fixed
// memory. The program that links it does not use libmicrohttpd.
#ifndef WENDREL_BENCH_BUDGET_DAEMON_H
#define WENDREL_BENCH_BUDGET_DAEMON_H

#include <microhttpd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include <netinet/in.h>

// A value of a request's head.
struct HeadValue
{
    MHD_ValueKind kind;
    const char* name;
    const char* value;
};

struct MHD_Daemon
{
    MHD_DaemonInfo info;
};

// The one response there is at a time.
struct MHD_Response
{
    static constexpr size_t kBodyCapacityBytes = 256;

    std::array<char, kBodyCapacityBytes> body;
    size_t bodyBytes;
    uint64_t declaredBytes;
    MHD_ContentReaderCallback reader;
    void* closure;
    unsigned int headers;
};

// A connection and its request.
struct MHD_Connection
{
    explicit MHD_Connection(std::span<const HeadValue> head);

    std::span<const HeadValue> values;
    sockaddr_in client{};
    MHD_ConnectionInfo info{};
    unsigned int status = 0;                 // of the response; 0: none was queued
    const MHD_Response* response = nullptr;  // likewise; stays readable
};

#endif
