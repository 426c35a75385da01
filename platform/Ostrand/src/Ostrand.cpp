// The HTTP helper library's coming up and going down.

#include <Ostrand/Ostrand.h>

#include <qvSystem/LibInitCounter.h>

namespace qv
{
namespace
{

// Made on first use and never destroyed: static objects of an application may call this library
// before its own are made and after they have been destroyed.
impl::LibInitCounter& initCounter()
{
    static impl::LibInitCounter& counter = *new impl::LibInitCounter("ostrand", true);
    return counter;
}

}  // namespace

void initializeOstrand(const std::string&)
{
    initCounter().incrementInitCounter();
}

void terminateOstrand()
{
    initCounter().decrementInitCounter();
}

bool IsOstrandInitialized()
{
    return initCounter().isInitialized();
}

}  // namespace qv
