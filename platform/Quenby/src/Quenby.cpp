// The JSON library's coming up and going down.

#include <Quenby/Quenby.h>

#include <qvSystem/LibInitCounter.h>

namespace qv::json
{
namespace
{

impl::LibInitCounter sInitCounter("quenby", true);

}  // namespace

void initializeQvQuenby()
{
    sInitCounter.incrementInitCounter();
}

void terminateQvQuenby()
{
    sInitCounter.decrementInitCounter();
}

bool IsQvQuenbyInitialized()
{
    return sInitCounter.isInitialized();
}

}  // namespace qv::json
