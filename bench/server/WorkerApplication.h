// The pages of the benchmark, served by the workers of the kit.
#ifndef BENCH_SERVER_WORKERAPPLICATION_H
#define BENCH_SERVER_WORKERAPPLICATION_H

#include "support/Options.h"

#include <Wendrel/kit/Application.h>
#include <Wendrel/kit/WebSocketHub.h>

namespace bench
{

class WorkerApplication : public qv::kit::Application
{
public:
    explicit WorkerApplication(const bench::Options& options);

protected:
    void onNewWebSocket(qv::http::WebSocket* socket) override;
    void onServerStopped() override;

private:
    void addRoutes();

    qv::kit::WebSocketHub mHub;
};

// Serves until the process is told to stop; false when it could not listen.
bool serveWithWorkers(const bench::Options& options);

}  // namespace bench

#endif
