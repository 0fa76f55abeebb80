#include <unordered_map>

#include "platform/mach/NameService.h"
#include "platform/mach/PortTable.h"

namespace vnt {
namespace {

struct SharedLookUps {
    Mutex mutex;
    std::unordered_map<std::string, mach_port_name_t> byPath VNT_GUARDED_BY(mutex); // of the service's socket
};

SharedLookUps& sharedLookUps()
{
    static SharedLookUps& instance = *new SharedLookUps; // never destroyed: callers may look up during exit
    return instance;
}

/// The right of an earlier look-up with a reference added, or null.
mach_port_name_t takeLiving(const std::string& path)
{
    SharedLookUps& shared = sharedLookUps();
    MutexLock lock(shared.mutex);
    const auto found = shared.byPath.find(path);
    if (found == shared.byPath.end())
        return MACH_PORT_NULL;
    const mach_port_name_t name = found->second;
    const Ref<Port> port = PortTable::shared().sendingRight(name);
    if (port && !isHungUp(port->sendEnd()) && PortTable::shared().addSendReference(name))
        return name;
    PortTable::shared().sendRightDied(name); // given up by everybody: nothing left to do
    shared.byPath.erase(found);
    return MACH_PORT_NULL;
}

} // namespace

Result<uint32_t> lookUpShared(Namespace which, const std::string& name)
{
    ASSIGN_OR_RETURN(const std::string directory, namespaceDirectory(which));
    const std::string path = directory + "/" + name;
    if (const mach_port_name_t living = takeLiving(path); living != MACH_PORT_NULL)
        return living;
    ASSIGN_OR_RETURN(UniqueFd connection, connectToService(which, name));
    ASSIGN_OR_RETURN(const mach_port_name_t right, PortTable::shared().insertSend(std::move(connection)));
    SharedLookUps& shared = sharedLookUps();
    MutexLock lock(shared.mutex);
    // Two threads may have connected at the same time: the later one's is shared from now on, both are good.
    shared.byPath[path] = right;
    return right;
}

} // namespace vnt
