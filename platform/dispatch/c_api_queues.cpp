#include "platform/dispatch/bridge.h"

using namespace vnt;

// An exception that leaves a C caller's work in dispatch_sync_f meets `noexcept` and ends the process: the C caller
// could not have caught it, and nobody else may.

dispatch_queue_t dispatch_queue_create(const char* label, const void*) noexcept
{
    return queueToC(SerialQueue::create(label ? label : "").leakRef());
}

void dispatch_retain(dispatch_queue_t queue) noexcept
{
    if (queue)
        queueFromC(queue)->retain();
}

void dispatch_release(dispatch_queue_t queue) noexcept
{
    if (queue)
        queueFromC(queue)->release();
}

const char* dispatch_queue_get_label(dispatch_queue_t queue) noexcept
{
    return queue ? queueFromC(queue)->label().c_str() : nullptr;
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) noexcept
{
    if (queue && work)
        queueFromC(queue)->async([context, work] { work(context); });
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) noexcept
{
    if (queue && work)
        queueFromC(queue)->sync([context, work] { work(context); });
}
