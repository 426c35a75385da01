// An application whose static object initialises the library. Its own object file comes first in
// the link, so that its static objects are made before those of a static library, and destroyed
// after them. Exit code 0: the library noticed none of this.

#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/Wendrel.h>

#include <cstdio>

#include <unistd.h>

namespace
{

constexpr size_t kMethods = 9;

// Without standard streams: they may not be there yet, or any more.
void expect(bool condition, const char* promise)
{
    if (condition)
        return;
    dprintf(STDERR_FILENO, "not true: %s\n", promise);
    _exit(1);
}

void expectUp(const char* when)
{
    dprintf(STDERR_FILENO, "%s\n", when);
    using Request = qv::HttpBaseRequest;
    expect(qv::IsWendrelInitialized(), "the library is initialised");
    expect(Request::sRequestTypes.size() == kMethods, "the method table is filled");
    expect(Request::sRequestTypes.count("PATCH") == 1, "a method is in the table");
    expect(Request::RequestTypeToString(Request::GET) == "GET", "a method has its text");
    expect(Request::RequestTypeBitFieldToString(3) == "OPTIONS,UNKNOWN_HTTP_METHOD",
           "a set of methods has its text");
}

class EarlyApplication
{
public:
    EarlyApplication()
    {
        expect(!qv::IsWendrelInitialized(), "nobody has initialised the library");
        expect(qv::HttpBaseRequest::sRequestTypes.empty(), "the method table is empty at first");
        qv::initializeWendrel();
        expectUp("before main");
    }
    ~EarlyApplication()
    {
        expectUp("after main");
        qv::terminateWendrel();
        expect(!qv::IsWendrelInitialized(), "the library is down");
        expect(qv::HttpBaseRequest::sRequestTypes.empty(), "the method table is empty at last");
    }
};

const EarlyApplication sApplication;

}  // namespace

int main()
{
    expectUp("in main");
    qv::initializeWendrel();
    qv::terminateWendrel();
    expectUp("after a nested initialisation");
    return 0;
}
