#include <pthread.h>

#include <cstring>
#include <new>

#include "platform/base/Check.h"
#include "platform/mach/PortTable.h"
#include "platform/mach/mach.h"

using namespace vnt;

namespace {

// Trivial, so that nothing runs for it at exit; a thread that ends gives its port back through the key below.
thread_local mach_port_t threadReplyPort = MACH_PORT_NULL;

void releaseReplyPort(mach_port_t port) noexcept
{
    try {
        (void)PortTable::shared().modifyReferences(port, MACH_PORT_RIGHT_RECEIVE, -1);
    } catch (...) { // no memory: the name stays
    }
}

/// The value under the key is the port's name; pthread_key_create(3) runs this when its thread ends.
void threadEnds(void* value) { releaseReplyPort(static_cast<mach_port_t>(reinterpret_cast<uintptr_t>(value))); }

pthread_key_t threadEndKey()
{
    static const pthread_key_t key = [] {
        pthread_key_t made{};
        VNT_CHECK(pthread_key_create(&made, threadEnds) == 0);
        return made;
    }();
    return key;
}

} // namespace

extern "C" {

// Little-endian integers, ASCII, IEEE floating point.
const NDR_record_t NDR_record = {0, 0, 0, 0, 1, 0, 0, 0};

mach_port_t mig_get_reply_port(void)
{
    if (threadReplyPort != MACH_PORT_NULL)
        return threadReplyPort;
    try {
        const mach_port_t port = PortTable::shared().insertReceive(Port::createReply());
        if (pthread_setspecific(threadEndKey(), reinterpret_cast<void*>(static_cast<uintptr_t>(port))) != 0) {
            releaseReplyPort(port);
            return MACH_PORT_NULL;
        }
        return threadReplyPort = port;
    } catch (const std::bad_alloc&) {
        return MACH_PORT_NULL;
    }
}

void mig_put_reply_port(mach_port_t) { }

void mig_dealloc_reply_port(mach_port_t port)
{
    if (threadReplyPort == MACH_PORT_NULL || port != threadReplyPort)
        return;
    threadReplyPort = MACH_PORT_NULL;
    (void)pthread_setspecific(threadEndKey(), nullptr); // it was set: cannot run out of memory
    releaseReplyPort(port);
}

int mig_strncpy(char* destination, const char* source, int length)
{
    if (length <= 0)
        return 0;
    const size_t copied = ::strnlen(source, static_cast<size_t>(length) - 1);
    std::memcpy(destination, source, copied);
    destination[copied] = '\0';
    return static_cast<int>(copied) + 1;
}

} // extern "C"
