/// From method and path to the function that responds.
#ifndef WENDREL_KIT_ROUTER_H
#define WENDREL_KIT_ROUTER_H

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qv::kit
{

class Request;

/// A table of routes. Filled before the server is started, then read by any thread.
class Router
{
public:
    /// Responds to a request. Thread: a worker. An exception that it throws is logged, and the
    /// response is 500.
    using Handler = std::function<void(Request&)>;

    /// Adds a route for a set of methods (`HttpBaseRequest::GET | HttpBaseRequest::PUT`).
    ///
    /// `pattern` is a path whose segments are literal, `{name}` for any one segment that is
    /// not empty, or, at the end, `{name*}` for all the rest. It is compared with the decoded
    /// segments of the target, so that an encoded slash stays inside its segment; in the rest
    /// the segments are joined by "/". Where several patterns fit, the one that is literal earlier
    /// wins. A second handler for the same pattern and method replaces the first. Returns false,
    /// and adds nothing, for a pattern that does not start with "/" or is malformed.
    bool add(int methods, const std::string& pattern, Handler handler);

    /// Responds to the request: 400 with the parse error of a bad request, 404 when no pattern
    /// fits, 405 with `Allow` when the pattern has no handler for the method, otherwise by the
    /// handler. HEAD is given to the handler of GET when it has none of its own.
    void dispatch(Request& request) const;

private:
    struct Segment
    {
        enum Kind { Literal, One, Rest } kind;
        std::string text;  // of a literal
    };
    using Names = std::vector<std::string>;
    using Values = std::vector<std::string>;

    struct Target
    {
        Handler handler;
        Names names;  // of the variable segments, in their order
    };
    struct Route
    {
        std::vector<Segment> segments;
        std::map<int, Target> targets;  // one method each
    };

    static bool parse(const std::string& pattern, std::vector<Segment>& segments, Names& names);
    static bool sameShape(const std::vector<Segment>& a, const std::vector<Segment>& b);
    static bool matches(const Route& route, const std::vector<std::string>& path, Values& values);
    static bool moreSpecific(const Route& a, const Route& b);
    static int allowedMethods(const Route& route);
    const Route* find(const std::vector<std::string>& path, Values& values) const;

    std::vector<Route> mRoutes;
};

}  // namespace qv::kit

#endif
