// Frames that wait to be sent.
#ifndef WENDREL_KIT_WEBSOCKET_OUTFRAME_H
#define WENDREL_KIT_WEBSOCKET_OUTFRAME_H

#include "websocket/Frame.h"

#include <Wendrel/kit/websocket/BinaryView.h>
#include <Wendrel/kit/websocket/Handshake.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace qv::kit::websocket
{

// An encoded frame, shared by all sessions that send it.
struct OutFrame
{
    std::shared_ptr<const uint8_t[]> bytes;
    size_t size = 0;
    bool isDroppable = false;  // a whole message that no later frame depends on
};

OutFrame makeFrame(Opcode opcode, bool rsv1, BinaryView payload, bool isDroppable);

// The message of a PreparedMessage: as it is and compressed.
class MessageForms
{
public:
    MessageForms(Opcode opcode, BinaryView payload);

    // For a session that has agreed on `deflate`; `isCompressed` tells which form it is.
    OutFrame get(const DeflateParameters& deflate, const WebSocketOptions& options,
                 bool& isCompressed);

    Opcode opcode() const { return mOpcode; }
    BinaryView payload() const
    {
        return {mPlain.bytes.get() + mPlain.size - mPayloadBytes, mPayloadBytes};
    }

private:
    struct Form
    {
        int windowBits;
        int level;
        int memoryLevel;
        OutFrame frame;  // without bytes: not shorter
    };

    const Opcode mOpcode;
    const OutFrame mPlain;
    const size_t mPayloadBytes;
    std::mutex mMutex;
    std::vector<Form> mCompressed;  // under mMutex; a few
};

}  // namespace qv::kit::websocket

#endif
