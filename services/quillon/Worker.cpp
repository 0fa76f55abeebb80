#include "services/quillon/Worker.h"

#include <unistd.h>

#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include "collectors/common/TraceFs.h"
#include "platform/base/sys.h"
#include "platform/messagequeue/MessageQueueServer.h"
#include "services/quillon/AccessGuard.h"
#include "services/quillon/ActivityService.h"
#include "services/quillon/CapabilitiesService.h"
#include "services/quillon/CoreKdebugEventsService.h"
#include "services/quillon/DeviceInfoService.h"
#include "services/quillon/KdebugTapService.h"
#include "services/quillon/ObjRecordService.h"
#include "services/quillon/Privileges.h"
#include "services/quillon/ProcessControlService.h"
#include "services/quillon/RemoteOrphansService.h"
#include "services/quillon/SessionHeap.h"
#include "services/quillon/SignatureStore.h"
#include "services/quillon/ZeltoTapService.h"

namespace vnt {
namespace {

constexpr auto kConnectDeadline = std::chrono::seconds(30);

template <typename T> bool parseArgument(const char* text, T& value)
{
    const std::string_view view(text);
    const auto result = std::from_chars(view.data(), view.data() + view.size(), value);
    return result.ec == std::errc() && result.ptr == view.data() + view.size();
}

MessageQueueServerConnection::ServiceFactory serviceFactory(const WorkerIdentity& identity, SignatureStore& signatures,
                                                            AccessGuard& guard, SessionHeap& heap, int traceFiles)
{
    return [&signatures, &guard, &heap, traceFiles, client = identity.clientPid, uid = identity.clientUid](
               const std::string& name, const Ref<ServiceChannel>& channel) -> std::unique_ptr<MessageQueueService> {
        if (name == "quillon.server.services.capabilities")
            return std::make_unique<CapabilitiesService>();
        if (name == "quillon.server.services.processcontrol")
            return std::make_unique<ProcessControlService>(channel, client, guard);
        if (name == "quillon.server.services.deviceinfo")
            return std::make_unique<DeviceInfoService>(signatures, guard);
        if (name == "quillon.server.services.zeltotap")
            return std::make_unique<ZeltoTapService>(channel, signatures, guard, traceFiles);
        if (name == "quillon.server.services.kdebugtap")
            return std::make_unique<KdebugTapService>(channel, signatures, guard, traceFiles);
        if (name == "quillon.server.services.corekdebugevents")
            return std::make_unique<CoreKdebugEventsService>(traceFiles);
        if (name == "quillon.server.services.objrecord")
            return std::make_unique<ObjRecordService>(channel, signatures, guard, heap, uid);
        if (name == "quillon.server.services.remoteorphans")
            return std::make_unique<RemoteOrphansService>(channel, heap, guard);
        if (name == "quillon.server.services.activity")
            return std::make_unique<ActivityService>(channel, guard);
        return nullptr;
    };
}

} // namespace

Status runWorker(UniqueFd listener, const std::string& directory, const WorkerIdentity& identity)
{
    auto accepted = sys::acceptOne(listener.get(), kConnectDeadline);
    listener.reset();
    (void)::unlink((directory + "/q").c_str()); // one connection only: the address dies with the first
    (void)::rmdir(directory.c_str());
    RETURN_IF_ERROR(accepted.status());
    UniqueFd socket = accepted.take();
    ASSIGN_OR_RETURN(const sys::PeerCredentials peer, sys::peerCredentials(socket.get()));
    if (peer.uid != identity.clientUid)
        return Status(Code::kDenied, "uid " + std::to_string(peer.uid) + " connected to a session of another");
    const UniqueFd traceFiles = openTraceFiles(); // may take a mount, and so a privilege that goes with the next line
    RETURN_IF_ERROR(keepOnlyWhatRecordingTakes(identity.clientUid));
    SignatureStore signatures;
    AccessGuard guard(identity.clientUid, identity.form);
    if (!guard.open())
        return Status(Code::kDenied, "the right that the session was created with is gone");
    SessionHeap heap;
    MessageQueueServerConnection connection(std::move(socket),
                                            serviceFactory(identity, signatures, guard, heap, traceFiles.get()));
    return connection.run();
}

int workerMain(int argc, char** argv)
{
    WorkerIdentity identity;
    if (argc != 6 || std::strcmp(argv[1], kWorkerArgument) != 0 || !parseArgument(argv[3], identity.clientPid)
        || !parseArgument(argv[4], identity.clientUid))
        return -1;
    identity.which = std::strcmp(argv[5], "system") == 0 ? Namespace::kSystem : Namespace::kUser;
    const UniqueFd form(kWorkerForm);
    if (!sys::readFully(form.get(), identity.form.bytes, sizeof identity.form.bytes).ok())
        return 1;
    useNamespace(identity.which);
    const Status status = runWorker(UniqueFd(kWorkerSocket), argv[2], identity);
    return status.ok() ? 0 : 1;
}

} // namespace vnt
