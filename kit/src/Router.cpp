// From method and path to the function that answers.

#include <Wendrel/kit/Router.h>

#include <Wendrel/kit/Request.h>

#include <algorithm>

namespace qv::kit
{
namespace
{

constexpr int kMethodBits = 10;

std::vector<std::string> splitPattern(const std::string& pattern)
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

}  // namespace

bool Router::parse(const std::string& pattern, std::vector<Segment>& segments)
{
    if (pattern.empty() || pattern.front() != '/')
        return false;
    for (const std::string& part : splitPattern(pattern)) {
        if (!segments.empty() && segments.back().kind == Segment::Rest)
            return false;
        if (!isVariable(part)) {
            if (part.find_first_of("{}") != std::string::npos)
                return false;
            segments.push_back({Segment::Literal, part});
            continue;
        }
        const bool rest = part[part.size() - 2] == '*';
        const std::string name = part.substr(1, part.size() - (rest ? 3 : 2));
        if (name.empty() || name.find_first_of("{}*") != std::string::npos)
            return false;
        segments.push_back({rest ? Segment::Rest : Segment::One, name});
    }
    return true;
}

bool Router::sameShape(const std::vector<Segment>& a, const std::vector<Segment>& b)
{
    return std::equal(
        a.begin(), a.end(), b.begin(), b.end(),
        [](const Segment& x, const Segment& y) { return x.kind == y.kind && x.text == y.text; });
}

bool Router::add(int methods, const std::string& pattern, Handler handler)
{
    std::vector<Segment> segments;
    if (!parse(pattern, segments))
        return false;
    auto route = std::find_if(mRoutes.begin(), mRoutes.end(), [&](const Route& known) {
        return sameShape(known.segments, segments);
    });
    if (route == mRoutes.end())
        route = mRoutes.insert(route, Route{std::move(segments), {}});
    for (int bit = 0; bit < kMethodBits; ++bit) {
        if (methods & (1 << bit))
            route->handlers[1 << bit] = handler;
    }
    return true;
}

bool Router::matches(const Route& route, const std::vector<std::string>& path,
                     Parameters& parameters)
{
    size_t at = 0;
    for (const Segment& segment : route.segments) {
        if (segment.kind == Segment::Rest) {
            std::string& rest = parameters[segment.text];
            for (; at < path.size(); ++at)
                rest += (rest.empty() ? "" : "/") + path[at];
            return true;
        }
        if (at == path.size())
            return false;
        if (segment.kind == Segment::Literal ? path[at] != segment.text : path[at].empty())
            return false;
        if (segment.kind == Segment::One)
            parameters[segment.text] = path[at];
        ++at;
    }
    return at == path.size();
}

bool Router::moreSpecific(const Route& a, const Route& b)
{
    return std::lexicographical_compare(
        a.segments.begin(), a.segments.end(), b.segments.begin(), b.segments.end(),
        [](const Segment& x, const Segment& y) { return x.kind < y.kind; });
}

const Router::Route* Router::find(const std::vector<std::string>& path,
                                  Parameters& parameters) const
{
    const Route* best = nullptr;
    for (const Route& route : mRoutes) {
        Parameters found;
        if (!matches(route, path, found) || (best && !moreSpecific(route, *best)))
            continue;
        best = &route;
        parameters = std::move(found);
    }
    return best;
}

void Router::dispatch(Request& request) const
{
    if (request.hasParseError()) {
        request.replyError(400, request.getParseError());
        return;
    }
    Parameters parameters;
    const Route* route = find(request.getUrl().pathSegments(), parameters);
    if (!route) {
        request.replyError(404, "There is nothing at this address.");
        return;
    }
    auto handler = route->handlers.find(request.getRequestType());
    if (handler == route->handlers.end() && request.isHead())
        handler = route->handlers.find(HttpBaseRequest::GET);
    if (handler == route->handlers.end()) {
        int allowed = 0;
        for (const auto& entry : route->handlers)
            allowed |= entry.first;
        if (allowed & HttpBaseRequest::GET)
            allowed |= HttpBaseRequest::HEAD;
        request.getHead().setHeader("Allow", HttpBaseRequest::RequestTypeBitFieldToString(allowed));
        request.replyError(405, "This method is not allowed here.");
        return;
    }
    request.setPathParameters(std::move(parameters));
    handler->second(request);
}

}  // namespace qv::kit
