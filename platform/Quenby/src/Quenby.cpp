// The JSON library's coming up and going down.

#include <Quenby/Quenby.h>

#include <qvSystem/LibInitCounter.h>

namespace qv::json
{
namespace
{

// Made on first use and never destroyed: static objects of an application may come here
// before ours are made and after they are freed.
impl::LibInitCounter& initCounter()
{
    static impl::LibInitCounter& counter = *new impl::LibInitCounter("quenby", true);
    return counter;
}

}  // namespace

void initializeQvQuenby()
{
    initCounter().incrementInitCounter();
}

void terminateQvQuenby()
{
    initCounter().decrementInitCounter();
}

bool IsQvQuenbyInitialized()
{
    return initCounter().isInitialized();
}

}  // namespace qv::json
