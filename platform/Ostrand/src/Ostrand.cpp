// The HTTP helper library's coming up and going down.

#include <Ostrand/Ostrand.h>

#include <qvSystem/LibInitCounter.h>

#include <boost/version.hpp>

namespace qv
{
namespace
{

constexpr const char* kUrlLibrary = "Boost.URL";

impl::LibInitCounter sInitCounter("ostrand", true);

// "1_81" as "1.81".
std::string boostVersion()
{
    std::string text = BOOST_LIB_VERSION;
    for (char& c : text) {
        if (c == '_')
            c = '.';
    }
    return text;
}

}  // namespace

void initializeOstrand(const std::string&)
{
    if (sInitCounter.incrementInitCounter())
        impl::RegisterThirdPartyLibVersionInfo(kUrlLibrary, boostVersion().c_str());
}

void terminateOstrand()
{
    if (sInitCounter.decrementInitCounter())
        impl::UnRegisterThirdPartyLibVersionInfo(kUrlLibrary);
}

bool IsOstrandInitialized()
{
    return sInitCounter.isInitialized();
}

}  // namespace qv
