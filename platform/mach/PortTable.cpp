#include "platform/mach/PortTable.h"

#include <algorithm>

namespace vnt {
namespace {

// Distance of names. Values are spread so that a name is not mistaken for a descriptor or a count in a dump.
constexpr mach_port_name_t kNameStep = 4;
constexpr mach_port_name_t kFirstName = 0x1003;
// References of one kind to one name (the kernel's own ports stop here too).
constexpr uint32_t kMaxReferences = 65535;

} // namespace

PortTable& PortTable::shared()
{
    static PortTable& table = *new PortTable;
    return table;
}

mach_port_name_t PortTable::insertLocked(Entry entry)
{
    while (_next < kFirstName || _next >= MACH_PORT_DEAD - kNameStep || _entries.count(_next) != 0)
        _next = _next < kFirstName || _next >= MACH_PORT_DEAD - kNameStep ? kFirstName : _next + kNameStep;
    const mach_port_name_t name = _next;
    _next += kNameStep;
    if (entry.cookie != 0)
        _byCookie[entry.cookie] = name;
    _entries.emplace(name, std::move(entry));
    return name;
}

/// Moves the entry out, so that its descriptors close without the lock.
void PortTable::eraseLocked(Entries::iterator entry, Entry& removed)
{
    if (entry->second.cookie != 0)
        _byCookie.erase(entry->second.cookie);
    removed = std::move(entry->second);
    _entries.erase(entry);
}

mach_port_name_t PortTable::insertReceive(Ref<Port> port)
{
    Entry entry;
    entry.receive = 1;
    entry.port = std::move(port);
    MutexLock lock(_mutex);
    const mach_port_name_t name = insertLocked(std::move(entry));
    return name;
}

Result<mach_port_name_t> PortTable::insertSend(UniqueFd sendEnd)
{
    ASSIGN_OR_RETURN(const uint64_t cookie, socketCookie(sendEnd.get()));
    MutexLock lock(_mutex);
    if (const auto known = _byCookie.find(cookie); known != _byCookie.end()) {
        Entry& entry = _entries.at(known->second);
        if (entry.send >= kMaxReferences)
            return Status(Code::kTooLarge, "too many references to one port");
        ++entry.send;
        return known->second;
    }
    Entry entry;
    entry.send = 1;
    entry.cookie = cookie;
    entry.port = Port::forSending(std::move(sendEnd));
    return insertLocked(std::move(entry));
}

mach_port_name_t PortTable::insertSendOnce(UniqueFd sendEnd)
{
    Entry entry;
    entry.sendOnce = 1;
    entry.port = Port::forSending(std::move(sendEnd));
    MutexLock lock(_mutex);
    return insertLocked(std::move(entry));
}

bool PortTable::addSendReference(mach_port_name_t name)
{
    MutexLock lock(_mutex);
    const auto found = _entries.find(name);
    if (found == _entries.end() || found->second.send == 0)
        return false;
    found->second.send = std::min(found->second.send + 1, kMaxReferences);
    return true;
}

void PortTable::sendRightDied(mach_port_name_t name)
{
    Ref<Port> closed; // declared before the lock: closed after it
    MutexLock lock(_mutex);
    const auto found = _entries.find(name);
    if (found == _entries.end() || found->second.send == 0 || found->second.receive != 0)
        return;
    Entry& entry = found->second;
    entry.deadName += std::exchange(entry.send, 0);
    if (entry.cookie != 0)
        _byCookie.erase(std::exchange(entry.cookie, 0));
    closed = std::move(entry.port);
}

Ref<Port> PortTable::receiveRight(mach_port_name_t name)
{
    MutexLock lock(_mutex);
    const auto found = _entries.find(name);
    return found != _entries.end() && found->second.receive ? found->second.port : nullptr;
}

Ref<Port> PortTable::sendingRight(mach_port_name_t name)
{
    MutexLock lock(_mutex);
    const auto found = _entries.find(name);
    return found != _entries.end() && found->second.send + found->second.sendOnce != 0 ? found->second.port : nullptr;
}

kern_return_t PortTable::dropReceiveLocked(Entries::iterator found, Entry& removed)
{
    Entry& entry = found->second;
    entry.receive = 0;
    // Send rights to a port that is gone are dead names.
    entry.deadName = entry.send;
    entry.send = 0;
    if (entry.empty()) {
        eraseLocked(found, removed);
        return KERN_SUCCESS;
    }
    if (entry.cookie != 0)
        _byCookie.erase(entry.cookie);
    entry.cookie = 0;
    removed.port = std::move(entry.port);
    return KERN_SUCCESS;
}

kern_return_t PortTable::modifyReferences(mach_port_name_t name, mach_port_right_t right, mach_port_delta_t delta)
{
    Entry removed; // declared before the lock: what it holds is closed after it
    MutexLock lock(_mutex);
    const auto found = _entries.find(name);
    if (found == _entries.end())
        return KERN_INVALID_NAME;
    Entry& entry = found->second;
    if (right == MACH_PORT_RIGHT_RECEIVE) {
        if (!entry.receive)
            return KERN_INVALID_RIGHT;
        if (delta == 0)
            return KERN_SUCCESS;
        if (delta != -1)
            return KERN_INVALID_VALUE;
        const Ref<Port> port = entry.port;
        const kern_return_t status = dropReceiveLocked(found, removed);
        port->destroyReceive();
        return status;
    }
    uint32_t* const count = right == MACH_PORT_RIGHT_SEND ? &entry.send
        : right == MACH_PORT_RIGHT_SEND_ONCE              ? &entry.sendOnce
        : right == MACH_PORT_RIGHT_DEAD_NAME              ? &entry.deadName
                                                          : nullptr;
    if (!count)
        return KERN_INVALID_VALUE;
    if (*count == 0)
        return KERN_INVALID_RIGHT;
    const int64_t changed = int64_t{*count} + delta;
    const int64_t limit = right == MACH_PORT_RIGHT_SEND_ONCE ? 1 : kMaxReferences;
    if (changed < 0 || changed > limit)
        return KERN_INVALID_VALUE;
    *count = static_cast<uint32_t>(changed);
    if (entry.empty())
        eraseLocked(found, removed);
    return KERN_SUCCESS;
}

kern_return_t PortTable::deallocate(mach_port_name_t name)
{
    mach_port_right_t right = MACH_PORT_RIGHT_SEND;
    {
        MutexLock lock(_mutex);
        const auto found = _entries.find(name);
        if (found == _entries.end())
            return KERN_INVALID_NAME;
        if (found->second.sendOnce)
            right = MACH_PORT_RIGHT_SEND_ONCE;
        else if (found->second.deadName)
            right = MACH_PORT_RIGHT_DEAD_NAME;
    }
    return modifyReferences(name, right, -1);
}

/// Rights made from a receive right of this process.
kern_return_t PortTable::prepareMade(mach_port_name_t name, uint32_t disposition, PreparedRight& prepared)
{
    if (disposition == MACH_MSG_TYPE_MAKE_SEND_ONCE) {
        auto pair = Port::makeSendOncePair();
        if (!pair.ok())
            return KERN_RESOURCE_SHORTAGE;
        prepared.given = std::move(pair.value().first);
        prepared.waiting = std::move(pair.value().second);
        prepared.descriptor = prepared.given.get();
        prepared.arrivesAs = MACH_MSG_TYPE_MOVE_SEND_ONCE;
        return KERN_SUCCESS;
    }
    const Status made = prepared.port->ensurePair();
    if (!made.ok())
        return made.code() == Code::kPeerGone ? KERN_INVALID_RIGHT : KERN_RESOURCE_SHORTAGE;
    prepared.descriptor = prepared.port->sendEnd();
    prepared.arrivesAs = MACH_MSG_TYPE_MOVE_SEND;
    // So that the right is known again, and gets its own name, if it comes back.
    MutexLock lock(_mutex);
    const auto found = _entries.find(name);
    if (found != _entries.end() && found->second.port == prepared.port)
        rememberCookieLocked(name, found->second, prepared.descriptor);
    return KERN_SUCCESS;
}

void PortTable::rememberCookieLocked(mach_port_name_t name, Entry& entry, int sendEnd)
{
    if (entry.cookie != 0)
        return;
    const auto cookie = socketCookie(sendEnd);
    if (!cookie.ok())
        return;
    entry.cookie = cookie.value();
    _byCookie[entry.cookie] = name;
}

kern_return_t PortTable::prepare(mach_port_name_t name, uint32_t disposition, PreparedRight& prepared)
{
    prepared.name = name;
    prepared.disposition = disposition;
    const bool once = disposition == MACH_MSG_TYPE_MOVE_SEND_ONCE || disposition == MACH_MSG_TYPE_MAKE_SEND_ONCE;
    prepared.arrivesAs = once ? MACH_MSG_TYPE_MOVE_SEND_ONCE : MACH_MSG_TYPE_MOVE_SEND;
    if (disposition == MACH_MSG_TYPE_MOVE_RECEIVE)
        return KERN_INVALID_RIGHT;
    if (disposition < MACH_MSG_TYPE_MOVE_SEND || disposition > MACH_MSG_TYPE_MAKE_SEND_ONCE)
        return KERN_INVALID_VALUE;
    if (name == MACH_PORT_NULL || name == MACH_PORT_DEAD) {
        prepared.dead = name == MACH_PORT_DEAD;
        return KERN_SUCCESS;
    }
    {
        MutexLock lock(_mutex);
        const auto found = _entries.find(name);
        if (found == _entries.end())
            return KERN_INVALID_NAME;
        const Entry& entry = found->second;
        const bool make = disposition == MACH_MSG_TYPE_MAKE_SEND || disposition == MACH_MSG_TYPE_MAKE_SEND_ONCE;
        if (!make && entry.deadName) {
            prepared.dead = true;
            return KERN_SUCCESS;
        }
        if (make ? !entry.receive : once ? !entry.sendOnce : !entry.send)
            return KERN_INVALID_RIGHT;
        prepared.port = entry.port;
        if (!make) {
            prepared.descriptor = prepared.port->sendEnd();
            return KERN_SUCCESS;
        }
    }
    return prepareMade(name, disposition, prepared);
}

void PortTable::commit(PreparedRight& prepared)
{
    if (prepared.waiting)
        prepared.port->addWaitingEnd(std::move(prepared.waiting));
    else if (prepared.disposition == MACH_MSG_TYPE_MOVE_SEND || prepared.disposition == MACH_MSG_TYPE_MOVE_SEND_ONCE)
        (void)deallocate(prepared.name); // a null name, or another thread was faster: nothing left to give up
    prepared.given.reset();
    prepared.port = nullptr;
}

size_t PortTable::countForTesting()
{
    MutexLock lock(_mutex);
    return _entries.size();
}

} // namespace vnt
