/// Bodies as JSON. Needs the headers of nlohmann-json (Debian: nlohmann-json3-dev).
#ifndef WENDREL_KIT_JSON_H
#define WENDREL_KIT_JSON_H

#include <Wendrel/kit/Request.h>
#include <Wendrel/kit/Responder.h>

#include <nlohmann/json.hpp>

#include <cstddef>
#include <string_view>
#include <type_traits>

namespace qv::kit
{

/// Of the value without a type.
template <> struct JsonOf<void>
{
    using Type = nlohmann::json;  ///< any value
};

namespace impl
{

/// For the templates below: throws HttpError 400 that tells line and column of byte `position`,
/// counted from 1.
[[noreturn]] void refuseJson(std::string_view text, size_t position);

/// For the templates below: throws HttpError 400 with the text of an error of the JSON library.
[[noreturn]] void refuseJson(std::string_view error);

}  // namespace impl

template <typename Value> typename JsonOf<Value>::Type Request::json()
{
    const std::string& text = jsonText();
    try {
        nlohmann::json value = nlohmann::json::parse(text);
        if constexpr (std::is_void_v<Value>)
            return value;
        else
            return value.template get<Value>();
    } catch (const nlohmann::json::parse_error& error) {
        impl::refuseJson(text, error.byte);
    } catch (const nlohmann::json::exception& error) {
        impl::refuseJson(error.what());
    }
}

template <typename Value>
bool Responder::replyJson(int status, const typename JsonOf<Value>::Type& value)
{
    const nlohmann::json& json = value;
    return reply(status, json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                 ContentType::json());
}

template <typename Value> bool Responder::replyJson(const typename JsonOf<Value>::Type& value)
{
    return replyJson<Value>(200, value);
}

}  // namespace qv::kit

#endif
