// The head of a response, checked as it is collected: nothing in it can end a line or a cookie.

#include <Wendrel/kit/ResponseHead.h>

#include "Text.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace qv::kit
{
namespace
{

// Separates the name from a number, so that headers of one name stay together.
constexpr char kNumberMark = '\x01';

// Numbers of one length are sorted like their texts.
constexpr int kFirstNumber = 1000000;

bool isHeaderValue(std::string_view text)
{
    return std::none_of(text.begin(), text.end(), [](char c) { return isControl(c) && c != '\t'; });
}

// In lower case: the daemon wants "connection" before "date".
std::string keyOf(std::string name)
{
    return toLower(std::move(name));
}

bool isReserved(const std::string& key)
{
    return key == "content-length" || key == "transfer-encoding" || key == "set-cookie";
}

bool hasName(const std::string& key, const std::string& name)
{
    return key.compare(0, name.size(), name) == 0 &&
           (key.size() == name.size() || key[name.size()] == kNumberMark);
}

}  // namespace

void ResponseHead::fail(const std::string& error)
{
    if (mError.empty())
        mError = error;
}

bool ResponseHead::check(const std::string& name, const std::string& value)
{
    if (!isToken(name))
        fail("the header name \"" + name + "\" is no token");
    else if (isReserved(keyOf(name)))
        fail("the header " + name + " cannot be set");
    else if (!isHeaderValue(value))
        fail("the value of the header " + name + " has a control character: \"" + value + "\"");
    else
        return true;
    return false;
}

void ResponseHead::setHeader(const std::string& name, const std::string& value)
{
    if (!check(name, value))
        return;
    const std::string key = keyOf(name);
    // First the steps that may find no memory.
    HttpResponseInterface::HeaderMap made;
    if (!value.empty())
        made.emplace(key, std::make_pair(name, value));
    auto entry = mHeaders.lower_bound(key);
    while (entry != mHeaders.end() && hasName(entry->first, key))
        entry = mHeaders.erase(entry);
    mHeaders.merge(made);
}

void ResponseHead::addHeader(const std::string& name, const std::string& value)
{
    if (!check(name, value) || value.empty())
        return;
    const std::string key = keyOf(name);
    std::string free = key;
    for (int number = kFirstNumber; mHeaders.count(free) != 0; ++number)
        free = key + kNumberMark + std::to_string(number);
    mHeaders.emplace(free, std::make_pair(name, value));
}

void ResponseHead::setCookie(const Cookie& cookie)
{
    const std::string error = cookie.error();
    if (!error.empty()) {
        fail(error);
        return;
    }
    const std::string attributes = cookie.attributes();
    mCookies.insert_or_assign(
        cookie.name(), attributes.empty() ? cookie.value() : cookie.value() + "; " + attributes);
}

std::string ResponseHead::header(const std::string& name) const
{
    const auto found = mHeaders.find(keyOf(name));
    return found == mHeaders.end() ? std::string() : found->second.second;
}

}  // namespace qv::kit
