#pragma once

#include <memory>
#include <vector>

#include "platform/base/Mutex.h"
#include "platform/base/Ref.h"
#include "platform/mach/PacketSocket.h"

namespace vnt {

struct TaskFiles;

/// What a port name of this process stands for. A receive right is one socket pair: messages arrive at one end, the
/// other is what every send right duplicates. Beside it stand the waiting ends of the send-once rights made from it,
/// each a pair of its own. A send or send-once right is the sending end alone.
///
/// Owned by the port table and by the calls in progress, so that no descriptor is closed, and its number given to
/// another file, while a thread polls it. Any thread.
class Port final : public RefCounted {
public:
    /// A receive right whose socket pair is made now (mach_port_allocate).
    static Result<Ref<Port>> createReceive();
    /// A thread's reply port: no sockets until a right is made from it. Only its own thread makes rights from it, so a
    /// wait needs no way to learn of new ones.
    static Ref<Port> createReply();
    static Ref<Port> forSending(UniqueFd sendEnd);

    /// The sending end, -1 for a reply port from which no send right was made. Lives as long as this object.
    [[nodiscard]] int sendEnd();
    /// Makes the socket pair of a receive right unless it is there.
    Status ensurePair();

    /// A new send-once right: the end to give away. Its waiting end joins this port with addWaitingEnd() when the
    /// right has really left.
    static Result<std::pair<UniqueFd, UniqueFd>> makeSendOncePair();
    void addWaitingEnd(UniqueFd waitingEnd);

    enum class Arrival {
        kMessage, ///< by a send right
        kReply, ///< by a send-once right, which is used up
        kSendOnceClosed, ///< the last holder of a send-once right went without using it
        kDamagedReply, ///< a send-once right was used, but what it carried could not be received
        kTimedOut,
        kDead, ///< the receive right was destroyed
    };
    /// Waits for the next arrival; several threads may wait, one gets it.
    Result<Arrival> waitForArrival(const Deadline& deadline, Packet& packet);

    /// Ends the receive right: senders see it die, waiters return kDead. Queued messages go with this object.
    void destroyReceive();

    /// What a send right holds that is a task port (TaskPort.h), opened at the first call and kept as long as this
    /// object.
    Result<std::shared_ptr<const TaskFiles>> taskFiles();

    /// For tests: threads that wait at this moment.
    [[nodiscard]] unsigned waitersForTesting();

private:
    VNT_MAKE_REF_FRIEND;
    enum class Kind { kReceive, kReply, kSending };
    explicit Port(Kind kind) : _kind(kind) { }

    using SharedFd = std::shared_ptr<UniqueFd>;
    struct Watched;
    Status watchLocked(Watched& watched) VNT_REQUIRES(_mutex);
    void unwatchLocked() VNT_REQUIRES(_mutex);
    bool takeLocked(const Watched& watched, Packet& packet, Arrival& arrival) VNT_REQUIRES(_mutex);
    bool takeFromWaitingEndLocked(const SharedFd& end, Packet& packet, Arrival& arrival) VNT_REQUIRES(_mutex);
    bool takeFromPairLocked(short events, Packet& packet, Arrival& arrival) VNT_REQUIRES(_mutex);
    void wakeLocked() VNT_REQUIRES(_mutex);

    const Kind _kind;
    Mutex _mutex;
    UniqueFd _receiveEnd VNT_GUARDED_BY(_mutex); // set once, closed with this object
    UniqueFd _sendEnd VNT_GUARDED_BY(_mutex); // set once, closed with this object
    std::vector<SharedFd> _waitingEnds VNT_GUARDED_BY(_mutex);
    SharedFd _wake VNT_GUARDED_BY(_mutex); // event descriptor of the present waiters
    std::shared_ptr<const TaskFiles> _task VNT_GUARDED_BY(_mutex);
    unsigned _waiters VNT_GUARDED_BY(_mutex) = 0;
    bool _dead VNT_GUARDED_BY(_mutex) = false;
};

} // namespace vnt
