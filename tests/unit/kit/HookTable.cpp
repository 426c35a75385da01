#include "HookTable.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace qv::kit
{
namespace
{

TEST(PathPrefix, MatchesWholeSegments)
{
    const struct
    {
        const char* prefix;
        const char* path;
        bool matches;
    } rows[] = {
        {"/", "/", true},
        {"/", "/a/b", true},
        {"/", "", true},
        {"/admin", "/admin", true},
        {"/admin", "/admin/", true},
        {"/admin", "/admin/users/7", true},
        {"/admin/", "/admin/users", true},
        {"/admin", "/administration", false},
        {"/admin", "/Admin", false},
        {"/admin", "/", false},
        {"/admin", "", false},
        {"/admin", "/a/admin", false},
        // A handler may read them so.
        {"/admin", "//admin", true},
        {"/admin/users", "/admin///users/7", true},
        {"/teams/{id}", "/teams/7/tasks", true},
        {"/teams/{id}/tasks", "/teams/7/tasks", true},
        {"/teams/{id}/tasks", "/teams/7/users", false},
        {"/teams/{id}", "/teams/", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.prefix) + " " + row.path);
        EXPECT_EQ(PathPrefix(row.prefix).matches(row.path, {}), row.matches);
    }
}

TEST(PathPrefix, MatchesTheSegmentsOfRoutes)
{
    const struct
    {
        const char* prefix;
        const char* path;
        std::vector<std::string> segments;
        bool matches;
    } rows[] = {
        {"/teams/{id}", "/teams//", {"teams", "/"}, true},
        {"/{tenant}/admin", "/x/y/admin/users", {"x/y", "admin", "users"}, true},
        {"/{tenant}/admin", "///admin/users", {"/", "admin", "users"}, true},
        {"/{tenant}/admin", "/x/y/public", {"x/y", "public"}, false},
        {"/teams/{id}", "/teams/", {"teams", ""}, false},
        {"/teams/{id}", "/teams", {"teams"}, false},
        {"/admin", "/a/admin", {"a/admin"}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.prefix) + " " + row.path);
        EXPECT_EQ(PathPrefix(row.prefix).matches(row.path, row.segments), row.matches);
    }
}

TEST(PathPrefix, RefusesMalformedPatterns)
{
    for (const char* prefix : {"", "admin", "/a{b}", "/{a", "/a}", "/{rest*}", "/a/{*}"}) {
        SCOPED_TRACE(prefix);
        EXPECT_THROW(PathPrefix{prefix}, std::invalid_argument);
    }
}

}  // namespace
}  // namespace qv::kit
