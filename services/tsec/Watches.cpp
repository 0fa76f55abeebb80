#include "services/tsec/Watches.h"

#include <fcntl.h>

#include "platform/base/sys.h"
#include "platform/foundation/PropertyList.h"
#include "platform/mach/PortTable.h"

namespace vnt {
namespace {

constexpr size_t kMaxWatches = 64;
constexpr size_t kMaxWatchesOfUser = 16;
constexpr size_t kMaxPendingOfWatch = 8; // collects of several threads of one client

/// Sends the signatures; the other end of the reply right, for telling when they were read.
UniqueFd sendSignatures(mach_port_name_t replyPort, int32_t requestId, std::span<const std::byte> bytes)
{
    const Ref<Port> right = PortTable::shared().sendingRight(replyPort);
    UniqueFd sender(right ? ::fcntl(right->sendEnd(), F_DUPFD_CLOEXEC, 0) : -1);
    DataReply<NativeAddress> reply{};
    reply.header.msgh_id = requestId + kReplyIdDistance;
    reply.body.msgh_descriptor_count = 1;
    reply.data.address = reinterpret_cast<NativeAddress>(bytes.data());
    reply.data.size = static_cast<uint32_t>(bytes.size()); // at most PropertyListLimits' 64 MiB or so
    reply.data.flags = outOfLineFlags(/*deallocate=*/false);
    reply.ndr = NDR_record;
    reply.dataCount = static_cast<uint32_t>(bytes.size());
    (void)PortServer::sendReply(replyPort, &reply.header, sizeof reply, /*complex=*/true); // gone: needs no answer
    return sender;
}

} // namespace

/// One request for signatures, on its way through the answering queue.
struct Watches::Answer {
    mach_port_name_t handle = MACH_PORT_NULL, replyPort = MACH_PORT_NULL;
    uint64_t deathWatch = 0; // names the watch for certain: a handle's name may come again
    int32_t requestId = 0;
    uint64_t sinceNs = 0;
    bool end = false;
    std::shared_ptr<ProcessRecorder> recorder;
    UniqueFd sender;

    void make()
    {
        (void)recorder->catchUp(); // late: what there is, and the loss it has counted
        const Ref<Dictionary> signatures = recorder->log().signaturesSince(sinceNs);
        const auto bytes = writePropertyList(*signatures, PropertyListFormat::kBinary);
        if (bytes.ok())
            sender = sendSignatures(replyPort, requestId, bytes.value());
        else
            PortServer::replyStatus(replyPort, requestId, KERN_FAILURE);
        recorder.reset();
    }
};

Watches::Watches(PortServer& server) : _server(server), _answers(SerialQueue::create("KxTSecD.answers")) { }

Watches::~Watches()
{
    _answers->sync([] {});
}

kern_return_t Watches::begin(mach_port_name_t handle, uid_t user, std::string& why)
{
    const auto refuse = [handle](kern_return_t status) {
        if (handle != MACH_PORT_NULL && handle != MACH_PORT_DEAD)
            (void)mach_port_deallocate(mach_task_self(), handle);
        return status;
    };
    size_t ofUser = 0;
    for (const auto& [name, watch] : _watches)
        ofUser += watch.user == user ? 1 : 0;
    const Ref<Port> right = PortTable::shared().sendingRight(handle);
    if (!right || isHungUp(right->sendEnd()) || _watches.count(handle) != 0) {
        why = "the handle is dead or taken";
        return refuse(KERN_INVALID_ARGUMENT);
    }
    if (_watches.size() >= kMaxWatches || ofUser >= kMaxWatchesOfUser) {
        why = "too many watches";
        return refuse(KERN_RESOURCE_SHORTAGE);
    }
    if (!_recorder) {
        auto recorder = ProcessRecorder::start();
        if (!recorder.ok()) {
            why = recorder.status().message();
            return refuse(KERN_FAILURE);
        }
        _recorder = recorder.take();
    }
    Watch watch;
    watch.user = user;
    watch.sinceNs = sys::monotonicNs();
    watch.deathWatch = _server.watchPortDeath(handle, [this, handle] { end(handle); });
    const bool watched = watch.deathWatch != 0;
    if (watched)
        _watches.emplace(handle, std::move(watch));
    if (_watches.empty())
        _recorder.reset();
    return watched ? kern_return_t{KERN_SUCCESS} : refuse(KERN_RESOURCE_SHORTAGE);
}

kern_return_t Watches::mayAnswer(mach_port_name_t handle, uid_t user)
{
    const auto found = _watches.find(handle);
    if (found == _watches.end() || found->second.ending)
        return KERN_INVALID_NAME;
    if (found->second.user != user)
        return KERN_NO_ACCESS;
    if (found->second.pending >= kMaxPendingOfWatch || found->second.unread.isFull())
        return KERN_RESOURCE_SHORTAGE;
    return KERN_SUCCESS;
}

void Watches::answer(mach_port_name_t handle, uid_t user, mach_port_name_t reply, int32_t requestId, bool end)
{
    const kern_return_t status = mayAnswer(handle, user);
    if (handle != MACH_PORT_NULL && handle != MACH_PORT_DEAD)
        (void)mach_port_deallocate(mach_task_self(), handle); // the watch has a reference of its own
    if (status != KERN_SUCCESS)
        return PortServer::replyStatus(reply, requestId, status);
    Watch& watch = _watches.at(handle);
    ++watch.pending;
    ++_pending;
    watch.ending = end;
    auto answer = std::make_shared<Answer>();
    answer->handle = handle;
    answer->replyPort = reply;
    answer->deathWatch = watch.deathWatch;
    answer->requestId = requestId;
    answer->sinceNs = watch.sinceNs;
    answer->end = end;
    answer->recorder = _recorder;
    _answers->async([this, answer] {
        answer->make();
        _server.packets().post(
            [this, answer] { onAnswered(answer->handle, answer->deathWatch, std::move(answer->sender), answer->end); });
    });
}

void Watches::onAnswered(mach_port_name_t handle, uint64_t deathWatch, UniqueFd sender, bool wasLast)
{
    --_pending;
    const auto found = _watches.find(handle);
    if (found == _watches.end() || found->second.deathWatch != deathWatch)
        return; // its handle died meanwhile
    --found->second.pending;
    if (wasLast)
        end(handle);
    else if (sender)
        found->second.unread.add(std::move(sender));
}

void Watches::end(mach_port_name_t handle)
{
    const auto found = _watches.find(handle);
    if (found == _watches.end())
        return;
    _server.unwatchPortDeath(found->second.deathWatch); // gone already when the handle died
    (void)mach_port_deallocate(mach_task_self(), handle);
    _watches.erase(found);
    if (_watches.empty())
        _recorder.reset();
}

} // namespace vnt
