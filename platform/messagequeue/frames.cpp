#include "platform/messagequeue/frames.h"

#include "platform/base/ByteCursor.h"
#include "platform/base/ByteWriter.h"
#include "platform/foundation/PropertyList.h"
#include "platform/messagequeue/MessageStream.h"

namespace vnt::queue {
namespace {

enum class Needs { kZero, kNonZero, kAny };

/// What a frame of one kind must look like, by kind.
struct KindRule {
    FrameKind kind;
    const char* name;
    Direction direction;
    uint32_t minBytes;
    uint32_t maxBytes;
    Needs channel;
    Needs id;
};

constexpr KindRule kRules[] = {
    {FrameKind::kHello, "hello", Direction::kToServer, sizeof kHelloMagic, sizeof kHelloMagic, Needs::kZero,
     Needs::kNonZero},
    {FrameKind::kOpen, "open", Direction::kToServer, 1, kMaxServiceNameBytes, Needs::kNonZero, Needs::kZero},
    {FrameKind::kCall, "call", Direction::kToServer, 3, kMaxCallBytes, Needs::kNonZero, Needs::kNonZero},
    {FrameKind::kOneWayCall, "one-way call", Direction::kToServer, 3, kMaxCallBytes, Needs::kNonZero, Needs::kZero},
    {FrameKind::kReply, "reply", Direction::kToClient, 0, kMaxReplyBytes, Needs::kNonZero, Needs::kNonZero},
    {FrameKind::kException, "exception", Direction::kToClient, 2, kMaxExceptionBytes, Needs::kNonZero, Needs::kAny},
    {FrameKind::kCallback, "callback", Direction::kToClient, 3, kMaxCallBytes, Needs::kNonZero, Needs::kZero},
    {FrameKind::kData, "data", Direction::kToClient, 0, kMaxDataMessageBytes, Needs::kNonZero, Needs::kZero},
    {FrameKind::kClose, "close", Direction::kToServer, 0, 0, Needs::kNonZero, Needs::kZero},
    {FrameKind::kHardStop, "hard stop", Direction::kToServer, 0, 0, Needs::kZero, Needs::kZero},
};

/// A name of an exception is a class name; the reason takes what is left.
constexpr size_t kMaxExceptionNameBytes = 256;
constexpr size_t kMaxReasonBytes = kMaxExceptionBytes - kMaxExceptionNameBytes - 8; // 8: the two lengths

bool satisfies(uint32_t value, Needs needs) { return needs == Needs::kAny || (value == 0) == (needs == Needs::kZero); }

Status refused(const KindRule& rule, const char* field, uint32_t value)
{
    return Status(Code::kInvalid, std::string(rule.name) + " frame with " + field + " " + std::to_string(value));
}

/// At most `limit` bytes of `text`, not cutting a UTF-8 sequence in two.
std::string_view cut(std::string_view text, size_t limit)
{
    if (text.size() <= limit)
        return text;
    while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xc0) == 0x80)
        --limit;
    return text.substr(0, limit);
}

} // namespace

Status checkHeader(const FrameHeader& header, Direction direction)
{
    const auto index = static_cast<size_t>(header.kind) - 1; // kinds count from 1; 0 wraps and is out of range
    if (index >= std::size(kRules) || kRules[index].direction != direction)
        return Status(Code::kInvalid, "frame of kind " + std::to_string(static_cast<unsigned>(header.kind)));
    const KindRule& rule = kRules[index];
    if (header.flags != 0)
        return refused(rule, "flags", header.flags);
    if (header.payloadBytes > rule.maxBytes)
        return Status(Code::kTooLarge,
                      std::string(rule.name) + " frame of " + std::to_string(header.payloadBytes) + " bytes, at most "
                          + std::to_string(rule.maxBytes));
    if (header.payloadBytes < rule.minBytes)
        return refused(rule, "length", header.payloadBytes);
    if (!satisfies(header.channel, rule.channel))
        return refused(rule, "channel", header.channel);
    if (!satisfies(header.id, rule.id))
        return refused(rule, "id", header.id);
    return {};
}

Result<std::vector<std::byte>> encodeCall(std::string_view selector, std::span<const Ref<Object>> arguments)
{
    if (selector.empty() || selector.size() > kMaxSelectorBytes)
        return Status(Code::kInvalid, "selector of " + std::to_string(selector.size()) + " bytes");
    ByteWriter writer;
    writer.reserve(sizeof(uint16_t) + selector.size());
    writer.little(static_cast<uint16_t>(selector.size()));
    writer.raw(selector.data(), selector.size());
    if (!arguments.empty()) {
        std::vector<Ref<Object>> items;
        items.reserve(arguments.size());
        for (const Ref<Object>& argument : arguments)
            items.push_back(argument ? argument : Ref<Object>(Null::create()));
        ASSIGN_OR_RETURN(const auto encoded,
                         writePropertyList(*Array::create(std::move(items)), PropertyListFormat::kBinary));
        if (encoded.size() > kMaxCallBytes - writer.size())
            return Status(Code::kTooLarge, "arguments of " + std::to_string(encoded.size()) + " bytes");
        writer.raw(encoded.data(), encoded.size());
    }
    return writer.take();
}

Result<DecodedCall> decodeCall(std::span<const std::byte> payload)
{
    ByteCursor cursor(payload);
    const auto length = cursor.little<uint16_t>();
    const auto selector = cursor.bytes(length, kMaxSelectorBytes);
    if (cursor.failed() || selector.empty())
        return Status(Code::kInvalid, "call with a selector of " + std::to_string(length) + " bytes");
    DecodedCall call{{reinterpret_cast<const char*>(selector.data()), selector.size()}, nullptr};
    if (cursor.atEnd()) {
        call.arguments = Array::create();
        return call;
    }
    ASSIGN_OR_RETURN(const Ref<Object> arguments, readPropertyList(payload.subspan(cursor.offset())));
    call.arguments = as<Array>(arguments);
    if (!call.arguments)
        return Status(Code::kInvalid, "call of " + call.selector + " whose arguments are no array");
    return call;
}

Result<std::vector<std::byte>> encodeAnswer(const Object* answer)
{
    if (!answer)
        return std::vector<std::byte>();
    ASSIGN_OR_RETURN(auto encoded, writePropertyList(*answer, PropertyListFormat::kBinary));
    if (encoded.size() > kMaxReplyBytes)
        return Status(Code::kTooLarge, "answer of " + std::to_string(encoded.size()) + " bytes");
    return encoded;
}

Result<Ref<Object>> decodeAnswer(std::span<const std::byte> payload)
{
    if (payload.empty())
        return Ref<Object>();
    return readPropertyList(payload);
}

std::vector<std::byte> encodeException(const Exception& exception)
{
    ByteWriter writer;
    writer.text(cut(exception.name(), kMaxExceptionNameBytes));
    writer.text(cut(exception.reason(), kMaxReasonBytes));
    return writer.take();
}

Result<Exception> decodeException(std::span<const std::byte> payload)
{
    ByteCursor cursor(payload);
    const std::string name(cursor.text(kMaxExceptionNameBytes));
    const std::string reason(cursor.text(kMaxExceptionBytes));
    if (!cursor.atEnd())
        return Status(Code::kInvalid, "exception frame whose texts do not fill it");
    return Exception(name, reason);
}

} // namespace vnt::queue
