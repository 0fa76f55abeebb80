#include "platform/messagequeue/ReadingTurn.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

#include "platform/base/sys.h"

namespace vnt::queue {

Status ReadingTurn::open(int socket)
{
    _socket = socket;
    _epoll = UniqueFd(::epoll_create1(EPOLL_CLOEXEC));
    if (!_epoll.valid())
        return Status::fromErrno(errno, "epoll_create1");
    ASSIGN_OR_RETURN(_interrupt, sys::makeEventFd());
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    if (::epoll_ctl(_epoll.get(), EPOLL_CTL_ADD, socket, &event) != 0)
        return Status::fromErrno(errno, "epoll_ctl");
    return {};
}

/// Without EPOLLIN only an error or hang-up is told, once (epoll_ctl(2): these cannot be masked, but one-shot applies).
void ReadingTurn::arm(uint32_t events)
{
    epoll_event event{};
    event.events = events | EPOLLONESHOT;
    VNT_CHECK(::epoll_ctl(_epoll.get(), EPOLL_CTL_MOD, _socket, &event) == 0);
}

Status ReadingTurn::waitForTurn()
{
    for (;;) {
        epoll_event event{};
        if (::epoll_wait(_epoll.get(), &event, 1, -1) < 0 && errno != EINTR)
            return Status::fromErrno(errno, "epoll_wait");
        MutexLock lock(_lock);
        if (!_taken) {
            _taken = true;
            return {};
        }
        // A caller reads; its release() arms the registration again.
    }
}

bool ReadingTurn::tryTake()
{
    MutexLock lock(_lock);
    if (_taken)
        return false;
    _taken = true;
    arm(0);
    return true;
}

void ReadingTurn::release()
{
    MutexLock lock(_lock);
    _taken = false;
    arm(EPOLLIN);
}

ReadingTurn::Event ReadingTurn::waitReadable(Deadline deadline)
{
    pollfd ready[] = {{_socket, POLLIN, 0}, {_interrupt.get(), POLLIN, 0}};
    std::chrono::milliseconds timeout{-1};
    if (deadline)
        timeout = std::max(std::chrono::milliseconds::zero(),
                           std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now()));
    const auto count = sys::pollFds(ready, timeout);
    if (count.ok() && count.value() == 0)
        return Event::kTimedOut;
    if (!count.ok() || ready[1].revents == 0)
        return Event::kReadable; // a failure of poll shows in the read
    uint64_t ignored = 0;
    (void)::read(_interrupt.get(), &ignored, sizeof ignored); // eventfd(2): resets the counter
    return Event::kInterrupted;
}

void ReadingTurn::interrupt()
{
    const uint64_t one = 1;
    (void)::write(_interrupt.get(), &one, sizeof one); // eventfd(2): fails only when it is signalled 2^64 times over
}

} // namespace vnt::queue
