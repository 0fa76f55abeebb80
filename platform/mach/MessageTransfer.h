#pragma once

#include <memory>

#include "platform/mach/PacketSocket.h"
#include "platform/mach/mach.h"

/// The two halves of mach_msg, also for callers that hold no receive right: servers on named connections.
namespace vnt {

/// Sends a message that stands in memory in the calling process's layout. The statuses of mach_msg.
mach_msg_return_t sendMessage(const mach_msg_header_t* message, size_t sizeBytes, const Deadline& deadline);

/// Receives the next message of a receive right into `buffer`.
mach_msg_return_t receiveMessage(mach_msg_header_t* buffer, size_t limitBytes, mach_port_name_t name,
                                 const Deadline& deadline);

/// One message in the calling process's layout, with the rights and the memory that came in it. What is not taken
/// goes with the object: a message that nobody handles leaves nothing behind. One thread.
class ReceivedMessage {
public:
    /// `localPort` is what the header will name as the port it arrived on; `localType` how it was addressed.
    /// Errors: kInvalid, kTooLarge, kUnsupported: a damaged or hostile packet; kSystem: memory or descriptors ran out.
    static Result<ReceivedMessage> fromPacket(Packet& packet, mach_port_name_t localPort, uint32_t localType);

    ReceivedMessage(ReceivedMessage&& other) noexcept { *this = std::move(other); }
    ReceivedMessage& operator=(ReceivedMessage&& other) noexcept;
    ~ReceivedMessage() { release(); }

    [[nodiscard]] const mach_msg_header_t& header() const;
    [[nodiscard]] std::span<const std::byte> bytes() const { return _bytes; }
    /// The message as the fixed layout `T`, or null when it is shorter. Alignment 4 as the layouts have it.
    template <typename T> [[nodiscard]] const T* as() const
    {
        static_assert(alignof(T) <= 4);
        return _bytes.size() < sizeof(T) ? nullptr : reinterpret_cast<const T*>(_bytes.data());
    }

    /// Memory of the out-of-line descriptor `index`; empty when that descriptor is not memory. Valid with the object.
    [[nodiscard]] std::span<const std::byte> memory(size_t index) const;
    /// Takes the right of the port descriptor `index`: the caller owns one reference. MACH_PORT_NULL if there is none.
    [[nodiscard]] mach_port_name_t takePort(size_t index);
    /// Takes the reply right; MACH_PORT_NULL if there is none. Once taken, dropping it unused tells the client
    /// (message id 71) only when mach_port_deallocate gives it up.
    [[nodiscard]] mach_port_name_t takeReplyPort();

    /// Gives up ownership of everything: for mach_msg, whose caller owns what arrived.
    void disown();

private:
    struct Item {
        mach_port_name_t port = MACH_PORT_NULL;
        std::span<std::byte> memory;
        size_t offset = 0; // of the descriptor in _bytes
    };
    ReceivedMessage() = default;
    void release();
    Status fill(struct Arrived& arrived, mach_port_name_t localPort, uint32_t localType);

    std::vector<std::byte> _bytes;
    std::vector<Item> _items; // by descriptor
    mach_port_name_t _reply = MACH_PORT_NULL;
    bool _owns = false;
};

} // namespace vnt
