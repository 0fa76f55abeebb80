#include "platform/mach/PacketServer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/mach/NameService.h"

namespace vnt {
namespace {

// Connections taken in one round, so that a flood of them does not hold up those that are there.
constexpr size_t kAcceptsPerRound = 16;

std::string pathOf(int listener)
{
    sockaddr_un address{};
    socklen_t size = sizeof address;
    if (::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0 || address.sun_path[0] != '/')
        return {};
    return std::string(address.sun_path, ::strnlen(address.sun_path, sizeof address.sun_path));
}

} // namespace

/// Which entry of the poll set is what: the wake-up, the listener, then the watches and the connections.
struct PacketServer::Polled {
    std::vector<WatchId> watches;
    std::vector<ConnectionId> connections;
};

PacketServer::PacketServer(Options options, Handlers handlers)
    : _options(std::move(options)),
      _handlers(std::move(handlers))
{
}

PacketServer::~PacketServer() = default;

Result<std::unique_ptr<PacketServer>> PacketServer::open(Options options, Handlers handlers)
{
    UniqueFd listener = std::move(options.arguments.listener);
    if (!listener) {
        ASSIGN_OR_RETURN(listener, bindServiceName(options.arguments.which, options.name));
    }
    std::unique_ptr<PacketServer> server(new PacketServer(std::move(options), std::move(handlers)));
    server->_listener = std::move(listener);
    RETURN_IF_ERROR(server->prepare());
    return server;
}

Status PacketServer::prepare()
{
    const int flags = ::fcntl(_listener.get(), F_GETFL);
    if (flags < 0 || ::fcntl(_listener.get(), F_SETFL, flags | O_NONBLOCK) != 0)
        return Status::fromErrno(errno, "F_SETFL");
    // Listening again makes this process, not the one that made the socket, the peer that clients see.
    if (::listen(_listener.get(), SOMAXCONN) != 0)
        return Status::fromErrno(errno, "listen");
    ASSIGN_OR_RETURN(_wake, sys::makeEventFd());
    ASSIGN_OR_RETURN(_reserve, sys::openFile("/dev/null", O_RDONLY));
    const std::string path = pathOf(_listener.get());
    if (!_options.arguments.ownsName || path.empty())
        return {};
    ASSIGN_OR_RETURN(const struct stat info, sys::statLink(path));
    _directory = path.substr(0, path.rfind('/'));
    _socketDevice = info.st_dev;
    _socketInode = info.st_ino;
    return {};
}

std::vector<pollfd> PacketServer::pollSet(Polled& polled) const
{
    std::vector<pollfd> set;
    set.reserve(2 + _watches.size() + _connections.size());
    set.push_back({_wake.get(), POLLIN, 0});
    set.push_back({_listener.get(), POLLIN, 0});
    for (const auto& [id, watch] : _watches) {
        polled.watches.push_back(id);
        set.push_back({watch.fd, watch.events, 0});
    }
    for (const auto& [id, connection] : _connections) {
        polled.connections.push_back(id);
        set.push_back({connection.fd.get(), POLLIN, 0});
    }
    return set;
}

std::chrono::milliseconds PacketServer::untilIdle() const
{
    if (_options.idleExit.count() < 0 || !_connections.empty())
        return std::chrono::milliseconds(-1);
    const auto left = timeLeft(_lastUse + _options.idleExit);
    // Whatever keeps the server although nobody is connected is asked again now and then.
    return left.count() > 0 || isIdle() ? left : std::chrono::milliseconds(1000);
}

bool PacketServer::isIdle() const
{
    return _options.idleExit.count() >= 0 && _connections.empty() && timeLeft(_lastUse + _options.idleExit).count() == 0
        && (!_handlers.mayExit || _handlers.mayExit());
}

Status PacketServer::run()
{
    // Relaxed: stop() wakes the poll after it has set the flag, and the flag carries no other data.
    while (!_stopped.load(std::memory_order_relaxed)) {
        Polled polled;
        std::vector<pollfd> events = pollSet(polled);
        const std::chrono::milliseconds wait = untilIdle();
        ASSIGN_OR_RETURN(const int ready, sys::pollFds(events, wait));
        if (ready > 0)
            serve(polled, events);
        else if (isIdle() && tryLeave())
            return {};
    }
    return {};
}

void PacketServer::stop()
{
    _stopped.store(true, std::memory_order_relaxed);
    const uint64_t one = 1;
    (void)::write(_wake.get(), &one, sizeof one); // a full counter wakes as well
}

void PacketServer::post(std::function<void()> task)
{
    {
        MutexLock lock(_postedMutex);
        _posted.push_back(std::move(task));
    }
    const uint64_t one = 1;
    (void)::write(_wake.get(), &one, sizeof one);
}

void PacketServer::runPosted()
{
    uint64_t count = 0;
    (void)sys::readSome(_wake.get(), &count, sizeof count); // empty already is fine
    std::vector<std::function<void()>> tasks;
    {
        MutexLock lock(_postedMutex);
        tasks.swap(_posted);
    }
    for (const auto& task : tasks)
        task();
}

/// One event of each descriptor per round: nobody can crowd out the others.
void PacketServer::serve(const Polled& polled, std::span<const pollfd> events)
{
    if (events[0].revents != 0)
        runPosted();
    size_t next = 2;
    for (const WatchId id : polled.watches) {
        const short revents = events[next++].revents;
        const auto found = _watches.find(id); // an earlier handler may have removed it
        if (revents == 0 || found == _watches.end())
            continue;
        const auto onEvents = found->second.onEvents;
        (*onEvents)(revents);
    }
    for (const ConnectionId id : polled.connections) {
        const short revents = events[next++].revents;
        if (revents != 0)
            readOne(id);
    }
    if (events[1].revents != 0)
        (void)acceptWaiting();
}

void PacketServer::readOne(ConnectionId id)
{
    const auto found = _connections.find(id);
    if (found == _connections.end())
        return;
    Packet packet;
    const ReceiveOutcome outcome = tryReceivePacket(found->second.fd.get(), _options.maxPacketBytes, packet);
    if (outcome == ReceiveOutcome::kNothing)
        return;
    if (outcome != ReceiveOutcome::kPacket) {
        close(id);
        return;
    }
    const sys::PeerCredentials peer = found->second.peer; // the handler may close the connection
    _handlers.onPacket(id, peer, packet);
    if (_handlers.wipesPackets)
        ::explicit_bzero(packet.bytes.data(), packet.bytes.size());
}

size_t PacketServer::acceptWaiting()
{
    size_t count = 0;
    while (count < kAcceptsPerRound && acceptOne())
        ++count;
    return count;
}

bool PacketServer::acceptOne()
{
    for (;;) {
        const int fd = ::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            admit(UniqueFd(fd));
            return true;
        }
        if (errno == EMFILE || errno == ENFILE) {
            shedOne();
            return false;
        }
        if (errno != EINTR && errno != ECONNABORTED)
            return false;
    }
}

/// The descriptor table is full: one waiting client is told by a closed connection instead of waiting for ever, and
/// the listener does not keep the poll spinning.
void PacketServer::shedOne()
{
    _reserve.reset();
    UniqueFd(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
    auto again = sys::openFile("/dev/null", O_RDONLY);
    if (again.ok())
        _reserve = again.take();
}

uint16_t PacketServer::verdictOn(const sys::PeerCredentials& peer) const
{
    const bool own = peer.uid == ::geteuid();
    if (_options.access == Access::kOwnUser && !own)
        return ServiceGreeting::kRefused;
    if (_connections.size() >= _options.maxConnections)
        return ServiceGreeting::kBusy;
    size_t ofUser = 0;
    for (const auto& [id, connection] : _connections)
        ofUser += connection.peer.uid == peer.uid ? 1 : 0;
    return !own && ofUser >= _options.maxConnectionsPerUser ? ServiceGreeting::kBusy : ServiceGreeting::kAccepted;
}

void PacketServer::admit(UniqueFd fd)
{
    const auto peer = sys::peerCredentials(fd.get());
    if (!peer.ok())
        return;
    ServiceGreeting greeting;
    greeting.status = verdictOn(peer.value());
    const iovec part{&greeting, sizeof greeting};
    if (trySendPacket(fd.get(), {&part, 1}, {}) != 0 || greeting.status != ServiceGreeting::kAccepted)
        return;
    _connections.emplace(_nextId++, Connection{std::move(fd), peer.value()});
    _lastUse = std::chrono::steady_clock::now();
}

Status PacketServer::send(ConnectionId id, std::span<const std::byte> bytes, std::span<const int> descriptors)
{
    const auto found = _connections.find(id);
    if (found == _connections.end())
        return Status(Code::kNotFound, "the client is gone");
    const iovec part{const_cast<std::byte*>(bytes.data()), bytes.size()}; // only read
    const int error = trySendPacket(found->second.fd.get(), {&part, 1}, descriptors);
    if (error == 0)
        return {};
    close(id);
    if (error == EAGAIN)
        return Status(Code::kTimedOut, "the client does not read");
    return Status::fromErrno(error, "sendmsg");
}

void PacketServer::close(ConnectionId id)
{
    if (_connections.erase(id) == 0)
        return;
    _lastUse = std::chrono::steady_clock::now();
    if (_handlers.onClose)
        _handlers.onClose(id);
}

PacketServer::WatchId PacketServer::watch(int fd, short events, std::function<void(short)> onEvents)
{
    const WatchId id = _nextId++;
    _watches.emplace(id, Watch{fd, events, std::make_shared<std::function<void(short)>>(std::move(onEvents))});
    return id;
}

void PacketServer::unwatch(WatchId id) { _watches.erase(id); }

/// True when the server has left: its name is gone, or was never its own, and nobody waits in its queue. The name is
/// set aside, not removed, until that is sure; look-ups that find it missing wait for the lock and then ask again. Who
/// had found it and connects too late is reset, and asks again too.
bool PacketServer::tryLeave()
{
    if (_directory.empty())
        return acceptWaiting() == 0;
    _lastUse = std::chrono::steady_clock::now(); // unless it works out now, the next try is an idle time away
    const auto lock = NameLock::take(_directory, _options.name, NameLock::Wait::kNo);
    if (lock.code() == Code::kNotFound)
        return acceptWaiting() == 0; // the directory is gone: nobody can find us any more
    if (!lock.ok())
        return false; // somebody is looking us up
    const std::string path = _directory + "/" + _options.name;
    const std::string aside = path + ".leaving.lock"; // a file name that is no service name
    const auto info = sys::statLink(path);
    const bool own = info.ok() && info.value().st_dev == _socketDevice && info.value().st_ino == _socketInode;
    if (own && ::rename(path.c_str(), aside.c_str()) != 0)
        return false;
    if (acceptWaiting() != 0) {
        if (own)
            (void)::rename(aside.c_str(), path.c_str()); // failing, the next look-up starts another server
        return false;
    }
    _listener.reset();
    if (own)
        (void)::unlink(aside.c_str());
    return true;
}

} // namespace vnt
