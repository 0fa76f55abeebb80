#include <cstring>

#include "platform/mach/MessageLayout.h"
#include "platform/mach/MessageTransfer.h"
#include "platform/mach/MessageWire.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PortTable.h"

namespace vnt {
namespace {

/// One message on its way: what of it lies where, and the rights that leave with it.
class Outgoing {
public:
    Outgoing(const mach_msg_header_t* message, size_t sizeBytes)
        : _bytes(reinterpret_cast<const std::byte*>(message), sizeBytes),
          _header(*message)
    {
    }

    mach_msg_return_t collect();
    mach_msg_return_t transmit(const Deadline& deadline);

private:
    struct Item {
        WireDescriptor wire;
        std::span<const std::byte> memory;
        bool deallocate = false;
        PreparedRight right;
        UniqueFd memoryFile;
    };

    mach_msg_return_t collectReply();
    mach_msg_return_t collectDescriptors(uint32_t count);
    mach_msg_return_t collectPort(const PortDescriptor& descriptor, Item& item);
    mach_msg_return_t collectMemory(const OutOfLineDescriptor<NativeAddress>& descriptor, Item& item);
    Status sealMemory(size_t inlineLimitBytes);
    Status sendOnce(const Deadline& deadline);
    void commit();

    const std::span<const std::byte> _bytes;
    const mach_msg_header_t _header;
    PreparedRight _destination, _reply;
    std::vector<Item> _items;
    std::span<const std::byte> _body;
};

mach_msg_return_t rightStatus(kern_return_t status)
{
    switch (status) {
    case KERN_SUCCESS:
        return KERN_SUCCESS;
    case KERN_RESOURCE_SHORTAGE:
        return MACH_SEND_NO_BUFFER;
    case KERN_INVALID_VALUE:
        return MACH_SEND_INVALID_TYPE;
    default:
        return MACH_SEND_INVALID_RIGHT;
    }
}

mach_msg_return_t Outgoing::collect()
{
    const uint32_t remoteType = _header.msgh_bits & 0xff;
    const kern_return_t found = PortTable::shared().prepare(_header.msgh_remote_port, remoteType, _destination);
    if (found == KERN_INVALID_VALUE)
        return MACH_SEND_INVALID_HEADER;
    if (found == KERN_RESOURCE_SHORTAGE)
        return MACH_SEND_NO_BUFFER;
    // A send-once right made for its own message reaches nobody else: refused like any other useless destination.
    if (found != KERN_SUCCESS || _destination.descriptor < 0 || _destination.given)
        return MACH_SEND_INVALID_DEST;
    if (const mach_msg_return_t status = collectReply(); status != KERN_SUCCESS)
        return status;
    _body = _bytes.subspan(kMessageHeaderBytes);
    if ((_header.msgh_bits & MACH_MSGH_BITS_COMPLEX) == 0)
        return KERN_SUCCESS;
    mach_msg_body_t body{};
    if (_body.size() < sizeof body)
        return MACH_SEND_INVALID_HEADER;
    std::memcpy(&body, _body.data(), sizeof body);
    _body = _body.subspan(sizeof body);
    return collectDescriptors(body.msgh_descriptor_count);
}

mach_msg_return_t Outgoing::collectReply()
{
    const uint32_t localType = _header.msgh_bits >> 8 & 0xff;
    if (localType == 0)
        return _header.msgh_local_port == MACH_PORT_NULL ? mach_msg_return_t{KERN_SUCCESS}
                                                         : mach_msg_return_t{MACH_SEND_INVALID_HEADER};
    const kern_return_t status = PortTable::shared().prepare(_header.msgh_local_port, localType, _reply);
    return status == KERN_INVALID_VALUE || status == KERN_INVALID_RIGHT || status == KERN_INVALID_NAME
        ? mach_msg_return_t{MACH_SEND_INVALID_HEADER}
        : rightStatus(status);
}

mach_msg_return_t Outgoing::collectDescriptors(uint32_t count)
{
    if (count > kMaxMessageDescriptors)
        return MACH_SEND_TOO_LARGE;
    _items.resize(count);
    for (Item& item : _items) {
        uint32_t flags = 0;
        if (_body.size() < kDescriptorFlagsOffset + sizeof flags)
            return MACH_SEND_INVALID_HEADER;
        std::memcpy(&flags, _body.data() + kDescriptorFlagsOffset, sizeof flags);
        mach_msg_return_t status = MACH_SEND_INVALID_TYPE;
        if (descriptorType(flags) == MACH_MSG_PORT_DESCRIPTOR) {
            PortDescriptor descriptor{};
            std::memcpy(&descriptor, _body.data(), sizeof descriptor);
            status = collectPort(descriptor, item);
            _body = _body.subspan(sizeof descriptor);
        } else if (descriptorType(flags) == MACH_MSG_OOL_DESCRIPTOR) {
            OutOfLineDescriptor<NativeAddress> descriptor{};
            if (_body.size() < sizeof descriptor)
                return MACH_SEND_INVALID_HEADER;
            std::memcpy(&descriptor, _body.data(), sizeof descriptor);
            status = collectMemory(descriptor, item);
            _body = _body.subspan(sizeof descriptor);
        }
        if (status != KERN_SUCCESS)
            return status;
    }
    return KERN_SUCCESS;
}

mach_msg_return_t Outgoing::collectPort(const PortDescriptor& descriptor, Item& item)
{
    const kern_return_t status =
        PortTable::shared().prepare(descriptor.name, portDisposition(descriptor.flags), item.right);
    if (status != KERN_SUCCESS)
        return rightStatus(status);
    item.wire.arrivesAs = static_cast<uint8_t>(item.right.arrivesAs);
    item.wire.kind = item.right.descriptor >= 0 ? WireDescriptorKind::kPort
        : item.right.dead                       ? WireDescriptorKind::kDeadPort
                                                : WireDescriptorKind::kNullPort;
    return KERN_SUCCESS;
}

mach_msg_return_t Outgoing::collectMemory(const OutOfLineDescriptor<NativeAddress>& descriptor, Item& item)
{
    if (descriptor.size > kMaxOutOfLineBytes)
        return MACH_SEND_TOO_LARGE;
    if (descriptor.size != 0 && descriptor.address == 0)
        return MACH_SEND_INVALID_DATA;
    item.memory = {reinterpret_cast<const std::byte*>(static_cast<uintptr_t>(descriptor.address)), descriptor.size};
    item.deallocate = wantsDeallocate(descriptor.flags);
    item.wire.kind = WireDescriptorKind::kInlineMemory;
    item.wire.sizeBytes = descriptor.size;
    return KERN_SUCCESS;
}

/// Puts memory into files until at most `inlineLimitBytes` remain inside the packet.
Status Outgoing::sealMemory(size_t inlineLimitBytes)
{
    size_t inlineBytes = 0;
    for (Item& item : _items) {
        if (item.wire.kind != WireDescriptorKind::kInlineMemory || item.memory.empty())
            continue;
        if (item.memory.size() <= inlineLimitBytes - inlineBytes) {
            inlineBytes += item.memory.size();
            continue;
        }
        ASSIGN_OR_RETURN(item.memoryFile, makeSealedMemory(item.memory));
        item.wire.kind = WireDescriptorKind::kMemoryFile;
    }
    return {};
}

Status Outgoing::sendOnce(const Deadline& deadline)
{
    std::vector<WireDescriptor> wire;
    std::vector<int> descriptors;
    std::vector<iovec> parts(2);
    if (_reply.descriptor >= 0)
        descriptors.push_back(_reply.descriptor);
    for (const Item& item : _items) {
        wire.push_back(item.wire);
        if (item.wire.kind == WireDescriptorKind::kPort)
            descriptors.push_back(item.right.descriptor);
        else if (item.wire.kind == WireDescriptorKind::kMemoryFile)
            descriptors.push_back(item.memoryFile.get());
        else if (item.wire.kind == WireDescriptorKind::kInlineMemory && !item.memory.empty())
            parts.push_back({const_cast<std::byte*>(item.memory.data()), item.memory.size()}); // only read
    }
    WireHeader header;
    header.id = _header.msgh_id;
    header.complex = (_header.msgh_bits & MACH_MSGH_BITS_COMPLEX) != 0;
    header.replyArrivesAs = _reply.descriptor >= 0 ? static_cast<uint8_t>(_reply.arrivesAs) : uint8_t{0};
    header.bodyBytes = static_cast<uint32_t>(_body.size());
    std::vector<std::byte> head = encodeMessageHead(header, wire);
    parts[0] = {head.data(), head.size()};
    parts[1] = {const_cast<std::byte*>(_body.data()), _body.size()}; // only read
    return sendPacket(_destination.descriptor, parts, descriptors, deadline);
}

void Outgoing::commit()
{
    PortTable& table = PortTable::shared();
    table.commit(_reply);
    table.commit(_destination);
    for (Item& item : _items) {
        if (item.right.disposition != 0)
            table.commit(item.right);
        if (item.deallocate)
            (void)releaseRegion(item.memory.data()); // memory that did not arrive in a message stays its owner's
    }
}

mach_msg_return_t Outgoing::transmit(const Deadline& deadline)
{
    Status status = sealMemory(kMaxInlineMemoryBytes);
    if (status.ok())
        status = sendOnce(deadline);
    if (status.code() == Code::kTooLarge) {
        // A host with smaller socket buffers than usual: everything that can goes beside the packet.
        status = sealMemory(0);
        if (status.ok())
            status = sendOnce(deadline);
    }
    switch (status.code()) {
    case Code::kOk:
        commit();
        return KERN_SUCCESS;
    case Code::kPeerGone:
        return MACH_SEND_INVALID_DEST;
    case Code::kTimedOut:
        return MACH_SEND_TIMED_OUT;
    case Code::kTooLarge:
        return MACH_SEND_TOO_LARGE;
    default:
        return MACH_SEND_NO_BUFFER;
    }
}

} // namespace

mach_msg_return_t sendMessage(const mach_msg_header_t* message, size_t sizeBytes, const Deadline& deadline)
{
    if (!message)
        return MACH_SEND_INVALID_DATA;
    if (sizeBytes < kMessageHeaderBytes)
        return MACH_SEND_INVALID_HEADER;
    if (sizeBytes > kMaxMessageBytes)
        return MACH_SEND_TOO_LARGE;
    Outgoing outgoing(message, sizeBytes);
    const mach_msg_return_t status = outgoing.collect();
    return status == KERN_SUCCESS ? outgoing.transmit(deadline) : status;
}

} // namespace vnt
