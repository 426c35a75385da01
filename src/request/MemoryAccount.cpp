// The public handle of a server's memory budget.

#include <Wendrel/MemoryAccount.h>

#include "request/ConnectionRecord.h"
#include "request/DispatchAccess.h"
#include "request/MemoryBudget.h"

namespace qv
{

using impl::DispatchAccess;

MemoryAccount::MemoryAccount() = default;

// The connection may be deleted once the request is completed, which takes the mutex.
MemoryAccount MemoryAccount::of(HttpBaseRequest& request)
{
    MemoryAccount account;
    const qvMutexLocker locker(&DispatchAccess::mutex(request.getResponseDevice()));
    impl::ConnectionRecord* const record = DispatchAccess::record(request);
    if (record && !DispatchAccess::completed(request))
        account.mBudget = record->getMemoryBudget();
    return account;
}

bool MemoryAccount::charge(uint64_t bytes) const
{
    return !mBudget || mBudget->chargeIfFree(bytes);
}

void MemoryAccount::credit(uint64_t bytes) const
{
    if (mBudget)
        mBudget->credit(bytes);
}

bool MemoryAccount::hasSpace(uint64_t bytes) const
{
    return !mBudget || bytes <= mBudget->getFreeBytes();
}

}  // namespace qv
