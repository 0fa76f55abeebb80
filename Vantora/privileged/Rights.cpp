#include "Vantora/privileged/Rights.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <new>

#include "Vantora/privileged/TerminalCredentials.h"
#include "platform/foundation/bridge.h"

namespace vnt {
namespace {

constexpr int kAnalysisTimeoutSec = 36000;
constexpr int kKillTimeoutSec = 5;
constexpr char kAnalysisPrompt[] = "Vantora wants permission to analyze other processes.";
constexpr char kKillPrompt[] = "Vantora wants permission to terminate other processes.";

constexpr AuthorizationFlags kNonInteractive = kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize;
constexpr AuthorizationFlags kInteractive = kNonInteractive | kAuthorizationFlagInteractionAllowed;
static_assert(kNonInteractive == 18 && kInteractive == 19);

constexpr OSStatus kNoDefinition = -42; // the status reported when the definition cannot be made

AuthorizationItem itemOf(const char* name, const char* value = nullptr)
{
    return {name, value ? std::strlen(value) : 0, const_cast<char*>(value), 0};
}

constexpr size_t kMostRights = 2; // in one request of ours

/// Allocates nothing: a password in the environment is nowhere but where the caller keeps it.
OSStatus requestRights(AuthorizationRef authorization, std::initializer_list<const char*> rightNames,
                       std::initializer_list<AuthorizationItem> environment, AuthorizationFlags flags)
{
    VNT_CHECK(rightNames.size() <= kMostRights);
    AuthorizationItem items[kMostRights];
    uint32_t count = 0;
    for (const char* name : rightNames)
        items[count++] = itemOf(name);
    const AuthorizationRights rights{count, items};
    // Only read, by the contract of the call.
    const AuthorizationEnvironment surroundings{static_cast<uint32_t>(environment.size()),
                                                const_cast<AuthorizationItem*>(environment.begin())};
    return AuthorizationCopyRights(authorization, &rights, environment.size() == 0 ? nullptr : &surroundings, flags,
                                   nullptr);
}

AuthorizationRef newReference()
{
    AuthorizationRef authorization = nullptr;
    const OSStatus status = AuthorizationCreate(nullptr, nullptr, kAuthorizationFlagDefaults, &authorization);
    if (status == errAuthorizationSuccess)
        return authorization;
    std::fprintf(stderr, "Vantora: Failed to create the authref: %ld.\n", static_cast<long>(status));
    return nullptr;
}

AuthorizationRef keepIfGranted(AuthorizationRef authorization, OSStatus status, const char* failureLine)
{
    if (status == errAuthorizationSuccess)
        return authorization;
    std::fprintf(stderr, failureLine, static_cast<long>(status));
    AuthorizationFree(authorization, kAuthorizationFlagDestroyRights);
    return nullptr;
}

AuthorizationRef createWithRights(std::initializer_list<const char*> rightNames, const char* prompt,
                                  const char* failureLine)
{
    AuthorizationRef authorization = newReference();
    if (!authorization)
        return nullptr;
    const OSStatus status = prompt ? requestRights(authorization, rightNames, {itemOf("prompt", prompt)}, kInteractive)
                                   : requestRights(authorization, rightNames, {}, kInteractive);
    return keepIfGranted(authorization, status, failureLine);
}

bool definitionIsCurrent(const char* rightName, int timeoutSec)
{
    const void* definition = nullptr;
    if (AuthorizationRightGet(rightName, &definition) != errAuthorizationSuccess)
        return false;
    const auto owned = Ref<Dictionary>::adopt(fromC<Dictionary>(definition));
    if (!owned)
        return false;
    const auto timeout = owned->get<Number>("timeout");
    const auto allowRoot = owned->get<Number>("allow-root");
    return (timeout ? timeout->intValue() : 0) == timeoutSec && allowRoot && allowRoot->boolValue();
}

/// Null without memory.
Ref<Dictionary> makeDefinition(int timeoutSec) noexcept
{
    try {
        return Dictionary::create({
            {String::create("timeout"), Number::withInt(timeoutSec)},
            {String::create("class"), String::create("user")},
            {String::create("group"), String::create("admin")},
            {String::create("comment"), String::create("Rights for Quillon")},
            {String::create("shared"), Number::withBool(true)},
            {String::create("allow-root"), Number::withBool(true)},
        });
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

OSStatus writeDefinition(const char* rightName, int timeoutSec, const char*& reason)
{
    const Ref<Dictionary> definition = makeDefinition(timeoutSec);
    if (!definition) {
        reason = "CFDictionaryCreate failed";
        return kNoDefinition;
    }
    AuthorizationRef temporary = nullptr;
    OSStatus status = AuthorizationCreate(nullptr, nullptr, kAuthorizationFlagDefaults, &temporary);
    if (status != errAuthorizationSuccess) {
        reason = "AuthorizationCreate failed";
        return status;
    }
    status = AuthorizationRightSet(temporary, rightName, toC<const void*>(definition.get()), nullptr, nullptr, nullptr);
    if (status != errAuthorizationSuccess)
        reason = "AuthorizationRightSet failed";
    AuthorizationFree(temporary, kAuthorizationFlagDefaults);
    return status;
}

/// Asks on the terminal when the authority says that somebody must be asked.
OSStatus requestOnTerminal(AuthorizationRef authorization)
{
    OSStatus status = requestRights(authorization, {kAnalysisRight}, {}, kNonInteractive);
    if (status != errAuthorizationInteractionNotAllowed) {
        // The first status only decides the way; the second one is the result, also after a success.
        return requestRights(authorization, {kAnalysisRight}, {}, kNonInteractive);
    }
    const TerminalCredentials credentials(kAnalysisPrompt); // wiped when it goes
    if (!credentials.user() || !credentials.password())
        return errAuthorizationCanceled;
    return requestRights(
        authorization, {kAnalysisRight},
        {itemOf("username", credentials.user()), itemOf("password", credentials.password()), itemOf("shared")},
        kNonInteractive);
}

} // namespace

int _VerifyAuthorization(AuthorizationRef authorization, int which)
{
    if (which != 1 && which != 2) {
        std::fprintf(stderr, "Called _VerifyAuthorization without rights");
        return 0;
    }
    const char* rightName = which == 1 ? kTaskPortRight : kAnalysisRight;
    AuthorizationItem item = itemOf(rightName);
    const AuthorizationRights rights{1, &item};
    AuthorizationRights* granted = nullptr;
    const OSStatus status =
        AuthorizationCopyRights(authorization, &rights, nullptr, kAuthorizationFlagDefaults, &granted);
    if (status != errAuthorizationSuccess || !granted)
        return 0;
    int held = 0;
    for (uint32_t i = 0; i < granted->count && !held; ++i)
        held = granted->items[i].name && std::strcmp(granted->items[i].name, rightName) == 0;
    AuthorizationFreeItemSet(granted);
    return held;
}

void AzlCreateRight(const char* rightName, int timeoutSec)
{
    if (definitionIsCurrent(rightName, timeoutSec))
        return;
    const char* reason = "";
    const OSStatus status = writeDefinition(rightName, timeoutSec, reason);
    if (status != errAuthorizationSuccess)
        std::fprintf(stderr, "Error %d : Failed to set right for Vantora - %s", static_cast<int>(status), reason);
}

} // namespace vnt

using namespace vnt;

extern "C" {

AuthorizationRef AzlCreateAuthorization(void)
{
    const AuthorityScope ownNamespace(AuthorityNamespace::kBootstrapPort);
    AzlCreateRight(kAnalysisRight, kAnalysisTimeoutSec);
    AuthorizationRef authorization = newReference();
    if (!authorization)
        return nullptr;
    const bool onTerminal = ::isatty(STDIN_FILENO) && ::isatty(STDERR_FILENO);
    const OSStatus status = onTerminal
        ? requestOnTerminal(authorization)
        : requestRights(authorization, {kAnalysisRight}, {itemOf("prompt", kAnalysisPrompt)}, kInteractive);
    return keepIfGranted(authorization, status, "Vantora: Failed to Authorize Rights: %ld.\n");
}

AuthorizationRef AzlObtainBasicAuthorization(void)
{
    return createWithRights({kTaskPortRight}, nullptr, "Vantora: Failed to Authorize Basic Rights: %ld.\n");
}

AuthorizationRef AzlCreateLaunchSystemBootstrapAuthorization(void)
{
    AzlCreateRight(kAnalysisRight, kAnalysisTimeoutSec);
    // The same line as the kill request's; tools look for it.
    return createWithRights({kAnalysisRight}, nullptr, "Vantora Kill: Failed to Authorize Rights: %ld.\n");
}

AuthorizationRef AzlCreateKillAuthorization(void)
{
    AzlCreateRight(kKillRight, kKillTimeoutSec);
    return createWithRights({kKillRight}, kKillPrompt, "Vantora Kill: Failed to Authorize Rights: %ld.\n");
}

AuthorizationRef AzlCreateTFPAuthorization(void)
{
    AzlCreateRight(kAnalysisRight, kAnalysisTimeoutSec);
    return createWithRights({kAnalysisRight, kTaskPortRight}, kAnalysisPrompt,
                            "Vantora TFP : Failed to Authorize Rights: %ld.\n");
}

int AzlVerifyBasicAuthorization(AuthorizationRef authorization) { return _VerifyAuthorization(authorization, 1); }

int AzlVerifyVantoraRightIsAuthorized(AuthorizationRef authorization) { return _VerifyAuthorization(authorization, 2); }

OSStatus AzlDestroyAuthorization(AuthorizationRef authorization)
{
    return AuthorizationFree(authorization, kAuthorizationFlagDestroyRights);
}
}
