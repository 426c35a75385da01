// Texts within pages and JSON.
#ifndef WENDREL_KIT_SRC_MARKUP_H
#define WENDREL_KIT_SRC_MARKUP_H

#include <string>
#include <string_view>

namespace qv::kit
{

// As JSON, with quotation marks; bytes that are not UTF-8 are replaced by U+FFFD.
std::string jsonText(const std::string& text);

// As the content or an attribute of an HTML element.
std::string htmlText(std::string_view text);

}  // namespace qv::kit

#endif
