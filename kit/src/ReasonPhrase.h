// The standard reason phrases, and the body of an error.
#ifndef WENDREL_KIT_SRC_REASONPHRASE_H
#define WENDREL_KIT_SRC_REASONPHRASE_H

#include <string>

namespace qv::kit
{

// "Not Found"; "Error" for a status without a phrase.
const char* ReasonPhrase(int status);

// `{"error": message, "status": status}`; an empty message is the reason phrase.
std::string ErrorBody(int status, const std::string& message);

}  // namespace qv::kit

#endif
