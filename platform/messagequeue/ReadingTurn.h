#pragma once

#include "platform/base/Mutex.h"
#include "platform/base/UniqueFd.h"
#include "platform/messagequeue/sockets.h"

namespace vnt::queue {

/// Who reads one socket: its reader thread, or for the time of a call the calling thread, which so gets its answer
/// without a second thread waking in between (a context switch and a futex call fewer at each end of the wait). The
/// reader thread sleeps in epoll_wait(2) on a one-shot registration, which a caller disarms while it has the turn.
class ReadingTurn {
public:
    /// Errors: those of epoll_create1(2) and eventfd(2). `socket` outlives the use of this object.
    Status open(int socket);

    /// The reader thread: waits until there is something to read and nobody else reads, then has the turn.
    Status waitForTurn();
    /// A calling thread: takes the turn if nobody has it.
    [[nodiscard]] bool tryTake();
    /// Gives the turn back; whatever is or becomes readable wakes the reader thread.
    void release();

    enum class Event { kReadable, kInterrupted, kTimedOut };
    /// With the turn: waits for the socket, interrupt() or the deadline.
    Event waitReadable(Deadline deadline);
    /// Wakes the thread that waits in waitReadable(), or the next one to come there.
    void interrupt();

private:
    void arm(uint32_t events) VNT_REQUIRES(_lock);

    int _socket = -1;
    UniqueFd _epoll;
    UniqueFd _interrupt; // eventfd
    Mutex _lock;
    bool _taken VNT_GUARDED_BY(_lock) = false;
};

/// The turn of a calling thread, if it got it; given back at the latest when this goes.
class TurnHold {
public:
    explicit TurnHold(ReadingTurn& turn) : _turn(turn) { }
    ~TurnHold() { release(); }
    TurnHold(const TurnHold&) = delete;
    TurnHold& operator=(const TurnHold&) = delete;

    void tryTake() { _held = _turn.tryTake(); }
    void release()
    {
        if (_held)
            _turn.release();
        _held = false;
    }
    explicit operator bool() const { return _held; }

private:
    ReadingTurn& _turn;
    bool _held = false;
};

} // namespace vnt::queue
