// The standard reason phrases.
#ifndef WENDREL_KIT_SRC_REASONPHRASE_H
#define WENDREL_KIT_SRC_REASONPHRASE_H

namespace qv::kit
{

// "Not Found"; "Error" for a status without a phrase.
const char* ReasonPhrase(int status);

}  // namespace qv::kit

#endif
