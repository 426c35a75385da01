// The pages of the benchmark, served by workers. Until the response is ready each poll of the
// daemon returns at once, or the connection is suspended.

#include "bare/WorkerHandler.h"

#include "bare/Reply.h"
#include "bare/Upgrade.h"

namespace bench
{
namespace
{

MHD_Result begin(WorkerService& service, MHD_Connection* connection, const char* path,
                 const char* method, void** slot)
{
    if (service.echo && asksForUpgrade(connection))
        return acceptUpgrade(connection, *service.echo);
    auto* exchange =
        new Exchange(questionOf(connection, method, path), service.suspends ? connection : nullptr);
    *slot = exchange;
    service.queue.push(exchange);
    return MHD_YES;
}

MHD_Result handle(void* closure, MHD_Connection* connection, const char* path, const char* method,
                  const char*, const char* data, size_t* size, void** slot)
{
    if (!*slot)
        return begin(*static_cast<WorkerService*>(closure), connection, path, method, slot);
    auto& exchange = *static_cast<Exchange*>(*slot);
    exchange.feed(data, *size);
    if (*size != 0) {
        *size = 0;
        return MHD_YES;
    }
    MHD_Response* response = exchange.takeResponse();
    return response ? queueAndDestroy(connection, exchange.getStatus(), response) : MHD_YES;
}

void completed(void*, MHD_Connection*, void** slot, MHD_RequestTerminationCode)
{
    auto* exchange = static_cast<Exchange*>(*slot);
    *slot = nullptr;
    if (!exchange)
        return;
    exchange->lost();
    exchange->release();
}

}  // namespace

Handlers workerHandlers(WorkerService& service)
{
    return {&handle, &completed, &service};
}

}  // namespace bench
