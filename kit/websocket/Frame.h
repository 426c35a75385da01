// Frames of RFC 6455: headers, masks and close payloads, as pure functions.
#ifndef WENDREL_KIT_WEBSOCKET_FRAME_H
#define WENDREL_KIT_WEBSOCKET_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qv::kit::websocket
{

enum class Opcode : uint8_t {
    Continuation = 0,
    Text = 1,
    Binary = 2,
    Close = 8,
    Ping = 9,
    Pong = 10
};

namespace closecode
{
inline constexpr uint16_t kNormal = 1000;
inline constexpr uint16_t kGoingAway = 1001;
inline constexpr uint16_t kProtocolError = 1002;
inline constexpr uint16_t kNoStatus = 1005;
inline constexpr uint16_t kAbnormal = 1006;
inline constexpr uint16_t kInvalidData = 1007;
inline constexpr uint16_t kTooBig = 1009;
inline constexpr uint16_t kInternalError = 1011;
inline constexpr uint16_t kTryAgainLater = 1013;
}  // namespace closecode

inline constexpr size_t kMaxControlBytes = 125;
inline constexpr size_t kMaxReasonBytes = 123;
inline constexpr size_t kMaxHeaderBytes = 14;
inline constexpr size_t kMaxServerHeaderBytes = 10;
inline constexpr size_t kMaskBytes = 4;

struct FrameHeader
{
    uint64_t length = 0;
    uint32_t mask = 0;  // in the order of memory
    Opcode opcode = Opcode::Continuation;
    bool fin = false;
    bool rsv1 = false;

    bool isControl() const { return static_cast<uint8_t>(opcode) >= 8; }
};

// Checks the first two bytes of a client's frame alone, so that a bad frame fails at once. Null
// when they are valid; otherwise the error. `allowsRsv1`: an extension uses the bit.
const char* checkFrameStart(const uint8_t* bytes, bool allowsRsv1);

// Size of the header that begins with these two bytes.
size_t headerBytes(const uint8_t* bytes);

// Reads a whole header whose start has been checked. Null, or the error.
const char* readFrameHeader(const uint8_t* bytes, FrameHeader& header);

// Writes a header of a server's frame of `length` bytes to `out`, which has space for
// kMaxServerHeaderBytes. Returns its size.
size_t writeFrameHeader(uint8_t* out, Opcode opcode, bool rsv1, uint64_t length);

// XORs `size` bytes of `in` with the mask into `out`: the same memory, or memory that does not
// overlap. Returns the mask for the byte that follows.
uint32_t unmask(uint8_t* out, const uint8_t* in, size_t size, uint32_t mask);

// A code that an endpoint may send in a close frame.
bool isCloseCode(uint16_t code);

// The payload of a close frame. The reason is cut off at a character's end. 1005: empty payload.
std::string makeClosePayload(uint16_t code, std::string_view reason);

struct CloseStatus
{
    uint16_t code = 0;
    std::string_view reason;
    uint16_t failure = 0;  // 0: valid; otherwise the code to close with
};

// Reads the payload of a close frame.
CloseStatus readClosePayload(const uint8_t* bytes, size_t size);

}  // namespace qv::kit::websocket

#endif
