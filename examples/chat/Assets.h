/// The page and its files, compiled in.
#ifndef CHAT_ASSETS_H
#define CHAT_ASSETS_H

#include <string_view>

namespace chat
{

extern const std::string_view kPage;
extern const std::string_view kScript;
extern const std::string_view kStyle;

}  // namespace chat

#endif
