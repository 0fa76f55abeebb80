#include <cstring>
#include <utility>

#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/Vantora.h"
#include "Vantora/privileged/DaemonRpc.h"
#include "Vantora/privileged/Rights.h"
#include "platform/authorization/Authorization.h"
#include "platform/mach/mach.h"

namespace vnt {
namespace {

constexpr char kServerPortName[] = "quillon.server.mig";
constexpr char kServerName[] = "server";
constexpr size_t kAddressBytes = 2048;

} // namespace

bool Vantora::connectWithQuillonServer()
{
    VNT_ON_QUEUE(_workerQueue);
    try {
        const kern_return_t found = bootstrap_look_up(bootstrap_port, kServerPortName, &_serverPort);
        if (found != KERN_SUCCESS)
            return fail(formatText(sentences::kBootstrapFailure, {bootstrap_strerror(found), kServerPortName}));

        _authorization = AzlCreateAuthorization();
        AuthorizationExternalForm form{};
        if (AuthorizationMakeExternalForm(_authorization, &form) != errAuthorizationSuccess)
            return fail(sentences::kAuthorizationFailure);

        char address[kAddressBytes];
        const kern_return_t created =
            createServer(_serverPort, form.bytes, sizeof form.bytes, kServerName, address, sizeof address);
        if (created != KERN_SUCCESS)
            return fail(formatText(sentences::kCreationFailure, {mach_error_string(created)}));

        setServerAddress(address);
        _messageQueue = KxMessageQueue::initWithAddress(*_serverAddress);
        _capabilitiesService =
            _messageQueue->createServiceForIdentifier(*String::create("quillon.server.services.capabilities"));
        _processControlService =
            _messageQueue->createServiceForIdentifier(*String::create("quillon.server.services.processcontrol"));
        _processControlService->setDelegate(asDelegate());
        _deviceInfoService =
            _messageQueue->createServiceForIdentifier(*String::create("quillon.server.services.deviceinfo"));
        _deviceInfoService->setDelegate(asDelegate());
        return true;
    } catch (const Exception& exception) {
        return fail(formatText(sentences::kUnableToConnect, {exception}));
    }
}

void Vantora::setServerAddress(const char* text)
{
    _serverAddress = Url::withString(text).leakRef();
    if (!_serverAddress)
        throw Exception("NSInvalidArgumentException", "the server gave no address");
}

void Vantora::releaseCreationRights()
{
    if (_authorization)
        AuthorizationFree(std::exchange(_authorization, nullptr), kAuthorizationFlagDefaults);
    if (_serverPort != MACH_PORT_NULL)
        mach_port_deallocate(mach_task_self(), std::exchange(_serverPort, MACH_PORT_NULL));
}

void Vantora::disconnectFromQuillonServer()
{
    for (Ref<KxServiceQueue>* service : {&_deviceInfoService, &_processControlService, &_kdebugEventsService}) {
        if (!*service)
            continue;
        (*service)->setDelegate({});
        (*service)->disconnect();
        *service = nullptr;
    }
    if (_capabilitiesService) {
        _capabilitiesService->setDelegate({});
        _capabilitiesService->disconnect();
        _capabilitiesService = nullptr;
    }
    if (_messageQueue) {
        _messageQueue->returnToTarget(nullptr, nullptr, "hardStop");
        _messageQueue = nullptr;
    }
}

} // namespace vnt
