// Frames that wait to be sent.

#include "websocket/OutFrame.h"

#include "websocket/Deflate.h"

#include <Wendrel/kit/websocket/PreparedMessage.h>

#include <cstring>

namespace qv::kit::websocket
{

OutFrame makeFrame(Opcode opcode, bool rsv1, BinaryView payload, bool isDroppable)
{
    uint8_t header[kMaxServerHeaderBytes];
    const size_t size = writeFrameHeader(header, opcode, rsv1, payload.size());
    auto bytes = std::make_shared_for_overwrite<uint8_t[]>(size + payload.size());
    std::memcpy(bytes.get(), header, size);
    if (!payload.empty())
        std::memcpy(bytes.get() + size, payload.data(), payload.size());
    return {std::move(bytes), size + payload.size(), isDroppable};
}

MessageForms::MessageForms(Opcode opcode, BinaryView payload)
    : mOpcode(opcode), mPlain(makeFrame(opcode, false, payload, true)),
      mPayloadBytes(payload.size())
{}

OutFrame MessageForms::get(const DeflateParameters& deflate, const WebSocketOptions& options,
                           bool& isCompressed)
{
    isCompressed = false;
    if (!deflate.isEnabled || mPayloadBytes < options.minDeflateBytes)
        return mPlain;
    const int windowBits = deflate.serverMaxWindowBits;
    const int level = options.compressionLevel;
    const int memoryLevel = options.compressionMemoryLevel;
    const std::lock_guard<std::mutex> lock(mMutex);
    for (const Form& form : mCompressed) {
        if (form.windowBits == windowBits && form.level == level &&
            form.memoryLevel == memoryLevel) {
            isCompressed = form.frame.bytes != nullptr;
            return isCompressed ? form.frame : mPlain;
        }
    }
    Form form{windowBits, level, memoryLevel, {}};
    Buffer compressed;
    isCompressed = deflaterOfThread(windowBits, level, memoryLevel).compress(payload(), compressed);
    if (isCompressed)
        form.frame = makeFrame(mOpcode, true, {compressed.data(), compressed.size()}, true);
    mCompressed.push_back(form);
    return isCompressed ? form.frame : mPlain;
}

PreparedMessage::PreparedMessage(std::shared_ptr<MessageForms> forms) : mForms(std::move(forms)) {}

PreparedMessage PreparedMessage::text(std::string_view text)
{
    return PreparedMessage(std::make_shared<MessageForms>(Opcode::Text, BinaryView(text)));
}

PreparedMessage PreparedMessage::binary(BinaryView bytes)
{
    return PreparedMessage(std::make_shared<MessageForms>(Opcode::Binary, bytes));
}

bool PreparedMessage::isText() const
{
    return mForms->opcode() == Opcode::Text;
}

BinaryView PreparedMessage::payload() const
{
    return mForms->payload();
}

}  // namespace qv::kit::websocket
