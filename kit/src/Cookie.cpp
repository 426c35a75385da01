// Cookies, checked so that nothing in one can begin an attribute or end the line.

#include <Wendrel/kit/Cookie.h>

#include "Text.h"

#include <algorithm>
#include <string_view>

namespace qv::kit
{
namespace
{

constexpr std::string_view kHostPrefix = "__Host-";
constexpr std::string_view kSecurePrefix = "__Secure-";
constexpr const char* kExpires = "; Expires=Thu, 01 Jan 1970 00:00:00 GMT";

bool isValueCharacter(char c)
{
    constexpr std::string_view kNotAllowed = "\",;\\";
    return c > ' ' && c < '\x7f' && kNotAllowed.find(c) == std::string_view::npos;
}

bool isPathCharacter(char c)
{
    return !isControl(c) && c != ';';
}

bool isDomainCharacter(char c)
{
    return isLetterOrDigit(c) || c == '-' || c == '.';
}

template <typename Is> bool consistsOf(std::string_view text, Is is)
{
    return std::all_of(text.begin(), text.end(), is);
}

bool hasPrefix(std::string_view name, std::string_view prefix)
{
    return equalsIgnoringCase(name.substr(0, prefix.size()), prefix);
}

const char* nameOf(Cookie::SameSite sites)
{
    switch (sites) {
    case Cookie::SameSite::Strict:
        return "Strict";
    case Cookie::SameSite::Lax:
        return "Lax";
    case Cookie::SameSite::None:
        return "None";
    case Cookie::SameSite::Unset:
        break;
    }
    return "";
}

void add(std::string& attributes, std::string_view name, std::string_view value = {})
{
    attributes.append(attributes.empty() ? "" : "; ").append(name);
    if (!value.empty())
        attributes.append("=").append(value);
}

}  // namespace

Cookie Cookie::expired(std::string name)
{
    return std::move(Cookie(std::move(name), std::string()).maxAge(std::chrono::seconds(0)));
}

Cookie& Cookie::path(std::string path)
{
    mPath = std::move(path);
    return *this;
}

Cookie& Cookie::domain(std::string domain)
{
    mDomain = std::move(domain);
    return *this;
}

Cookie& Cookie::maxAge(std::chrono::seconds age)
{
    mMaxAge = std::max(age, std::chrono::seconds(0));
    return *this;
}

Cookie& Cookie::httpOnly()
{
    mIsHttpOnly = true;
    return *this;
}

Cookie& Cookie::secure()
{
    mIsSecure = true;
    return *this;
}

Cookie& Cookie::sameSite(SameSite sites)
{
    mSameSite = sites;
    return *this;
}

std::string Cookie::attributes() const
{
    std::string text;
    if (!mPath.empty())
        add(text, "Path", mPath);
    if (!mDomain.empty())
        add(text, "Domain", mDomain);
    if (mMaxAge)
        add(text, "Max-Age", std::to_string(mMaxAge->count()));
    // For clients that do not know Max-Age.
    if (mMaxAge && mMaxAge->count() == 0)
        text.append(kExpires);
    if (mIsHttpOnly)
        add(text, "HttpOnly");
    if (mIsSecure)
        add(text, "Secure");
    if (mSameSite != SameSite::Unset)
        add(text, "SameSite", nameOf(mSameSite));
    return text;
}

std::string Cookie::error() const
{
    if (!isToken(mName))
        return "the cookie name \"" + mName + "\" is no token";
    if (!consistsOf(mValue, isValueCharacter))
        return "the value of the cookie " + mName + " has a byte that is not allowed: \"" + mValue +
               "\"";
    if (!mPath.empty() && (mPath.front() != '/' || !consistsOf(mPath, isPathCharacter)))
        return "the path of the cookie " + mName + " is not valid: \"" + mPath + "\"";
    if (!consistsOf(mDomain, isDomainCharacter))
        return "the domain of the cookie " + mName + " is not valid: \"" + mDomain + "\"";
    const bool isForHost = hasPrefix(mName, kHostPrefix);
    const bool needsTls =
        isForHost || hasPrefix(mName, kSecurePrefix) || mSameSite == SameSite::None;
    if (needsTls && !mIsSecure)
        return "the cookie " + mName + " is ignored without secure()";
    if (isForHost && (mPath != "/" || !mDomain.empty()))
        return "the cookie " + mName + " is ignored with another path than \"/\" or a domain";
    const size_t bytes = mName.size() + mValue.size() + attributes().size();
    if (bytes > kMaxBytes)
        return "the cookie " + mName + " has " + std::to_string(bytes) + " bytes, at most " +
               std::to_string(kMaxBytes) + " are kept";
    return std::string();
}

}  // namespace qv::kit
