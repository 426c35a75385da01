// Which place a virtual operation has in its class: part of the binary contract.
#ifndef WENDREL_TESTS_VIRTUALSLOT_H
#define WENDREL_TESTS_VIRTUALSLOT_H

#include <cstddef>
#include <cstring>

namespace qv::tests
{

// By the rules of the Itanium ABI a pointer to a virtual operation is one more than the offset
// of its slot in bytes. The two destructors of a class take one slot each.
template <typename Member> std::ptrdiff_t VirtualSlot(Member member)
{
    std::ptrdiff_t offset = 0;
    std::memcpy(&offset, &member, sizeof offset);
    return (offset - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

}  // namespace qv::tests

#endif
