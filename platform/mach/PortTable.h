#pragma once

#include <unordered_map>

#include "platform/mach/Port.h"
#include "platform/mach/mach.h"

namespace vnt {

/// A right about to leave in a message. Nothing has changed yet: PortTable::commit() does it once the message is sent,
/// dropping this object leaves everything as it was.
struct PreparedRight {
    Ref<Port> port; ///< keeps the descriptor open
    int descriptor = -1; ///< to transmit; -1 for a null or dead name
    bool dead = false; ///< the name is dead
    uint32_t arrivesAs = 0; ///< MACH_MSG_TYPE_MOVE_SEND or MACH_MSG_TYPE_MOVE_SEND_ONCE
    mach_port_name_t name = MACH_PORT_NULL;
    uint32_t disposition = 0;
    UniqueFd given, waiting; ///< the two ends of a send-once right being made
};

/// The port names of this process with their rights, counted by kind. A receive right and send rights to it share one
/// name; a received send right whose socket is known by its cookie gets the name it had. Send-once rights have a name
/// each. Names are not used again until the numbers have wrapped round. Any thread; no call blocks.
class PortTable {
public:
    /// The process's one table; never destroyed.
    static PortTable& shared();

    /// The name that mach_task_self() returns and those that bootstrap_port may hold; no port ever has them.
    static constexpr mach_port_name_t kTaskSelf = 0x103;
    static constexpr mach_port_name_t kBootstrapDefault = 0x203;
    static constexpr mach_port_name_t kBootstrapUser = 0x303;
    static constexpr mach_port_name_t kBootstrapSystem = 0x403;

    mach_port_name_t insertReceive(Ref<Port> port);
    /// One send reference. Equal sockets give equal names.
    Result<mach_port_name_t> insertSend(UniqueFd sendEnd);
    mach_port_name_t insertSendOnce(UniqueFd sendEnd);
    /// One more reference to a send right, up to the most that one name can have. False when the name is none.
    bool addSendReference(mach_port_name_t name);
    /// The receiver of a send right is gone: the references become dead names, the socket is closed.
    void sendRightDied(mach_port_name_t name);

    /// The receive right of a name, null without one.
    Ref<Port> receiveRight(mach_port_name_t name);
    /// The port behind a send or send-once right, null without one.
    Ref<Port> sendingRight(mach_port_name_t name);

    /// As mach_port_mod_refs and mach_port_deallocate.
    kern_return_t modifyReferences(mach_port_name_t name, mach_port_right_t right, mach_port_delta_t delta);
    kern_return_t deallocate(mach_port_name_t name);

    /// KERN_INVALID_NAME, KERN_INVALID_RIGHT (not held; a receive right, which never travels), KERN_INVALID_VALUE
    /// (no such disposition), KERN_RESOURCE_SHORTAGE.
    kern_return_t prepare(mach_port_name_t name, uint32_t disposition, PreparedRight& prepared);
    void commit(PreparedRight& prepared);

    /// For tests: names in use.
    size_t countForTesting();

private:
    struct Entry {
        Ref<Port> port;
        uint64_t cookie = 0; // of the sending end; 0 while unknown
        uint32_t receive = 0, send = 0, sendOnce = 0, deadName = 0;
        [[nodiscard]] bool empty() const { return receive + send + sendOnce + deadName == 0; }
    };
    using Entries = std::unordered_map<mach_port_name_t, Entry>;

    mach_port_name_t insertLocked(Entry entry) VNT_REQUIRES(_mutex);
    void eraseLocked(Entries::iterator entry, Entry& removed) VNT_REQUIRES(_mutex);
    void rememberCookieLocked(mach_port_name_t name, Entry& entry, int sendEnd) VNT_REQUIRES(_mutex);
    kern_return_t dropReceiveLocked(Entries::iterator entry, Entry& removed) VNT_REQUIRES(_mutex);
    kern_return_t prepareMade(mach_port_name_t name, uint32_t disposition, PreparedRight& prepared);

    Mutex _mutex;
    Entries _entries VNT_GUARDED_BY(_mutex);
    std::unordered_map<uint64_t, mach_port_name_t> _byCookie VNT_GUARDED_BY(_mutex);
    mach_port_name_t _next VNT_GUARDED_BY(_mutex) = 0x1003;
};

} // namespace vnt
