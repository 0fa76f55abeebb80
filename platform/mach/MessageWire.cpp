#include "platform/mach/MessageWire.h"

#include "platform/base/ByteCursor.h"
#include "platform/base/ByteWriter.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/mach.h"

namespace vnt {
namespace {

constexpr uint8_t kComplexFlag = 1;

bool isMovedRight(uint8_t type) { return type == MACH_MSG_TYPE_MOVE_SEND || type == MACH_MSG_TYPE_MOVE_SEND_ONCE; }

Status parseHeader(ByteCursor& cursor, WireHeader& header)
{
    const auto magic = cursor.little<uint32_t>();
    const auto version = cursor.little<uint16_t>();
    header.descriptorCount = cursor.little<uint16_t>();
    header.id = cursor.little<int32_t>();
    header.bodyBytes = cursor.little<uint32_t>();
    const auto flags = cursor.little<uint8_t>();
    header.replyArrivesAs = cursor.little<uint8_t>();
    const auto reserved = uint32_t{cursor.little<uint16_t>()} | cursor.little<uint32_t>();
    if (cursor.failed() || magic != kMessageMagic)
        return Status(Code::kInvalid, "not a port message");
    if (version != kMessageVersion)
        return Status(Code::kUnsupported, "port message of version " + std::to_string(version));
    header.complex = (flags & kComplexFlag) != 0;
    if (reserved != 0 || (flags & ~kComplexFlag) != 0 || (!header.complex && header.descriptorCount != 0)
        || (header.replyArrivesAs != 0 && !isMovedRight(header.replyArrivesAs)))
        return Status(Code::kInvalid, "port message with an impossible header");
    if (header.descriptorCount > kMaxMessageDescriptors || header.bodyBytes > kMaxMessageBytes)
        return Status(Code::kTooLarge, "port message past its limits");
    return {};
}

Status parseDescriptor(ByteCursor& cursor, WireDescriptor& descriptor)
{
    const auto kind = cursor.little<uint8_t>();
    descriptor.kind = static_cast<WireDescriptorKind>(kind);
    descriptor.arrivesAs = cursor.little<uint8_t>();
    const auto reserved = uint32_t{cursor.little<uint16_t>()} | cursor.little<uint32_t>();
    descriptor.sizeBytes = cursor.little<uint64_t>();
    if (cursor.failed() || kind > static_cast<uint8_t>(WireDescriptorKind::kMemoryFile) || reserved != 0)
        return Status(Code::kInvalid, "port message with an unknown descriptor");
    const bool memory = descriptor.kind >= WireDescriptorKind::kInlineMemory;
    if (memory ? descriptor.arrivesAs != 0 : !isMovedRight(descriptor.arrivesAs) || descriptor.sizeBytes != 0)
        return Status(Code::kInvalid, "port message with an impossible descriptor");
    return {};
}

Status checkTransmitted(const Packet& packet, const WireMessage& message)
{
    size_t next = 0;
    const auto takePort = [&] {
        return next < packet.descriptors.size() && isPortSocket(packet.descriptors[next++].get());
    };
    if (message.header.replyArrivesAs != 0 && !takePort())
        return Status(Code::kInvalid, "port message without its reply right");
    for (const WireDescriptor& descriptor : message.descriptors) {
        if (descriptor.kind == WireDescriptorKind::kPort && !takePort())
            return Status(Code::kInvalid, "port message without a right it names");
        // What the file is, mapSealedMemory() checks.
        if (descriptor.kind == WireDescriptorKind::kMemoryFile && next++ >= packet.descriptors.size())
            return Status(Code::kInvalid, "port message without memory it names");
    }
    if (next != packet.descriptors.size())
        return Status(Code::kInvalid, "port message with descriptors it does not name");
    return {};
}

} // namespace

std::vector<std::byte> encodeMessageHead(const WireHeader& header, std::span<const WireDescriptor> descriptors)
{
    ByteWriter writer;
    writer.reserve(kWireHeaderBytes + descriptors.size() * kWireDescriptorBytes);
    writer.little(kMessageMagic);
    writer.little(kMessageVersion);
    writer.little(static_cast<uint16_t>(descriptors.size()));
    writer.little(header.id);
    writer.little(header.bodyBytes);
    writer.little(header.complex ? kComplexFlag : uint8_t{0});
    writer.little(header.replyArrivesAs);
    writer.little(uint16_t{0});
    writer.little(uint32_t{0});
    VNT_CHECK(writer.size() == kWireHeaderBytes);
    for (const WireDescriptor& descriptor : descriptors) {
        writer.little(static_cast<uint8_t>(descriptor.kind));
        writer.little(descriptor.arrivesAs);
        writer.little(uint16_t{0});
        writer.little(uint32_t{0});
        writer.little(descriptor.sizeBytes);
    }
    return writer.take();
}

Result<WireMessage> parseMessage(const Packet& packet)
{
    ByteCursor cursor(packet.bytes);
    WireMessage message;
    RETURN_IF_ERROR(parseHeader(cursor, message.header));
    message.descriptors.resize(message.header.descriptorCount);
    uint64_t memoryBytes = 0;
    for (WireDescriptor& descriptor : message.descriptors) {
        RETURN_IF_ERROR(parseDescriptor(cursor, descriptor));
        // Each size is checked before it is added, so that the sum cannot wrap.
        if (descriptor.sizeBytes > kMaxOutOfLineBytes || (memoryBytes += descriptor.sizeBytes) > kMaxOutOfLineBytes)
            return Status(Code::kTooLarge, "port message with too much memory");
    }
    message.body = cursor.bytes(message.header.bodyBytes, kMaxMessageBytes);
    message.inlineMemory.resize(message.descriptors.size());
    for (size_t i = 0; i < message.descriptors.size(); ++i) {
        if (message.descriptors[i].kind == WireDescriptorKind::kInlineMemory)
            message.inlineMemory[i] = cursor.bytes(message.descriptors[i].sizeBytes, kMaxInlineMemoryBytes);
    }
    if (!cursor.atEnd())
        return Status(Code::kInvalid, "port message of another length than announced");
    RETURN_IF_ERROR(checkTransmitted(packet, message));
    return message;
}

} // namespace vnt
