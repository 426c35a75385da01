// Patterns become a tree, in which literal segments precede variable ones.

#include "RouteTable.h"

#include "Directory.h"
#include "HookTable.h"
#include "KitLog.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

namespace qv::kit
{
namespace
{

struct NamedMethod
{
    Method method;
    std::string_view name;
};

// In the order of the header Allow.
constexpr std::array<NamedMethod, 9> kMethodNames{{{Method::Get, "GET"},
                                                   {Method::Head, "HEAD"},
                                                   {Method::Post, "POST"},
                                                   {Method::Put, "PUT"},
                                                   {Method::Delete, "DELETE"},
                                                   {Method::Patch, "PATCH"},
                                                   {Method::Trace, "TRACE"},
                                                   {Method::Connect, "CONNECT"},
                                                   {Method::Options, "OPTIONS"}}};

size_t bitOf(Method method)
{
    return static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(method)));
}

[[noreturn]] void refuse(const std::string& pattern, const std::string& why)
{
    throw std::invalid_argument("the pattern \"" + pattern + "\" " + why);
}

std::vector<std::string> split(const std::string& pattern)
{
    std::vector<std::string> parts;
    if (pattern == "/")
        return parts;
    for (size_t begin = 1; begin <= pattern.size();) {
        const size_t end = std::min(pattern.find('/', begin), pattern.size());
        parts.push_back(pattern.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

bool isVariable(const std::string& part)
{
    return part.size() > 2 && part.front() == '{' && part.back() == '}';
}

// Serves by the handler for GET, and OPTIONS by the router.
bool isAllowed(const RouteTable::Target& target, Method method)
{
    if (method == Method::Options)
        return true;
    return target.find(method) != nullptr;
}

template <typename IsAllowed> std::string listMethods(const IsAllowed& isListed)
{
    std::string list;
    for (const NamedMethod& known : kMethodNames) {
        if (isListed(known.method))
            list.append(list.empty() ? "" : ", ").append(known.name);
    }
    return list;
}

}  // namespace

std::string_view NameOf(Method method)
{
    for (const NamedMethod& known : kMethodNames) {
        if (known.method == method)
            return known.name;
    }
    return "any";
}

const Route* RouteTable::Target::find(Method method) const
{
    if (const Route* const own = routes[bitOf(method)])
        return own;
    if (method == Method::Head && routes[bitOf(Method::Get)])
        return routes[bitOf(Method::Get)];
    return method == Method::Connect ? nullptr : any;
}

RouteTable::Target& RouteTable::targetOf(const std::string& pattern,
                                         std::vector<Route::Parameter>& parameters)
{
    if (pattern.empty() || pattern.front() != '/')
        refuse(pattern, "does not begin with /");
    Node* node = &mRoot;
    std::set<std::string> names;
    const std::vector<std::string> parts = split(pattern);
    for (size_t at = 0; at < parts.size(); ++at) {
        const std::string& part = parts[at];
        if (!isVariable(part)) {
            if (part.find_first_of("{}") != std::string::npos)
                refuse(pattern, "has a brace outside of {name}");
            std::unique_ptr<Node>& next = node->literals[part];
            if (!next)
                next = std::make_unique<Node>();
            node = next.get();
            continue;
        }
        const bool isRest = part[part.size() - 2] == '*';
        const std::string name = part.substr(1, part.size() - (isRest ? 3 : 2));
        if (name.empty() || name.find_first_of("{}*") != std::string::npos)
            refuse(pattern, "has the malformed parameter " + part);
        if (!names.insert(name).second)
            refuse(pattern, "has the parameter " + name + " twice");
        if (isRest && at + 1 != parts.size())
            refuse(pattern, "has " + part + " before its end");
        parameters.push_back({name, at, isRest});
        if (isRest) {
            if (!node->rest)
                mTargets.push_back((node->rest = std::make_unique<Target>()).get());
            return *node->rest;
        }
        if (!node->one)
            node->one = std::make_unique<Node>();
        node = node->one.get();
    }
    if (!node->target)
        mTargets.push_back((node->target = std::make_unique<Target>()).get());
    return *node->target;
}

Route& RouteTable::add(Method method, const std::string& pattern, Handler handler)
{
    std::string name = std::string(NameOf(method)) + " " + pattern;
    if (!handler)
        refuse(pattern, "has no handler");
    mRoutes.push_back(std::unique_ptr<Route>(new Route(std::move(name), std::move(handler))));
    Route& route = *mRoutes.back();
    route.mIsFrozen = &mIsFrozen;
    route.mNumber = mRoutes.size();
    if (mIsFrozen) {
        LogOfRoute(route.name(), "not added: the server has been started");
        return route;
    }
    Target& target = targetOf(pattern, route.mParameters);
    Route** const place = method == kAny ? &target.any : &target.routes[bitOf(method)];
    if (*place)
        refuse(pattern, "has a handler for " + std::string(NameOf(method)) + " already");
    *place = &route;
    return route;
}

void RouteTable::freeze(const websocket::WebSocketOptions::Executor& workers)
{
    if (mIsFrozen)
        return;
    for (const auto& route : mRoutes) {
        if (route->mIsStreaming && route->mIsNonBlocking)
            throw std::invalid_argument("the route " + route->name() +
                                        " is both streaming and nonBlocking");
        if (!route->mHasCallbacksOnWorkers)
            continue;
        if (!route->mSessionOptions)
            throw std::invalid_argument("the route " + route->name() +
                                        " has callbacksOnWorkers, but no WebSocket");
        route->mSessionOptions->executor = workers;
    }
    for (Target* const target : mTargets)
        target->allow = listMethods([&](Method method) { return isAllowed(*target, method); });
    mAllow = listMethods([this](Method method) {
        return method == Method::Options ||
               std::any_of(mTargets.begin(), mTargets.end(),
                           [&](const Target* target) { return isAllowed(*target, method); });
    });
    mIsFrozen = true;
}

// A node is reached by one path only, so that no node is visited twice.
const RouteTable::Target* RouteTable::find(const Node& node, const std::vector<std::string>& path,
                                           size_t at)
{
    if (at == path.size())
        return node.target ? node.target.get() : node.rest.get();
    const auto literal = node.literals.find(path[at]);
    if (literal != node.literals.end()) {
        if (const Target* const found = find(*literal->second, path, at + 1))
            return found;
    }
    if (node.one && !path[at].empty()) {
        if (const Target* const found = find(*node.one, path, at + 1))
            return found;
    }
    return node.rest.get();
}

std::vector<std::string> RouteTable::names() const
{
    std::vector<std::string> names;
    for (const auto& route : mRoutes)
        names.push_back(route->name());
    return names;
}

const RouteTable::Target* RouteTable::find(const std::vector<std::string>& path) const
{
    return find(mRoot, path, 0);
}

Route::Route(std::string name, Handler handler)
    : mName(std::move(name)), mHandler(std::move(handler))
{}

Route::~Route() = default;

bool Route::mayChange() const
{
    if (!*mIsFrozen)
        return true;
    LogOfRoute(mName, "not changed: the server has been started");
    return false;
}

Route& Route::nonBlocking()
{
    if (mayChange())
        mIsNonBlocking = true;
    return *this;
}

Route& Route::streaming()
{
    if (mayChange())
        mIsStreaming = true;
    return *this;
}

Route& Route::callbacksOnWorkers()
{
    if (mayChange())
        mHasCallbacksOnWorkers = true;
    return *this;
}

Route& Route::maxBodyBytes(uint64_t bytes)
{
    if (mayChange()) {
        mMaxBodyBytes = bytes;
        mHasMaxBodyBytes = true;
    }
    return *this;
}

Route& Route::responseTimeout(std::chrono::milliseconds limit)
{
    if (mayChange())
        mResponseTimeout = limit;
    return *this;
}

Route& Route::compression(const CompressionOptions& options)
{
    if (mayChange())
        mCompression = std::make_shared<const CompressionOptions>(options);
    return *this;
}

Router::Router() : mTable(std::make_unique<RouteTable>()), mHooks(std::make_unique<HookTable>()) {}

Router::~Router() = default;

Route& Router::get(const std::string& pattern, Handler handler)
{
    return mTable->add(Method::Get, pattern, std::move(handler));
}

Route& Router::post(const std::string& pattern, Handler handler)
{
    return mTable->add(Method::Post, pattern, std::move(handler));
}

Route& Router::put(const std::string& pattern, Handler handler)
{
    return mTable->add(Method::Put, pattern, std::move(handler));
}

Route& Router::del(const std::string& pattern, Handler handler)
{
    return mTable->add(Method::Delete, pattern, std::move(handler));
}

Route& Router::patch(const std::string& pattern, Handler handler)
{
    return mTable->add(Method::Patch, pattern, std::move(handler));
}

Route& Router::head(const std::string& pattern, Handler handler)
{
    return mTable->add(Method::Head, pattern, std::move(handler));
}

Route& Router::options(const std::string& pattern, Handler handler)
{
    return mTable->add(Method::Options, pattern, std::move(handler));
}

Route& Router::directory(const std::string& prefix, const std::string& path,
                         const DirectoryOptions& options)
{
    std::string pattern = prefix;
    if (!pattern.empty() && pattern.back() == '/')
        pattern.pop_back();
    const auto segments = static_cast<size_t>(std::count(pattern.begin(), pattern.end(), '/'));
    const auto directory = std::make_shared<const Directory>(path, options, segments);
    return get(pattern + "/{path*}", [directory](Request& request) { directory->serve(request); });
}

Route& Router::any(const std::string& pattern, Handler handler)
{
    return mTable->add(RouteTable::kAny, pattern, std::move(handler));
}

// Requests read the hooks without a lock.
bool Router::mayHook(const char* what) const
{
    if (mTable->isFrozen())
        LogOfRoute(what, "not added: the server has been started");
    return !mTable->isFrozen();
}

void Router::before(const std::string& prefix, Hook hook, HookThread thread)
{
    PathPrefix paths(prefix);
    if (hook && mayHook("a hook before handlers"))
        mHooks->before.push_back({std::move(paths), std::move(hook), thread});
}

void Router::after(const std::string& prefix, AfterHook hook)
{
    PathPrefix paths(prefix);
    if (hook && mayHook("a hook after handlers"))
        mHooks->after.push_back({std::move(paths), std::move(hook)});
}

void Router::use(const std::string& prefix, Middleware middleware)
{
    before(prefix, std::move(middleware.before), middleware.thread);
    after(prefix, std::move(middleware.after));
}

void Router::onError(ErrorHook hook)
{
    if (mayHook("a hook for errors"))
        mHooks->onError = std::move(hook);
}

RouteGroup Router::group(const std::string& prefix)
{
    return {*this, prefix};
}

}  // namespace qv::kit
