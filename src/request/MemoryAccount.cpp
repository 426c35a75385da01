// The public handle of a server's memory budget.

#include <Wendrel/MemoryAccount.h>

#include "request/ConnectionRecord.h"
#include "request/DispatchAccess.h"
#include "request/MemoryBudget.h"

#include <limits>

namespace qv
{

using impl::DispatchAccess;

MemoryAccount::MemoryAccount() = default;

MemoryAccount::MemoryAccount(uint64_t limitBytes)
    : mBudget(std::make_shared<impl::MemoryBudget>(limitBytes))
{}

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

void MemoryAccount::chargeAlways(uint64_t bytes) const
{
    if (mBudget)
        mBudget->charge(bytes);
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

uint64_t MemoryAccount::getUsedBytes() const
{
    return mBudget ? mBudget->getUsedBytes() : 0;
}

uint64_t MemoryAccount::getLimitBytes() const
{
    return mBudget ? mBudget->getLimitBytes() : std::numeric_limits<uint64_t>::max();
}

}  // namespace qv
