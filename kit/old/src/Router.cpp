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

bool Router::parse(const std::string& pattern, std::vector<Segment>& segments, Names& names)
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
        std::string name = part.substr(1, part.size() - (rest ? 3 : 2));
        if (name.empty() || name.find_first_of("{}*") != std::string::npos ||
            std::find(names.begin(), names.end(), name) != names.end())
            return false;
        segments.push_back({rest ? Segment::Rest : Segment::One, std::string()});
        names.push_back(std::move(name));
    }
    return true;
}

// Whatever their variables are called.
bool Router::sameShape(const std::vector<Segment>& a, const std::vector<Segment>& b)
{
    return std::equal(
        a.begin(), a.end(), b.begin(), b.end(),
        [](const Segment& x, const Segment& y) { return x.kind == y.kind && x.text == y.text; });
}

// By value: callers pass lambdas. NOLINTNEXTLINE(performance-unnecessary-value-param)
bool Router::add(int methods, const std::string& pattern, Handler handler)
{
    std::vector<Segment> segments;
    Names names;
    if (!parse(pattern, segments, names))
        return false;
    std::map<int, Target> targets;
    for (int bit = 0; bit < kMethodBits; ++bit) {
        if (methods & (1 << bit))
            targets[1 << bit] = {handler, names};
    }
    const auto route = std::find_if(mRoutes.begin(), mRoutes.end(), [&](const Route& known) {
        return sameShape(known.segments, segments);
    });
    if (route == mRoutes.end()) {
        mRoutes.push_back({std::move(segments), std::move(targets)});
        return true;
    }
    route->targets.merge(targets);
    // What is left has had a handler before.
    for (auto& [method, target] : targets)
        route->targets[method] = std::move(target);
    return true;
}

bool Router::matches(const Route& route, const std::vector<std::string>& path, Values& values)
{
    size_t at = 0;
    for (const Segment& segment : route.segments) {
        if (segment.kind == Segment::Rest) {
            std::string& rest = values.emplace_back();
            for (size_t first = at; at < path.size(); ++at)
                rest += (at == first ? "" : "/") + path[at];
            return true;
        }
        if (at == path.size())
            return false;
        if (segment.kind == Segment::Literal ? path[at] != segment.text : path[at].empty())
            return false;
        if (segment.kind == Segment::One)
            values.push_back(path[at]);
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

const Router::Route* Router::find(const std::vector<std::string>& path, Values& values) const
{
    const Route* best = nullptr;
    for (const Route& route : mRoutes) {
        Values found;
        if (!matches(route, path, found) || (best && !moreSpecific(route, *best)))
            continue;
        best = &route;
        values = std::move(found);
    }
    return best;
}

int Router::allowedMethods(const Route& route)
{
    int methods = 0;
    for (const auto& entry : route.targets)
        methods |= entry.first;
    return methods & HttpBaseRequest::GET ? methods | HttpBaseRequest::HEAD : methods;
}

void Router::dispatch(Request& request) const
{
    if (request.hasParseError()) {
        request.replyError(400, request.getParseError());
        return;
    }
    Values values;
    const Route* route = find(request.getUrl().pathSegments(), values);
    if (!route) {
        request.replyError(404, "There is nothing at this address.");
        return;
    }
    auto target = route->targets.find(request.getRequestType());
    if (target == route->targets.end() && request.isHead())
        target = route->targets.find(HttpBaseRequest::GET);
    if (target == route->targets.end()) {
        request.getHead().setHeader(
            "Allow", HttpBaseRequest::RequestTypeBitFieldToString(allowedMethods(*route)));
        request.replyError(405, "This method is not allowed here.");
        return;
    }
    std::map<std::string, std::string> parameters;
    for (size_t i = 0; i < values.size(); ++i)
        parameters[target->second.names[i]] = std::move(values[i]);
    request.setPathParameters(std::move(parameters));
    target->second.handler(request);
}

}  // namespace qv::kit
