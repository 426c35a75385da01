// Negotiation: the headers Accept and Accept-Encoding.
#ifndef WENDREL_KIT_SRC_ACCEPT_H
#define WENDREL_KIT_SRC_ACCEPT_H

#include <string_view>

namespace qv::kit
{

// Takes the first element of a list: `name` without parameters, and its weight in thousandths,
// 1000 unless it has one. An element with a malformed weight has 0. False at the end of the list;
// empty elements are left out.
bool takeAccepted(std::string_view& list, std::string_view& name, int& weight);

// How much a client wants a media type, in thousandths; 0: not at all. The most specific element
// counts. `isNamed`: that is the type itself, no wildcard. An empty header accepts everything.
int weightOfType(std::string_view accept, std::string_view type, bool& isNamed);

// The same of a content coding. The coding "identity" is accepted unless it is excluded; an empty
// header accepts no other.
int weightOfCoding(std::string_view acceptEncoding, std::string_view coding);

}  // namespace qv::kit

#endif
