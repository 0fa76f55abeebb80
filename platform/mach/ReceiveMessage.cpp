#include <cstring>

#include "platform/mach/MessageLayout.h"
#include "platform/mach/MessageTransfer.h"
#include "platform/mach/MessageWire.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PortTable.h"

namespace vnt {

/// A parsed packet and where its transmitted descriptors have been used up to.
struct Arrived {
    Packet& packet;
    const WireMessage& wire;
    size_t next = 0;

    UniqueFd takeDescriptor() { return std::move(packet.descriptors.at(next++)); }
};

namespace {

size_t nativeBytes(const WireMessage& wire)
{
    size_t size = kMessageHeaderBytes + wire.body.size();
    if (wire.header.complex)
        size += sizeof(mach_msg_body_t);
    for (const WireDescriptor& descriptor : wire.descriptors)
        size += descriptor.kind >= WireDescriptorKind::kInlineMemory ? sizeof(OutOfLineDescriptor<NativeAddress>)
                                                                     : sizeof(PortDescriptor);
    return size;
}

Result<mach_port_name_t> insertRight(UniqueFd fd, uint32_t arrivesAs)
{
    if (arrivesAs == MACH_MSG_TYPE_MOVE_SEND)
        return PortTable::shared().insertSend(std::move(fd));
    return PortTable::shared().insertSendOnce(std::move(fd));
}

template <typename T> void put(std::vector<std::byte>& bytes, const T& value)
{
    const auto* first = reinterpret_cast<const std::byte*>(&value);
    bytes.insert(bytes.end(), first, first + sizeof value);
}

} // namespace

ReceivedMessage& ReceivedMessage::operator=(ReceivedMessage&& other) noexcept
{
    std::swap(_bytes, other._bytes);
    std::swap(_items, other._items);
    std::swap(_reply, other._reply);
    std::swap(_owns, other._owns);
    return *this;
}

const mach_msg_header_t& ReceivedMessage::header() const
{
    return *reinterpret_cast<const mach_msg_header_t*>(_bytes.data());
}

Result<ReceivedMessage> ReceivedMessage::fromPacket(Packet& packet, mach_port_name_t localPort, uint32_t localType)
{
    ASSIGN_OR_RETURN(const WireMessage wire, parseMessage(packet));
    ReceivedMessage message;
    message._owns = true; // from here on a failure gives back what was taken so far
    Arrived arrived{packet, wire};
    RETURN_IF_ERROR(message.fill(arrived, localPort, localType));
    return message;
}

Status ReceivedMessage::fill(Arrived& arrived, mach_port_name_t localPort, uint32_t localType)
{
    const WireMessage& wire = arrived.wire;
    const size_t size = nativeBytes(wire);
    if (size > kMaxMessageBytes)
        return Status(Code::kTooLarge, "port message too large for this process");
    _bytes.reserve(size);
    mach_msg_header_t header{};
    header.msgh_size = static_cast<uint32_t>(size);
    header.msgh_id = wire.header.id;
    header.msgh_local_port = localPort;
    header.msgh_bits = MACH_MSGH_BITS(uint32_t{wire.header.replyArrivesAs}, localType);
    if (wire.header.replyArrivesAs != 0) {
        ASSIGN_OR_RETURN(_reply, insertRight(arrived.takeDescriptor(), wire.header.replyArrivesAs));
        header.msgh_remote_port = _reply;
    }
    if (wire.header.complex)
        header.msgh_bits |= MACH_MSGH_BITS_COMPLEX;
    put(_bytes, header);
    if (wire.header.complex)
        put(_bytes, mach_msg_body_t{wire.header.descriptorCount});

    _items.resize(wire.descriptors.size());
    for (size_t i = 0; i < _items.size(); ++i) {
        const WireDescriptor& descriptor = wire.descriptors[i];
        Item& item = _items[i];
        item.offset = _bytes.size();
        if (descriptor.kind >= WireDescriptorKind::kInlineMemory) {
            const auto bytes = static_cast<size_t>(descriptor.sizeBytes); // at most kMaxOutOfLineBytes
            ASSIGN_OR_RETURN(Mapping mapping,
                             descriptor.kind == WireDescriptorKind::kInlineMemory
                                 ? mapCopy(wire.inlineMemory[i])
                                 : mapSealedMemory(arrived.takeDescriptor().get(), bytes));
            item.memory = publishRegion(std::move(mapping));
            OutOfLineDescriptor<NativeAddress> native{};
            native.address = reinterpret_cast<uintptr_t>(item.memory.data());
            native.flags = outOfLineFlags(/*deallocate=*/false);
            native.size = static_cast<uint32_t>(bytes);
            put(_bytes, native);
        } else {
            if (descriptor.kind == WireDescriptorKind::kPort) {
                ASSIGN_OR_RETURN(item.port, insertRight(arrived.takeDescriptor(), descriptor.arrivesAs));
            }
            const bool dead = descriptor.kind == WireDescriptorKind::kDeadPort;
            put(_bytes, PortDescriptor{dead ? MACH_PORT_DEAD : item.port, 0, portFlags(descriptor.arrivesAs)});
        }
    }
    _bytes.insert(_bytes.end(), wire.body.begin(), wire.body.end());
    return {};
}

std::span<const std::byte> ReceivedMessage::memory(size_t index) const
{
    return index < _items.size() ? _items[index].memory : std::span<std::byte>();
}

mach_port_name_t ReceivedMessage::takePort(size_t index)
{
    return index < _items.size() ? std::exchange(_items[index].port, MACH_PORT_NULL) : MACH_PORT_NULL;
}

mach_port_name_t ReceivedMessage::takeReplyPort() { return std::exchange(_reply, MACH_PORT_NULL); }

void ReceivedMessage::disown() { _owns = false; }

void ReceivedMessage::release()
{
    if (!std::exchange(_owns, false))
        return;
    PortTable& table = PortTable::shared();
    if (_reply != MACH_PORT_NULL)
        (void)table.deallocate(_reply); // used up by an answer is fine
    for (const Item& item : _items) {
        if (item.port != MACH_PORT_NULL)
            (void)table.deallocate(item.port);
        if (!item.memory.empty())
            (void)releaseRegion(item.memory.data());
    }
}

namespace {

mach_msg_return_t deliver(Packet& packet, mach_msg_header_t* buffer, size_t limitBytes, mach_port_name_t name,
                          uint32_t localType)
{
    auto message = ReceivedMessage::fromPacket(packet, name, localType);
    if (!message.ok())
        return message.code() == Code::kSystem ? MACH_RCV_BODY_ERROR : MACH_RCV_INVALID_DATA;
    const auto bytes = message.value().bytes();
    if (bytes.size() > limitBytes)
        return MACH_RCV_TOO_LARGE; // destroyed with what it carried
    std::memcpy(buffer, bytes.data(), bytes.size());
    message.value().disown();
    return KERN_SUCCESS;
}

mach_msg_return_t deliverNotification(mach_msg_header_t* buffer, size_t limitBytes, mach_port_name_t name)
{
    if (limitBytes < sizeof *buffer)
        return MACH_RCV_TOO_LARGE;
    *buffer = {};
    buffer->msgh_bits = MACH_MSGH_BITS(0u, uint32_t{MACH_MSG_TYPE_MOVE_SEND_ONCE});
    buffer->msgh_size = sizeof *buffer;
    buffer->msgh_local_port = name;
    buffer->msgh_id = MACH_NOTIFY_SEND_ONCE;
    return KERN_SUCCESS;
}

} // namespace

mach_msg_return_t receiveMessage(mach_msg_header_t* buffer, size_t limitBytes, mach_port_name_t name,
                                 const Deadline& deadline)
{
    const Ref<Port> port = PortTable::shared().receiveRight(name);
    if (!port)
        return MACH_RCV_INVALID_NAME;
    if (!buffer)
        return MACH_RCV_INVALID_DATA;
    for (;;) {
        Packet packet;
        const auto arrival = port->waitForArrival(deadline, packet);
        if (!arrival.ok())
            return MACH_RCV_BODY_ERROR;
        switch (arrival.value()) {
        case Port::Arrival::kReply:
            return deliver(packet, buffer, limitBytes, name, MACH_MSG_TYPE_MOVE_SEND_ONCE);
        case Port::Arrival::kMessage: {
            const mach_msg_return_t status = deliver(packet, buffer, limitBytes, name, MACH_MSG_TYPE_MOVE_SEND);
            // Any holder of a send right may send rubbish: it must not end the wait for the others' messages.
            if (status == MACH_RCV_INVALID_DATA)
                continue;
            return status;
        }
        case Port::Arrival::kSendOnceClosed:
            return deliverNotification(buffer, limitBytes, name);
        case Port::Arrival::kDamagedReply:
            return MACH_RCV_BODY_ERROR;
        case Port::Arrival::kTimedOut:
            return MACH_RCV_TIMED_OUT;
        case Port::Arrival::kDead:
            return MACH_RCV_PORT_DIED;
        }
    }
}

} // namespace vnt
