#include "platform/messagequeue/ServerOutput.h"

#include "platform/base/sys.h"
#include "platform/messagequeue/sockets.h"

namespace vnt::queue {
namespace {

/// What the writer sends in one call: room is given back that often.
constexpr size_t kWriteBytes = size_t{256} << 10;
/// A buffer that grew beyond this is given back when it has been emptied.
constexpr size_t kKeptBytes = size_t{1} << 20;

Status peerIsGone() { return Status(Code::kPeerGone, "the client is gone"); }

std::span<const std::byte> bytesOf(const FrameHeader& header) { return std::as_bytes(std::span(&header, 1)); }

} // namespace

Ref<ServerOutput> ServerOutput::create(UniqueFd socket) { return makeRef<ServerOutput>(std::move(socket)); }

bool ServerOutput::hasRoom(size_t bytes, size_t limit) const
{
    const size_t waiting = _queued.size() + _unwrittenBytes;
    return waiting == 0 || waiting + bytes <= limit;
}

Status ServerOutput::trySend(FrameHeader header, std::span<const std::byte> payload)
{
    header.payloadBytes = static_cast<uint32_t>(payload.size());
    MutexLock lock(_lock);
    if (_gone)
        return peerIsGone();
    if (idle())
        return sendWhileIdle(header, payload);
    if (!hasRoom(sizeof header + payload.size(), kBufferBytes))
        return Status(Code::kTimedOut, "the client does not read fast enough");
    enqueue(bytesOf(header));
    enqueue(payload);
    return {};
}

Status ServerOutput::send(FrameHeader header, std::span<const std::byte> payload)
{
    header.payloadBytes = static_cast<uint32_t>(payload.size());
    const bool data = header.kind == FrameKind::kData;
    const size_t limit = data ? kBufferBytes : kBufferBytes + kReservedBytes;
    MutexLock lock(_lock);
    while (!_gone && !idle() && !hasRoom(sizeof header + payload.size(), limit))
        _room.wait(lock); // ends when the peer does: the writer's send fails then
    if (_gone)
        return peerIsGone();
    if (idle())
        return data ? sendDirectly(lock, header, payload) : sendWhileIdle(header, payload);
    enqueue(bytesOf(header));
    enqueue(payload);
    return {};
}

/// One call to the socket without waiting; what it does not take is queued.
Status ServerOutput::sendWhileIdle(const FrameHeader& header, std::span<const std::byte> payload)
{
    const iovec parts[] = {part(bytesOf(header)), part(payload)};
    const auto sent = sendSome(_socket.get(), parts, Blocking::kNo);
    if (!sent.ok()) {
        fail();
        return peerIsGone();
    }
    const size_t total = sizeof header + payload.size();
    if (sent.value() == total)
        return {};
    const size_t ofHeader = std::min(sent.value(), sizeof header);
    enqueue(bytesOf(header).subspan(ofHeader));
    enqueue(payload.subspan(sent.value() - ofHeader));
    wakeWriter();
    return {};
}

/// Waits in the socket call without the lock, so that nothing needs copying; others queue meanwhile.
Status ServerOutput::sendDirectly(MutexLock& lock, const FrameHeader& header, std::span<const std::byte> payload)
{
    _busy = true;
    lock.unlock();
    iovec parts[] = {part(bytesOf(header)), part(payload)};
    const Status status = sendFully(_socket.get(), std::span(parts, payload.empty() ? 1 : 2));
    lock.lock();
    _busy = false;
    if (!status.ok())
        fail();
    if (!_queued.empty())
        wakeWriter();
    _room.notifyAll();
    return _gone ? peerIsGone() : Status();
}

void ServerOutput::enqueue(std::span<const std::byte> bytes)
{
    _queued.insert(_queued.end(), bytes.begin(), bytes.end());
}

void ServerOutput::fail()
{
    _gone = true;
    shutdownSocket(_socket.get());
    _work.notifyOne();
    _room.notifyAll();
}

void ServerOutput::wakeWriter()
{
    if (!_writer.joinable() && !_gone) {
        const sys::SignalBlock block;
        _writer = std::thread([this] { writeQueued(); });
    }
    _work.notifyOne();
}

void ServerOutput::writeQueued()
{
    MutexLock lock(_lock);
    for (;;) {
        while (!_gone && (_busy || _queued.empty()))
            _work.wait(lock);
        if (_gone)
            return;
        std::swap(_queued, _writing);
        _busy = true;
        if (!writeAll(lock))
            fail();
        _writing.clear();
        if (_writing.capacity() > kKeptBytes)
            std::vector<std::byte>().swap(_writing);
        _unwrittenBytes = 0;
        _busy = false;
        _room.notifyAll();
    }
}

bool ServerOutput::writeAll(MutexLock& lock)
{
    std::span<const std::byte> rest(_writing);
    while (!rest.empty() && !_gone) {
        _unwrittenBytes = rest.size();
        lock.unlock();
        const iovec bytes = part(rest.first(std::min(rest.size(), kWriteBytes)));
        const auto sent = sendSome(_socket.get(), {&bytes, 1}, Blocking::kYes);
        lock.lock();
        if (!sent.ok())
            return false;
        rest = rest.subspan(sent.value());
        _room.notifyAll();
    }
    return true;
}

void ServerOutput::shutdown()
{
    MutexLock lock(_lock);
    if (!_gone)
        fail();
}

bool ServerOutput::peerGone() const
{
    MutexLock lock(_lock);
    return _gone || peerHungUp(_socket.get());
}

void ServerOutput::close()
{
    shutdown();
    {
        MutexLock lock(_lock);
        while (_busy)
            _room.wait(lock); // whoever sends fails at once: the socket is shut down
    }
    if (_writer.joinable())
        _writer.join();
    MutexLock lock(_lock);
    _socket.reset();
    std::vector<std::byte>().swap(_queued);
}

} // namespace vnt::queue
