#pragma once

#include <poll.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>

#include "platform/base/Mutex.h"
#include "platform/base/sys.h"
#include "platform/mach/PacketSocket.h"
#include "platform/mach/ServiceStart.h"

namespace vnt {

/// The server half of a name: takes connections, looks at who connects before a byte is read, greets, and hands each
/// packet to its owner; leaves when nobody needs it. One thread runs everything; a client that sends slowly, or does
/// not read, costs the others nothing. Made by a service's main; its owner must outlive it.
class PacketServer {
public:
    using ConnectionId = uint64_t;
    using WatchId = uint64_t;
    enum class Access {
        kOwnUser, ///< only the server's own user
        kAnyUser
    };

    struct Options {
        ServiceArguments arguments;
        std::string name;
        Access access = Access::kOwnUser;
        /// Without connections and with `mayExit` agreeing for so long, run() returns. Negative: never.
        std::chrono::milliseconds idleExit{30000};
        size_t maxConnections = 256;
        size_t maxConnectionsPerUser = 64; ///< of another user than the server's own
        size_t maxPacketBytes = kMaxPacketBytes;
    };

    /// All are called on the thread of run() with no lock held, and may call any method here but run().
    struct Handlers {
        /// A packet; it may be taken apart and changed. Wiped afterwards when `wipesPackets`.
        std::function<void(ConnectionId, const sys::PeerCredentials&, Packet&)> onPacket;
        /// The connection is gone, whoever ended it. May be empty.
        std::function<void(ConnectionId)> onClose;
        /// False keeps the server although nobody is connected. May be empty.
        std::function<bool()> mayExit;
        bool wipesPackets = false;
    };

    /// Takes the name, or the socket that the arguments brought.
    static Result<std::unique_ptr<PacketServer>> open(Options options, Handlers handlers);
    ~PacketServer();
    PacketServer(const PacketServer&) = delete;
    PacketServer& operator=(const PacketServer&) = delete;

    /// Serves until idle or stopped. Errors: only those that leave nothing to serve with.
    Status run();
    /// Ends run() soon. Any thread, also a signal handler.
    void stop();
    /// Runs `task` on the server's thread, in the order given. Any thread; this is how a worker thread hands back its
    /// result. Tasks that run() no longer reaches are destroyed with the server.
    void post(std::function<void()> task);

    /// Sends without waiting. A client that leaves so many answers unread that its queue is full is disconnected
    /// (kTimedOut). kNotFound: the connection is gone already.
    Status send(ConnectionId connection, std::span<const std::byte> bytes, std::span<const int> descriptors = {});
    /// Ends a connection; onClose is called before this returns.
    void close(ConnectionId connection);
    [[nodiscard]] size_t connectionCount() const { return _connections.size(); }

    /// Calls `onEvents` with poll(2)'s revents whenever one of `events` (or an error) is there for `fd`, which stays
    /// the caller's and must outlive the watch. A hung-up descriptor is reported until it is unwatched.
    WatchId watch(int fd, short events, std::function<void(short revents)> onEvents);
    void unwatch(WatchId id);

private:
    struct Connection {
        UniqueFd fd;
        sys::PeerCredentials peer;
    };
    struct Watch {
        int fd;
        short events;
        std::shared_ptr<std::function<void(short)>> onEvents; // kept alive during its own call
    };
    struct Polled;

    PacketServer(Options options, Handlers handlers);
    Status prepare();
    std::vector<pollfd> pollSet(Polled& polled) const;
    void serve(const Polled& polled, std::span<const pollfd> events);
    void runPosted();
    size_t acceptWaiting();
    bool acceptOne();
    void shedOne();
    void admit(UniqueFd fd);
    uint16_t verdictOn(const sys::PeerCredentials& peer) const;
    void readOne(ConnectionId id);
    [[nodiscard]] std::chrono::milliseconds untilIdle() const;
    [[nodiscard]] bool isIdle() const;
    bool tryLeave();

    const Options _options;
    const Handlers _handlers;
    std::string _directory; // of the name; empty when the socket file is not ours
    dev_t _socketDevice = 0;
    ino_t _socketInode = 0;
    UniqueFd _listener, _wake, _reserve; // _reserve: given up for a moment when the descriptor table is full
    std::map<ConnectionId, Connection> _connections;
    std::map<WatchId, Watch> _watches;
    uint64_t _nextId = 1;
    std::chrono::steady_clock::time_point _lastUse = std::chrono::steady_clock::now();
    std::atomic<bool> _stopped{false};
    Mutex _postedMutex;
    std::vector<std::function<void()>> _posted VNT_GUARDED_BY(_postedMutex);
};

} // namespace vnt
