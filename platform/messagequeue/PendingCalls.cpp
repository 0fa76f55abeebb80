#include "platform/messagequeue/PendingCalls.h"

#include <time.h>

#include <cerrno>

#include "platform/base/Check.h"

namespace vnt::queue {

void PendingCall::complete(Outcome how, std::vector<std::byte> bytes, std::string why)
{
    outcome = how;
    payload = std::move(bytes);
    reason = std::move(why);
    _completed.store(true, std::memory_order_release); // pairs with the acquire in wait()
    ::sem_post(&_done); // keep last: the call may be gone when this returns
}

bool PendingCall::wait(Deadline deadline)
{
    timespec until{};
    if (deadline) {
        const auto sinceBoot =
            std::chrono::duration_cast<std::chrono::nanoseconds>(deadline->time_since_epoch()).count();
        until.tv_sec = static_cast<time_t>(sinceBoot / 1'000'000'000);
        until.tv_nsec = static_cast<long>(sinceBoot % 1'000'000'000);
    }
    for (;;) {
        // std::chrono::steady_clock is CLOCK_MONOTONIC here.
        const int result = deadline ? ::sem_clockwait(&_done, CLOCK_MONOTONIC, &until) : ::sem_wait(&_done);
        if (result == 0)
            return _completed.load(std::memory_order_acquire);
        if (errno == ETIMEDOUT)
            return false;
        VNT_CHECK(errno == EINTR);
    }
}

uint32_t PendingCalls::add(PendingCall& call, std::string& reason)
{
    MutexLock lock(_lock);
    if (_ended) {
        reason = _endReason;
        return 0;
    }
    do {
        ++_lastId;
    } while (_lastId == 0 || _calls.count(_lastId) != 0 || _abandoned.count(_lastId) != 0);
    _calls.emplace(_lastId, &call);
    return _lastId;
}

bool PendingCalls::abandon(uint32_t id, bool sent)
{
    MutexLock lock(_lock);
    if (_calls.erase(id) == 0)
        return false;
    if (sent)
        _abandoned.insert(id);
    return true;
}

PendingCall* PendingCalls::take(uint32_t id, uint32_t channel, bool* expected)
{
    MutexLock lock(_lock);
    const auto found = _calls.find(id);
    if (found == _calls.end() || found->second->channel != channel) {
        *expected = found == _calls.end() && _abandoned.erase(id) != 0;
        return nullptr;
    }
    PendingCall* const call = found->second;
    _calls.erase(found);
    *expected = true;
    return call;
}

bool PendingCalls::loseChannel(uint32_t channel, const std::string& reason)
{
    MutexLock lock(_lock);
    const size_t before = _calls.size();
    for (auto entry = _calls.begin(); entry != _calls.end();) {
        if (entry->second->channel != channel) {
            ++entry;
            continue;
        }
        _abandoned.insert(entry->first);
        PendingCall* const call = entry->second;
        entry = _calls.erase(entry);
        call->complete(PendingCall::Outcome::kLost, {}, reason);
    }
    return _calls.size() != before;
}

bool PendingCalls::loseAll(const std::string& reason)
{
    MutexLock lock(_lock);
    if (_ended)
        return false;
    _ended = true;
    _endReason = reason;
    for (const auto& [id, call] : _calls)
        call->complete(PendingCall::Outcome::kLost, {}, reason);
    _calls.clear();
    _abandoned.clear();
    return true;
}

} // namespace vnt::queue
