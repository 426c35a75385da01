// The connection of a request in event-driven mode, as its body devices see it.
#ifndef WENDREL_REQUEST_CONNECTIONRECORD_H
#define WENDREL_REQUEST_CONNECTIONRECORD_H

#include <memory>

namespace qv::impl
{

class MemoryBudget;

// The first two operations are called once for each suspension, by any thread, with the mutex held
// under which the connection was suspended: it cannot be closed meanwhile.
class ConnectionRecord
{
public:
    virtual ~ConnectionRecord() = default;

    // The daemon thread calls the dispatch or the content reader again.
    virtual void resume() = 0;

    // The same after a pause of the upload: the deadlines of the body run again.
    virtual void continueUpload() = 0;

    // The response is complete and announced: the rest of the body is discarded. Called once for
    // each request, by any thread, with the response device's mutex held and the request not
    // completed.
    virtual void discardUpload() = 0;

    // Of the server; null without a limit. Any thread, while the connection exists.
    virtual std::shared_ptr<MemoryBudget> getMemoryBudget() const { return nullptr; }
};

}  // namespace qv::impl

#endif
