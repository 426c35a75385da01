// Prefixes of hooks.

#include "HookTable.h"

#include <algorithm>
#include <stdexcept>

namespace qv::kit
{
namespace
{

// Removes the first segment of a path, with the slashes before it. Empty at the end.
std::string_view takeSegment(std::string_view& path)
{
    const size_t begin = path.find_first_not_of('/');
    if (begin == std::string_view::npos)
        return path = {};
    const size_t end = path.find('/', begin);
    const std::string_view segment = path.substr(begin, end - begin);
    path.remove_prefix(begin + segment.size());
    return segment;
}

bool isVariable(std::string_view segment)
{
    return segment.size() > 2 && segment.front() == '{' && segment.back() == '}';
}

[[noreturn]] void refuse(const std::string& pattern, const std::string& why)
{
    throw std::invalid_argument("the prefix \"" + pattern + "\" " + why);
}

}  // namespace

PathPrefix::PathPrefix(const std::string& pattern)
{
    if (pattern.empty() || pattern.front() != '/')
        refuse(pattern, "does not begin with /");
    std::string_view left = pattern;
    for (std::string_view segment = takeSegment(left); !segment.empty();
         segment = takeSegment(left)) {
        if (isVariable(segment))
            segment = segment.substr(1, segment.size() - 2);
        else if (segment.find_first_of("{}") == std::string_view::npos) {
            mSegments.emplace_back(segment);
            continue;
        }
        if (segment.find_first_of("{}*") != std::string_view::npos)
            refuse(pattern, "has the malformed segment " + std::string(segment));
        mSegments.emplace_back();
    }
}

bool PathPrefix::matches(std::string_view path, const std::vector<std::string>& segments) const
{
    return matchesPath(path) || matchesSegments(segments);
}

bool PathPrefix::matchesSegments(const std::vector<std::string>& segments) const
{
    return mSegments.size() <= segments.size() &&
           std::equal(mSegments.begin(), mSegments.end(), segments.begin(),
                      [](const std::string& wanted, const std::string& segment) {
                          return wanted.empty() ? !segment.empty() : segment == wanted;
                      });
}

bool PathPrefix::matchesPath(std::string_view path) const
{
    for (const std::string& wanted : mSegments) {
        const std::string_view segment = takeSegment(path);
        if (segment.empty() || (!wanted.empty() && segment != wanted))
            return false;
    }
    return true;
}

}  // namespace qv::kit
