/// Messages of a server to a service manager: systemd with Type=notify.
#ifndef WENDREL_KIT_SERVICEMANAGER_H
#define WENDREL_KIT_SERVICEMANAGER_H

#include <chrono>
#include <memory>
#include <string_view>

namespace qv::kit
{

class Server;

/// Tells the service manager that has started this process when the server serves, stops, and
/// lives. `Server::run` has one; a program with a main loop of its own makes it beside its server.
/// Without a service manager (no `NOTIFY_SOCKET` in the environment) it does nothing.
///
/// Used by one thread. No operation waits or throws; a message that cannot be sent is lost.
class ServiceManager
{
public:
    /// `server` outlives this.
    explicit ServiceManager(Server& server);
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;
    /// Ends the watchdog.
    ~ServiceManager();

    /// Whether a service manager listens.
    static bool isPresent();

    /// The server has started: READY=1, with its URLs as the status. From then on, with
    /// WatchdogSec= in the unit, WATCHDOG=1 after each quarter of that time in which the threads of
    /// the server have done a turn: see `Server::countTurns`. A thread of its own looks at them;
    /// when the system has none to give, a line is logged and the watchdog fires.
    void ready();

    /// Files are read again, until `ready`: RELOADING=1.
    void reloading();

    /// The stop begins: STOPPING=1. The watchdog does not fire any more: TimeoutStopSec= limits the
    /// stop.
    void stopping();

    /// A line for `systemctl status`: STATUS=.
    void status(std::string_view line);

private:
    class Watchdog;

    Server& mServer;
    std::unique_ptr<Watchdog> mWatchdog;  // null: none
};

}  // namespace qv::kit

#endif
