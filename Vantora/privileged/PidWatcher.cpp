#include <Vantora/TaskDaemon.h>

#include <memory>

#include "Vantora/privileged/AuthorizedRpc.h"
#include "platform/base/systemLog.h"
#include "platform/dispatch/bridge.h"
#include "platform/mach/mach.h"

namespace vnt {
namespace {

bool isLive(mach_port_t client) { return client != MACH_PORT_NULL && client != MACH_PORT_DEAD; }

/// The client's callback; releases its context when the last piece of work that may call it is gone.
class Callback {
public:
    explicit Callback(const pid_watcher_callback_t* given) : _given(given ? *given : pid_watcher_callback_t{}) { }
    ~Callback()
    {
        if (_given.release)
            _given.release(_given.context);
    }
    Callback(const Callback&) = delete;
    Callback& operator=(const Callback&) = delete;

    explicit operator bool() const { return _given.call != nullptr; }
    void operator()(CFPropertyListRef signatures) const { _given.call(_given.context, signatures); }

private:
    const pid_watcher_callback_t _given;
};

/// One request for signatures, kept by the work that makes it and by the delivery that may follow.
struct Dump {
    explicit Dump(const pid_watcher_callback_t* given) : callback(given) { }

    mach_port_t client = MACH_PORT_NULL;
    bool stop = false;
    Ref<SerialQueue> queue; // null: everything on the calling thread
    const Callback callback;
    void* data = nullptr; // what the daemon sent; not ours to free unless it is delivered
    uint32_t length = 0;
};

/// Now, or later on the client's queue.
void runOn(const Ref<SerialQueue>& queue, std::function<void()> work)
{
    if (queue)
        queue->async(std::move(work));
    else
        work();
}

void deliver(const Dump& dump)
{
    CFDataRef data = CFDataCreateWithBytesNoCopy(kCFAllocatorDefault, static_cast<const uint8_t*>(dump.data),
                                                 static_cast<CFIndex>(dump.length), kCFAllocatorNull);
    CFErrorRef error = nullptr;
    CFPropertyListRef signatures =
        CFPropertyListCreateWithData(kCFAllocatorDefault, data, kCFPropertyListImmutable, nullptr, &error);
    if (signatures)
        dump.callback(signatures);
    else
        asl_log(nullptr, nullptr, ASL_LEVEL_ERR, "Signatures from daemon in invalid format");
    CFRelease(signatures ? signatures : error);
    CFRelease(data);
    (void)vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(dump.data), dump.length);
}

kern_return_t requestSignatures(Dump& dump)
{
    return make_authorized_rpc(kNoAuthorization, [&dump](const char*, uint32_t, mach_port_t daemon) {
        return dump.stop ? stop_watching_pids(daemon, dump.client, &dump.data, &dump.length)
                         : get_symbolication_info(daemon, dump.client, &dump.data, &dump.length);
    });
}

/// Memory may run out on the way; the handle must go all the same.
kern_return_t tryToRequest(Dump& dump) noexcept
{
    try {
        return requestSignatures(dump);
    } catch (...) {
        return KERN_RESOURCE_SHORTAGE;
    }
}

void request(const std::shared_ptr<Dump>& dump)
{
    const kern_return_t status = tryToRequest(*dump);
    // Ended also when memory for the delivery runs out. The daemon has answered: it needs the handle no more.
    struct HandleEnd {
        const Dump& dump;
        ~HandleEnd()
        {
            if (dump.stop)
                (void)mach_port_mod_refs(mach_task_self(), dump.client, MACH_PORT_RIGHT_RECEIVE, -1);
        }
    } const handleEnd{*dump};
    // Without a callback nobody looks at the memory, and it is kept: that is what callers have always had.
    if (status == KERN_SUCCESS && dump->callback)
        runOn(dump->queue, [dump] { deliver(*dump); });
}

void _dump_to_client(mach_port_t* client, int stop, dispatch_queue_t queue, const pid_watcher_callback_t* callback)
{
    auto dump = std::make_shared<Dump>(callback);
    dump->client = *client;
    dump->stop = stop != 0;
    dump->queue = Ref<SerialQueue>(queueFromC(queue));
    // Before the work runs, also when that is here: a callback finds no watch any more, and the variable may go with
    // it.
    if (dump->stop)
        *client = MACH_PORT_NULL;
    const Ref<SerialQueue> target = dump->queue;
    runOn(target, [dump = std::move(dump)] { request(dump); });
}

/// Nothing thrown leaves a C function. The callback's context is released on the way out wherever it came to be held.
void dumpGuarded(mach_port_t* client, int stop, dispatch_queue_t queue, const pid_watcher_callback_t* callback) noexcept
{
    try {
        _dump_to_client(client, stop, queue, callback);
    } catch (...) { // no memory: nothing is delivered
    }
}

} // namespace
} // namespace vnt

using namespace vnt;

extern "C" {

kern_return_t pid_watcher_connect(mach_port_t* client)
{
    const kern_return_t made = mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, client);
    if (made != KERN_SUCCESS) {
        *client = MACH_PORT_NULL;
        asl_log(nullptr, nullptr, ASL_LEVEL_ERR, "Failed to create client handle port: %s", mach_error_string(made));
    }
    if (!isLive(*client))
        return KERN_FAILURE;
    try {
        return make_authorized_rpc(kBasicAuthorization,
                                   [client](const char* authorization, uint32_t length, mach_port_t daemon) {
                                       return watch_pids(daemon, authorization, length, *client);
                                   });
    } catch (...) {
        return KERN_RESOURCE_SHORTAGE;
    }
}

kern_return_t pid_watcher_collect(mach_port_t* client, dispatch_queue_t queue, const pid_watcher_callback_t* callback)
{
    if (!isLive(*client)) {
        const Callback unused(callback);
        return KERN_FAILURE;
    }
    dumpGuarded(client, 0, queue, callback);
    return KERN_SUCCESS;
}

kern_return_t pid_watcher_disconnect(mach_port_t* client, dispatch_queue_t queue,
                                     const pid_watcher_callback_t* callback)
{
    if (!isLive(*client)) {
        const Callback unused(callback);
        return KERN_SUCCESS;
    }
    dumpGuarded(client, 1, queue, callback);
    return KERN_SUCCESS;
}

} // extern "C"
