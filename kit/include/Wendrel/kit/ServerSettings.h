/// Options of a server as texts: names, help, values. For readers of command lines and files.
#ifndef WENDREL_KIT_SERVERSETTINGS_H
#define WENDREL_KIT_SERVERSETTINGS_H

#include <Wendrel/kit/Server.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

/// One option of a server; see `<Wendrel/kit/Configuration.h>` for a reader of all of them.
struct ServerSetting
{
    std::string name;      ///< "--threads"
    std::string value;     ///< "NUMBER"; empty: a switch, whose value is "true" or "false"
    std::string help;      ///< without a full stop
    std::string group;     ///< heading in the help
    std::string fallback;  ///< the default as it is shown; may be empty
    std::string needed;    ///< an option that must be given as well; empty: none
    bool isList = false;   ///< may be given several times

    /// Stores the values, at least one, of which an option that is no list takes the last. Returns
    /// why that is not possible: "'x' is no whole number"; empty on success.
    std::function<std::string(const std::vector<std::string>&)> set;

    /// An option that must not be given as well; empty: none. One on the command line replaces the
    /// other one of a file.
    std::string excluded;
};

/// All of them, with the values of `options` as defaults. `options` outlives them.
std::vector<ServerSetting> serverSettings(ServerOptions& options);

/// Reads a size in bytes: "512", "64K", "10M", "2G" or "1T", of 1024 each, with "B" or "iB" behind
/// it or not. Returns why that is not possible; empty on success.
std::string readSize(std::string_view text, uint64_t& bytes);

/// "64K" for 65536.
std::string sizeText(uint64_t bytes);

/// Reads a duration: "0", "250ms", "30s", "5m", "12h" or "7d". Returns why that is not possible;
/// empty on success.
std::string readDuration(std::string_view text, std::chrono::milliseconds& duration);

/// "30s" for 30000 ms.
std::string durationText(std::chrono::milliseconds duration);

namespace impl
{

/// For `<Wendrel/kit/Configuration.h>`: the line of a file in which a key, "section.name" behind
/// "[section]", or the section "section" stands, counted from 1.
size_t lineOfKey(std::string_view file, std::string_view key);

}  // namespace impl
}  // namespace qv::kit

#endif
