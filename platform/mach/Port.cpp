#include "platform/mach/Port.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "platform/base/sys.h"
#include "platform/mach/TaskPort.h"

namespace vnt {

/// What one wait polls: the waiting ends in order, then the pair's end and the wake-up, where they exist.
struct Port::Watched {
    std::vector<pollfd> polled;
    std::vector<SharedFd> ends; // the first ends.size() entries of `polled`
    SharedFd wake;
    bool hasPair = false;
};

Result<Ref<Port>> Port::createReceive()
{
    Ref<Port> port = makeRef<Port>(Kind::kReceive);
    RETURN_IF_ERROR(port->ensurePair());
    return port;
}

Ref<Port> Port::createReply() { return makeRef<Port>(Kind::kReply); }

Ref<Port> Port::forSending(UniqueFd sendEnd)
{
    Ref<Port> port = makeRef<Port>(Kind::kSending);
    MutexLock lock(port->_mutex);
    port->_sendEnd = std::move(sendEnd);
    return port;
}

int Port::sendEnd()
{
    MutexLock lock(_mutex);
    return _sendEnd.get();
}

Status Port::ensurePair()
{
    MutexLock lock(_mutex);
    if (_dead)
        return Status(Code::kPeerGone, "the receive right is destroyed");
    if (_sendEnd)
        return {};
    ASSIGN_OR_RETURN(auto pair, sys::socketPair(SOCK_SEQPACKET));
    _receiveEnd = std::move(pair.first);
    _sendEnd = std::move(pair.second);
    wakeLocked();
    return {};
}

Result<std::pair<UniqueFd, UniqueFd>> Port::makeSendOncePair() { return sys::socketPair(SOCK_SEQPACKET); }

void Port::addWaitingEnd(UniqueFd waitingEnd)
{
    MutexLock lock(_mutex);
    if (_dead)
        return; // closing the end tells the holder
    _waitingEnds.push_back(std::make_shared<UniqueFd>(std::move(waitingEnd)));
    wakeLocked();
}

void Port::wakeLocked()
{
    if (!_wake)
        return;
    const uint64_t one = 1;
    (void)::write(_wake->get(), &one, sizeof one); // cannot block: a fresh event counter
    // The waiters keep the old one until they have looked again; later waits get another.
    _wake.reset();
}

void Port::destroyReceive()
{
    MutexLock lock(_mutex);
    _dead = true;
    // shutdown(2) reaches the peers at once and wakes our own pollers; the descriptors close with their last user.
    for (const SharedFd& end : _waitingEnds)
        (void)::shutdown(end->get(), SHUT_RDWR);
    _waitingEnds.clear();
    if (_receiveEnd)
        (void)::shutdown(_receiveEnd.get(), SHUT_RDWR);
    wakeLocked();
}

Result<std::shared_ptr<const TaskFiles>> Port::taskFiles()
{
    MutexLock lock(_mutex);
    if (_task)
        return _task;
    if (_kind != Kind::kSending)
        return Status(Code::kInvalid, "not a task port");
    ASSIGN_OR_RETURN(TaskFiles files, readTaskRight(_sendEnd.get()));
    _task = std::make_shared<const TaskFiles>(std::move(files));
    return _task;
}

unsigned Port::waitersForTesting()
{
    MutexLock lock(_mutex);
    return _waiters;
}

Status Port::watchLocked(Watched& watched)
{
    watched.ends = _waitingEnds;
    for (const SharedFd& end : watched.ends)
        watched.polled.push_back({end->get(), POLLIN, 0});
    watched.hasPair = _receiveEnd.valid();
    if (watched.hasPair)
        watched.polled.push_back({_receiveEnd.get(), POLLIN | POLLRDHUP, 0});
    if (_kind != Kind::kReply || watched.polled.empty()) {
        if (!_wake) {
            ASSIGN_OR_RETURN(UniqueFd event, sys::makeEventFd());
            _wake = std::make_shared<UniqueFd>(std::move(event));
        }
        watched.wake = _wake;
        watched.polled.push_back({_wake->get(), POLLIN, 0});
    }
    ++_waiters;
    return {};
}

void Port::unwatchLocked()
{
    if (--_waiters == 0)
        _wake.reset();
}

bool Port::takeFromWaitingEndLocked(const SharedFd& end, Packet& packet, Arrival& arrival)
{
    const auto found = std::find(_waitingEnds.begin(), _waitingEnds.end(), end);
    if (found == _waitingEnds.end())
        return false; // another thread took its message
    switch (tryReceivePacket(end->get(), kMaxPacketBytes, packet)) {
    case ReceiveOutcome::kNothing:
        return false;
    case ReceiveOutcome::kPacket:
        arrival = Arrival::kReply;
        break;
    case ReceiveOutcome::kClosed:
        arrival = Arrival::kSendOnceClosed;
        break;
    case ReceiveOutcome::kRejected:
        arrival = Arrival::kDamagedReply;
        break;
    }
    _waitingEnds.erase(found);
    return true;
}

bool Port::takeFromPairLocked(short events, Packet& packet, Arrival& arrival)
{
    switch (tryReceivePacket(_receiveEnd.get(), kMaxPacketBytes, packet)) {
    case ReceiveOutcome::kPacket:
        arrival = Arrival::kMessage;
        return true;
    case ReceiveOutcome::kClosed:
        // We hold a sending end ourselves: only a shutdown(2) by some holder ends the stream. The port is of no use
        // any more then. Without it the packet was an empty one, which nobody of ours sends.
        if ((events & (POLLRDHUP | POLLHUP)) == 0)
            return false;
        _dead = true;
        arrival = Arrival::kDead;
        return true;
    case ReceiveOutcome::kNothing:
    case ReceiveOutcome::kRejected: // that sender's loss
        return false;
    }
    VNT_UNREACHABLE();
}

bool Port::takeLocked(const Watched& watched, Packet& packet, Arrival& arrival)
{
    if (_dead) {
        arrival = Arrival::kDead;
        return true;
    }
    for (size_t i = 0; i < watched.ends.size(); ++i) {
        if (watched.polled[i].revents != 0 && takeFromWaitingEndLocked(watched.ends[i], packet, arrival))
            return true;
    }
    if (!watched.hasPair)
        return false;
    const short events = watched.polled[watched.ends.size()].revents;
    return events != 0 && takeFromPairLocked(events, packet, arrival);
}

Result<Port::Arrival> Port::waitForArrival(const Deadline& deadline, Packet& packet)
{
    for (;;) {
        Watched watched;
        {
            MutexLock lock(_mutex);
            if (_dead || _kind == Kind::kSending)
                return Arrival::kDead;
            RETURN_IF_ERROR(watchLocked(watched));
        }
        const Result<int> ready = sys::pollFds(watched.polled, timeLeft(deadline));
        MutexLock lock(_mutex);
        unwatchLocked();
        RETURN_IF_ERROR(ready.status());
        Arrival arrival = Arrival::kTimedOut;
        if (takeLocked(watched, packet, arrival) || ready.value() == 0)
            return arrival;
    }
}

} // namespace vnt
