#include "platform/authorization/Authorization.h"

#include <cstdlib>
#include <cstring>

#include "platform/authorization/AuthorityClient.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/bridge.h"

using namespace vnt;

/// What an AuthorizationRef points at.
struct VntAuthorization {
    std::unique_ptr<AuthorityClient> client;
};

namespace vnt {
namespace {

thread_local AuthorityNamespace authorityChoice = AuthorityNamespace::kSystem; // trivial: nothing runs for it at exit

Namespace chosenNamespace()
{
    return authorityChoice == AuthorityNamespace::kSystem ? Namespace::kSystem : currentNamespace();
}

/// Nothing thrown leaves a C function; what can be thrown below here is a lack of memory.
template <typename Body> OSStatus guarded(Body body) noexcept
{
    try {
        return body();
    } catch (...) {
        return errAuthorizationInternal;
    }
}

/// A set in one block of memory, so that freeing it is one call. Null without memory.
AuthorizationItemSet* makeItemSet(const std::vector<AuthorizationItemView>& items)
{
    size_t size = sizeof(AuthorizationItemSet) + items.size() * sizeof(AuthorizationItem);
    for (const AuthorizationItemView& item : items)
        size += item.name.size() + 1 + item.value.size();
    auto* const block = static_cast<char*>(std::calloc(1, size)); // freed by AuthorizationFreeItemSet
    if (!block)
        return nullptr;
    auto* const set = reinterpret_cast<AuthorizationItemSet*>(block);
    set->items = reinterpret_cast<AuthorizationItem*>(block + sizeof(AuthorizationItemSet));
    char* text = block + sizeof(AuthorizationItemSet) + items.size() * sizeof(AuthorizationItem);
    for (const AuthorizationItemView& item : items) {
        AuthorizationItem& made = set->items[set->count++];
        made.name = text;
        std::memcpy(text, item.name.data(), item.name.size());
        text += item.name.size() + 1;
        made.valueLength = item.value.size();
        made.value = item.value.empty() ? nullptr : text;
        std::memcpy(text, item.value.data(), item.value.size());
        text += item.value.size();
        made.flags = item.flags;
    }
    return set;
}

OSStatus copyRights(VntAuthorization& authorization, const AuthorizationRights* rights,
                    const AuthorizationEnvironment* environment, AuthorizationFlags flags,
                    AuthorizationRights** grantedRights)
{
    AuthorityPacket packet;
    packet.beginRequest(AuthorityRequest::kCopyRights);
    packet.body().little(flags);
    if (!packet.addItems(rights) || !packet.addItems(environment))
        return errAuthorizationInvalidSet;
    const auto patience = (flags & kAuthorizationFlagInteractionAllowed) != 0 ? AuthorityClient::Patience::kUser
        : environment && environment->count != 0                              ? AuthorityClient::Patience::kCheck
                                                                              : AuthorityClient::Patience::kAnswer;
    auto answer = authorization.client->exchange(AuthorityRequest::kCopyRights, packet, patience);
    if (answer.status != errAuthorizationSuccess || !grantedRights)
        return answer.status;
    const auto granted = readItems(answer.body);
    if (!answer.body.atEnd())
        return errAuthorizationInternal;
    *grantedRights = makeItemSet(granted);
    return *grantedRights ? errAuthorizationSuccess : errAuthorizationInternal;
}

OSStatus getRight(const char* rightName, const void** definition)
{
    const std::string_view name = rightName;
    if (name.empty() || name.size() > kMaxAuthorizationNameBytes)
        return errAuthorizationDenied;
    const auto client = AuthorityClient::connect(chosenNamespace());
    if (!client)
        return errAuthorizationInternal;
    AuthorityPacket packet;
    packet.beginRequest(AuthorityRequest::kGetRight);
    packet.body().text(name);
    auto answer = client->exchange(AuthorityRequest::kGetRight, packet);
    if (answer.status != errAuthorizationSuccess || !definition)
        return answer.status;
    const auto bytes = answer.body.bytes(answer.body.remaining(), kMaxRightDefinitionBytes);
    const auto list = readPropertyList(bytes);
    Ref<Dictionary> dictionary = list.ok() ? as<Dictionary>(list.value()) : nullptr;
    if (!dictionary)
        return errAuthorizationInternal;
    *definition = static_cast<const Object*>(dictionary.leakRef());
    return errAuthorizationSuccess;
}

OSStatus setRight(VntAuthorization& authorization, const char* rightName, const void* definition)
{
    const std::string_view name = rightName;
    const Dictionary* dictionary = fromC<Dictionary>(definition);
    if (name.empty() || name.size() > kMaxAuthorizationNameBytes || !dictionary)
        return errAuthorizationInvalidSet;
    const auto bytes = writePropertyList(*dictionary, PropertyListFormat::kBinary);
    if (!bytes.ok() || bytes.value().size() > kMaxRightDefinitionBytes)
        return errAuthorizationInvalidSet;
    AuthorityPacket packet;
    packet.beginRequest(AuthorityRequest::kSetRight);
    packet.body().text(name);
    packet.body().raw(bytes.value().data(), bytes.value().size());
    // The system's authority asks an administrator.
    return authorization.client->exchange(AuthorityRequest::kSetRight, packet, AuthorityClient::Patience::kUser).status;
}

} // namespace

AuthorityScope::AuthorityScope(AuthorityNamespace choice) : _previous(authorityChoice) { authorityChoice = choice; }
AuthorityScope::~AuthorityScope() { authorityChoice = _previous; }

Status checkAuthorization(const AuthorizationExternalForm& form, uid_t peerUid, const char* right)
{
    return AuthorizationChecker().check(form, peerUid, right);
}

AuthorizationChecker::AuthorizationChecker() = default;
AuthorizationChecker::~AuthorizationChecker() = default;

Status AuthorizationChecker::check(const AuthorizationExternalForm& form, uid_t peerUid, const char* right)
{
    const std::string_view name = right;
    if (name.empty() || name.size() > kMaxAuthorizationNameBytes)
        return Status(Code::kDenied, "no such right");
    if (!_client)
        _client = AuthorityClient::connect(currentNamespace());
    if (!_client)
        return Status(Code::kPeerGone, "the authorization service cannot be reached");
    AuthorityPacket packet;
    packet.beginRequest(AuthorityRequest::kCheckForm);
    packet.body().raw(form.bytes, sizeof form.bytes);
    packet.body().little(uint32_t{peerUid});
    packet.body().text(name);
    switch (_client->exchange(AuthorityRequest::kCheckForm, packet).status) {
    case errAuthorizationSuccess:
        return {};
    case errAuthorizationInternal:
        return Status(Code::kPeerGone, "the authorization service does not answer");
    default:
        return Status(Code::kDenied, std::string("not authorized for ") + right);
    }
}

} // namespace vnt

extern "C" {

OSStatus AuthorizationCreate(const AuthorizationRights* rights, const AuthorizationEnvironment* environment,
                             AuthorizationFlags flags, AuthorizationRef* authorization)
{
    return guarded([&]() -> OSStatus {
        if (!authorization)
            return errAuthorizationInvalidRef;
        auto made = std::make_unique<VntAuthorization>();
        made->client = AuthorityClient::connect(chosenNamespace());
        if (!made->client)
            return errAuthorizationInternal;
        if (rights) {
            const OSStatus status = copyRights(*made, rights, environment, flags, nullptr);
            if (status != errAuthorizationSuccess)
                return status;
        }
        *authorization = made.release();
        return errAuthorizationSuccess;
    });
}

OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const AuthorizationRights* rights,
                                 const AuthorizationEnvironment* environment, AuthorizationFlags flags,
                                 AuthorizationRights** grantedRights)
{
    if (!authorization)
        return errAuthorizationInvalidRef;
    if (!rights)
        return errAuthorizationInvalidSet;
    return guarded([&] { return copyRights(*authorization, rights, environment, flags, grantedRights); });
}

OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags)
{
    if (!authorization)
        return errAuthorizationInvalidRef;
    const std::unique_ptr<VntAuthorization> owned(authorization);
    if ((flags & kAuthorizationFlagDestroyRights) == 0)
        return errAuthorizationSuccess; // the connection's end is the reference's end
    return guarded([&] {
        AuthorityPacket packet;
        packet.beginRequest(AuthorityRequest::kDestroyRights);
        return owned->client->exchange(AuthorityRequest::kDestroyRights, packet).status;
    });
}

OSStatus AuthorizationFreeItemSet(AuthorizationItemSet* set)
{
    std::free(set);
    return errAuthorizationSuccess;
}

OSStatus AuthorizationMakeExternalForm(AuthorizationRef authorization, AuthorizationExternalForm* form)
{
    if (!authorization)
        return errAuthorizationInvalidRef;
    if (!form)
        return errAuthorizationInvalidSet;
    return guarded([&]() -> OSStatus {
        AuthorityPacket packet;
        packet.beginRequest(AuthorityRequest::kMakeForm);
        auto answer = authorization->client->exchange(AuthorityRequest::kMakeForm, packet);
        if (answer.status != errAuthorizationSuccess)
            return answer.status;
        const auto bytes = answer.body.bytes(sizeof form->bytes, sizeof form->bytes);
        if (!answer.body.atEnd())
            return errAuthorizationInternal;
        std::memcpy(form->bytes, bytes.data(), sizeof form->bytes);
        return errAuthorizationSuccess;
    });
}

OSStatus AuthorizationRightGet(const char* rightName, const void** definition)
{
    if (!rightName)
        return errAuthorizationDenied;
    return guarded([&] { return getRight(rightName, definition); });
}

OSStatus AuthorizationRightSet(AuthorizationRef authorization, const char* rightName, const void* definition,
                               const void*, const void*, const void*)
{
    if (!authorization)
        return errAuthorizationInvalidRef;
    if (!rightName)
        return errAuthorizationInvalidSet;
    return guarded([&] { return setRight(*authorization, rightName, definition); });
}

} // extern "C"
