// The routes of a router as a tree of segments.
#ifndef WENDREL_KIT_SRC_ROUTETABLE_H
#define WENDREL_KIT_SRC_ROUTETABLE_H

#include <Wendrel/kit/Router.h>

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

// Filled by one thread; read by any, without a lock and without an allocation, once it is frozen.
class RouteTable
{
public:
    // The method of a route for all that have none of their own.
    static constexpr Method kAny = Method(0);

    // The routes of one pattern.
    struct Target
    {
        static constexpr size_t kMethods = 10;
        std::array<Route*, kMethods> routes{};  // by the bit of the method
        Route* any = nullptr;
        std::string allow;  // the methods, as the header has them

        // Null when there is no handler for the method.
        const Route* find(Method method) const;
    };

    Route& add(Method method, const std::string& pattern, Handler handler);

    // One of the routes is for WebSockets.
    void noteWebSocket() { mHasWebSockets = true; }
    bool hasWebSockets() const { return mHasWebSockets; }

    // Routes do not change any more. `workers` runs the callbacks of sessions whose route says so.
    // Throws std::invalid_argument for options that exclude each other.
    void freeze(const websocket::WebSocketOptions::Executor& workers);
    bool isFrozen() const { return mIsFrozen; }

    // In the order of their numbers.
    std::vector<std::string> names() const;

    // Null when no pattern fits.
    const Target* find(const std::vector<std::string>& path) const;

    // The methods of all routes.
    const std::string& allowOfAll() const { return mAllow; }

private:
    struct Node
    {
        std::map<std::string, std::unique_ptr<Node>, std::less<>> literals;
        std::unique_ptr<Node> one;
        std::unique_ptr<Target> target;
        std::unique_ptr<Target> rest;
    };

    Target& targetOf(const std::string& pattern, std::vector<Route::Parameter>& parameters);
    static const Target* find(const Node& node, const std::vector<std::string>& path, size_t at);

    Node mRoot;
    std::vector<std::unique_ptr<Route>> mRoutes;
    std::vector<Target*> mTargets;
    std::string mAllow;
    bool mHasWebSockets = false;
    bool mIsFrozen = false;
};

// "GET"; "any" of kAny.
std::string_view NameOf(Method method);

}  // namespace qv::kit

#endif
