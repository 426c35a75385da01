// The hooks of a router.
#ifndef WENDREL_KIT_SRC_HOOKTABLE_H
#define WENDREL_KIT_SRC_HOOKTABLE_H

#include <Wendrel/kit/Hooks.h>

#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

// The beginning of a path: segments that are literal, or `{name}` for any one.
class PathPrefix
{
public:
    // Throws std::invalid_argument for a malformed one.
    explicit PathPrefix(const std::string& pattern);

    // `path` is decoded, and so are its `segments`. Both readings count: that of routes, where an
    // encoded slash belongs to its segment, and that of a handler that takes the path apart, where
    // it separates and empty segments are nothing.
    bool matches(std::string_view path, const std::vector<std::string>& segments) const;

    bool isRoot() const { return mSegments.empty(); }

private:
    bool matchesPath(std::string_view path) const;
    bool matchesSegments(const std::vector<std::string>& segments) const;

    std::vector<std::string> mSegments;  // empty: any
};

// Filled by one thread; read by any, without a lock, once the server has been started.
struct HookTable
{
    struct Before
    {
        PathPrefix prefix;
        Hook hook;
        HookThread thread;
    };

    struct After
    {
        PathPrefix prefix;
        AfterHook hook;
    };

    std::vector<Before> before;
    std::vector<After> after;
    ErrorHook onError;  // empty: none
};

}  // namespace qv::kit

#endif
