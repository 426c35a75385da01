// Bringing the library up and down.

#include <Wendrel/Wendrel.h>

#include <Wendrel/HttpRequest.h>

#include <Ostrand/Ostrand.h>
#include <Quenby/Quenby.h>
#include <qvSystem/LibInitCounter.h>

#include <microhttpd.h>

namespace qv
{
namespace
{

constexpr const char* kDaemonName = "libmicrohttpd";

// Counts before any static object is made.
constinit impl::LibInitCounter sInitCounter("wendrel", true);

}  // namespace

void initializeWendrel()
{
    if (!sInitCounter.incrementInitCounter())
        return;
    initializeOstrand(std::string());
    json::initializeQvQuenby();
    HttpBaseRequest::InitRequestTypes();
    impl::RegisterThirdPartyLibVersionInfo(kDaemonName, MHD_get_version());
}

void terminateWendrel()
{
    if (!sInitCounter.decrementInitCounter())
        return;
    impl::UnRegisterThirdPartyLibVersionInfo(kDaemonName);
    HttpBaseRequest::ClearRequestTypes();
    json::terminateQvQuenby();
    terminateOstrand();
}

bool IsWendrelInitialized()
{
    return sInitCounter.isInitialized();
}

}  // namespace qv
