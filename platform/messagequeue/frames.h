#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Status.h"
#include "platform/foundation/Error.h"

/// The frames of the message queue's connection, both ends (docs/protocol-queue.md).
namespace vnt::queue {

inline constexpr uint32_t kProtocolVersion = 1;
inline constexpr char kHelloMagic[8] = {'V', 'N', 'T', 'Q', 'U', 'E', 'U', 'E'};

enum class FrameKind : uint16_t {
    kHello = 1, ///< client, first frame: id is the protocol version, payload kHelloMagic
    kOpen, ///< client: opens `channel` for the service named by the payload
    kCall, ///< client: selector and arguments; answered by kReply or kException of the same id
    kOneWayCall, ///< client: as kCall with id 0; answered only by an exception, if at all
    kReply, ///< server: empty payload (null) or a binary property list
    kException, ///< server: name and reason; id of the call, or 0 outside any call
    kCallback, ///< server: selector and arguments, one-way
    kData, ///< server: one data message, opaque
    kClose, ///< client: closes `channel`
    kHardStop, ///< client: the connection ends now
};

/// In front of every payload; little-endian. It has the size of a message stream's frame header, so that a received
/// data frame becomes a stream frame where it lies.
struct FrameHeader {
    uint32_t payloadBytes = 0;
    FrameKind kind{};
    uint16_t flags = 0; ///< none defined: must be 0
    uint32_t channel = 0; ///< numbered by the client from 1, never reused; 0 is the connection itself
    uint32_t id = 0;
};
static_assert(sizeof(FrameHeader) == 16);

/// A longer name of a service is refused: ours have about 40 characters.
inline constexpr size_t kMaxServiceNameBytes = 256;
/// A selector is a method name.
inline constexpr size_t kMaxSelectorBytes = 256;
/// Room for the arguments of a request and for a signature carried by a callback.
inline constexpr uint32_t kMaxCallBytes = 16u << 20;
/// The largest answers are signatures of processes with many modules, and the kernel's events as XML.
inline constexpr uint32_t kMaxReplyBytes = 64u << 20;
/// Exceptions carry sentences, longer ones are cut when sent.
inline constexpr uint32_t kMaxExceptionBytes = 64u << 10;
/// Services open at once on one connection; a session opens about ten.
inline constexpr size_t kMaxOpenServices = 1024;

enum class Direction { kToServer, kToClient };

/// Checks everything that a header alone can tell: kind and direction, flags, length against the kind's limit,
/// channel and id zero or not as the kind demands. Errors: kInvalid, kTooLarge, with the field and its value.
Status checkHeader(const FrameHeader& header, Direction direction);

/// Payload of a call or callback: u16 selector length, selector, then nothing for no arguments or a binary
/// property list holding their array. Null arguments travel as Null. Errors: kInvalid for a selector that is empty or
/// too long, kUnsupported for an argument that cannot be encoded, kTooLarge past kMaxCallBytes.
Result<std::vector<std::byte>> encodeCall(std::string_view selector, std::span<const Ref<Object>> arguments);

struct DecodedCall {
    std::string selector;
    Ref<Array> arguments; ///< never null
};
Result<DecodedCall> decodeCall(std::span<const std::byte> payload);

/// Payload of a reply; null gives an empty one.
Result<std::vector<std::byte>> encodeAnswer(const Object* answer);
/// Null for an empty payload.
Result<Ref<Object>> decodeAnswer(std::span<const std::byte> payload);

/// Payload of an exception: two texts, each with a varint length. What is too long is cut.
std::vector<std::byte> encodeException(const Exception& exception);
Result<Exception> decodeException(std::span<const std::byte> payload);

} // namespace vnt::queue
