/// Memory that an application holds for clients, counted within the budget of the server.
#ifndef WENDREL_MEMORYACCOUNT_H
#define WENDREL_MEMORYACCOUNT_H

#include <Wendrel/Export.h>

#include <cstdint>
#include <memory>

namespace qv
{

class HttpBaseRequest;

namespace impl
{
class MemoryBudget;
}

/// Access to the budget that uploads and queues of a server share:
/// `ServerOptions::memoryBudgetBytes`.
///
/// For memory of an application that slow clients make it hold. Copies are handles of the same
/// budget, which lives as long as a handle. Its operations allocate nothing; any thread, no lock,
/// except for `of`.
class WENDREL_EXPORT MemoryAccount
{
public:
    /// Of no budget: everything fits.
    MemoryAccount();

    /// A budget of its own, of `limitBytes`. Allocates it.
    explicit MemoryAccount(uint64_t limitBytes);

    /// The budget of the server that serves `request`. Of no budget in polling mode, with a
    /// `memoryBudgetBytes` of 0, and once the request is completed. Any thread that holds no mutex
    /// of the request, while the request exists.
    static MemoryAccount of(HttpBaseRequest& request);

    /// Counts `bytes`, to be given back by `credit`. False, and nothing counted, when they exceed
    /// the free memory. 0 bytes always fit.
    bool charge(uint64_t bytes) const;

    /// The same, also when they exceed the free memory: of memory that is there already.
    void chargeAlways(uint64_t bytes) const;

    /// `bytes` of earlier charges are free again; each byte once.
    void credit(uint64_t bytes) const;

    /// Whether a `charge` of so many bytes would succeed at this moment.
    bool hasSpace(uint64_t bytes) const;

    /// Bytes that are charged now, by all handles and by uploads; 0 without a budget.
    uint64_t getUsedBytes() const;

    /// The budget, in bytes; the maximum of the type without one.
    uint64_t getLimitBytes() const;

private:
    std::shared_ptr<impl::MemoryBudget> mBudget;  // null: none
};

}  // namespace qv

#endif
