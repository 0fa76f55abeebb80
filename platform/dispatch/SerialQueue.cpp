#include "platform/dispatch/SerialQueue.h"

#include <cxxabi.h>
#include <pthread.h>

#include <cstdio>
#include <deque>
#include <exception>
#include <system_error>
#include <thread>
#include <typeinfo>

#include "platform/base/Check.h"
#include "platform/base/Mutex.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

/// Longest thread name that pthread_setname_np(3) takes, without the final zero.
constexpr size_t kMaxThreadName = 15;

} // namespace

/// Tickets make the order: each block takes the next one when it is submitted and runs when it is the one served. The
/// thread waits for the ticket of the oldest asynchronous block, a synchronous caller for its own.
struct SerialQueue::State : RefCounted {
    explicit State(std::string name) : label(std::move(name)) { }

    struct Item {
        uint64_t ticket;
        std::function<void()> block;
    };

    void threadMain();
    bool nextItem(Item& item);
    void startThread() VNT_REQUIRES(lock);
    void finishTurn();
    static void runDroppingExceptions(const State& state, const std::function<void()>& block);

    const std::string label;
    Mutex lock;
    Condition turnChanged; // for synchronous callers
    Condition workCame; // for the thread
    uint64_t nextTicket VNT_GUARDED_BY(lock) = 0;
    uint64_t served VNT_GUARDED_BY(lock) = 0;
    std::deque<Item> items VNT_GUARDED_BY(lock);
    size_t waitingCallers VNT_GUARDED_BY(lock) = 0;
    bool hasThread VNT_GUARDED_BY(lock) = false;
    bool closing VNT_GUARDED_BY(lock) = false;
    std::thread::id runner VNT_GUARDED_BY(lock); // of the block that is running
};

Ref<SerialQueue> SerialQueue::create(std::string label) { return makeRef<SerialQueue>(std::move(label)); }

SerialQueue::SerialQueue(std::string label) : _state(makeRef<State>(std::move(label))) { }

SerialQueue::~SerialQueue()
{
    // The thread is detached and shares the state: it ends by itself once the list is empty. Nobody joins it, so the
    // last reference may be dropped from one of its own blocks.
    MutexLock guard(_state->lock);
    _state->closing = true;
    _state->workCame.notifyOne();
}

const std::string& SerialQueue::label() const { return _state->label; }

bool SerialQueue::isCurrent() const
{
    MutexLock guard(_state->lock);
    return _state->runner == std::this_thread::get_id();
}

void SerialQueue::State::finishTurn()
{
    MutexLock guard(lock);
    runner = {};
    ++served;
    if (!items.empty() && items.front().ticket == served)
        workCame.notifyOne();
    else if (waitingCallers > 0)
        turnChanged.notifyAll();
}

void SerialQueue::sync(const std::function<void()>& block)
{
    const Ref<State> state = _state; // the block may drop the queue's last reference
    {
        MutexLock guard(state->lock);
        VNT_CHECK(state->runner != std::this_thread::get_id());
        const uint64_t ticket = state->nextTicket++;
        ++state->waitingCallers;
        while (state->served != ticket) // without a deadline: what runs before may take as long as it needs
            state->turnChanged.wait(guard);
        --state->waitingCallers;
        state->runner = std::this_thread::get_id();
    }
    struct Turn {
        State& state;
        ~Turn() { state.finishTurn(); }
    } const turn{*state};
    block();
}

void SerialQueue::async(std::function<void()> block)
{
    MutexLock guard(_state->lock);
    if (!_state->hasThread)
        _state->startThread();
    _state->items.push_back({_state->nextTicket++, std::move(block)});
    if (_state->items.size() == 1 && _state->items.front().ticket == _state->served)
        _state->workCame.notifyOne();
}

void SerialQueue::State::startThread()
{
    const sys::SignalBlock block;
    try {
        std::thread([state = Ref<State>(this)] { state->threadMain(); }).detach();
    } catch (const std::system_error& error) {
        // The block must run, not here, and nobody is there to be told: the process cannot go on.
        checkFailed(__FILE__, __LINE__, error.what());
    }
    hasThread = true;
}

/// Waits for the next asynchronous block's turn; false when there will be none.
bool SerialQueue::State::nextItem(Item& item)
{
    MutexLock guard(lock);
    for (;;) {
        if (!items.empty() && items.front().ticket == served) {
            item = std::move(items.front());
            items.pop_front();
            runner = std::this_thread::get_id();
            return true;
        }
        if (closing && items.empty())
            return false;
        workCame.wait(guard);
    }
}

void SerialQueue::State::threadMain()
{
    ::pthread_setname_np(::pthread_self(), label.substr(0, kMaxThreadName).c_str());
    for (Item item; nextItem(item);) {
        runDroppingExceptions(*this, item.block);
        item.block = nullptr; // what the block holds goes while it still is the queue's turn
        finishTurn();
    }
}

void SerialQueue::State::runDroppingExceptions(const State& state, const std::function<void()>& block)
{
    try {
        block();
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "queue %s: a block raised: %s\n", state.label.c_str(), exception.what());
    } catch (...) {
        const std::type_info* type = abi::__cxa_current_exception_type();
        std::fprintf(stderr, "queue %s: a block raised %s\n", state.label.c_str(),
                     type ? type->name() : "an exception");
    }
}

} // namespace vnt
