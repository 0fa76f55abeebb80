#include "services/authority/Authority.h"

#include <unistd.h>

#include <cstring>

#include "platform/foundation/PropertyList.h"

namespace vnt {
namespace {

using Level = AuditLog::Level;

/// Definitions come from clients: small, and flat.
constexpr PropertyListLimits kDefinitionLimits{kMaxRightDefinitionBytes, 1024, 16};
// A reference is a connection. One user's share leaves room for others and for the services that check forms.
constexpr size_t kMaxConnections = 2048;
constexpr size_t kMaxConnectionsPerUser = 64;

std::chrono::steady_clock::time_point now() { return std::chrono::steady_clock::now(); }

} // namespace

Authority::Authority(const AuthorityArguments& arguments, AuthorityConfiguration configuration, RightsDatabase database)
    : _isSystem(arguments.service.which == Namespace::kSystem),
      _configuration(std::move(configuration)),
      _database(std::move(database)),
      _references(arguments.formLifetime),
      _log(arguments.logFile)
{
}

Result<std::unique_ptr<Authority>> Authority::open(AuthorityArguments arguments)
{
    const bool isSystem = arguments.service.which == Namespace::kSystem;
    if (isSystem && ::geteuid() != 0)
        return Status(Code::kDenied, "the system's authority is root's");
    AuthorityConfiguration configuration;
    Result<RightsDatabase> database = RightsDatabase::inMemory();
    if (isSystem) {
        ASSIGN_OR_RETURN(configuration, AuthorityConfiguration::load(arguments.configurationFile));
        database = RightsDatabase::inDirectory(arguments.stateDirectory);
    }
    RETURN_IF_ERROR(database.status());
    std::unique_ptr<Authority> authority(new Authority(arguments, configuration, database.take()));
    PacketServer::Options options;
    options.arguments = std::move(arguments.service);
    options.name = kAuthorityServiceName;
    options.access = isSystem ? PacketServer::Access::kAnyUser : PacketServer::Access::kOwnUser;
    options.idleExit = arguments.idleExit;
    options.maxPacketBytes = kMaxAuthorityPacketBytes;
    options.maxConnections = kMaxConnections;
    options.maxConnectionsPerUser = kMaxConnectionsPerUser;
    PacketServer::Handlers handlers;
    handlers.wipesPackets = true;
    handlers.onPacket = [self = authority.get()](Id id, const sys::PeerCredentials& peer, Packet& packet) {
        self->onPacket(id, peer, packet);
    };
    handlers.onClose = [self = authority.get()](Id id) { self->onClose(id); };
    handlers.mayExit = [self = authority.get()] {
        return self->_shared.empty(now()) && (!self->_desk || self->_desk->isIdle());
    };
    ASSIGN_OR_RETURN(authority->_server, PacketServer::open(std::move(options), std::move(handlers)));
    if (isSystem)
        authority->_desk = std::make_unique<CredentialDesk>(
            *authority->_server, authority->_log,
            CredentialDesk::Options{arguments.pamDirectory, authority->_configuration.pinentry});
    return authority;
}

void Authority::onPacket(Id id, const sys::PeerCredentials& peer, Packet& packet)
{
    ByteCursor cursor(packet.bytes);
    const auto magic = cursor.little<uint32_t>();
    const auto version = cursor.little<uint16_t>();
    const auto request = static_cast<AuthorityRequest>(cursor.little<uint16_t>());
    // Also a second request before the answer to the first: our clients never do that.
    if (cursor.failed() || magic != kAuthorityMagic || version != kAuthorityVersion || !packet.descriptors.empty()
        || _references.isBusy(id))
        return refuse(id, peer);
    _references.open(id, peer.uid);
    switch (request) {
    case AuthorityRequest::kCopyRights:
        return copyRights(id, peer, cursor);
    case AuthorityRequest::kMakeForm:
        return cursor.atEnd() ? makeForm(id) : refuse(id, peer);
    case AuthorityRequest::kGetRight:
        return getRight(id, peer, cursor);
    case AuthorityRequest::kSetRight:
        return setRight(id, peer, cursor);
    case AuthorityRequest::kCheckForm:
        return checkForm(id, peer, cursor);
    case AuthorityRequest::kDestroyRights:
        if (!cursor.atEnd())
            break;
        _references.dropRights(id);
        return answer(id, request, errAuthorizationSuccess);
    }
    refuse(id, peer);
}

void Authority::onClose(Id id)
{
    _references.close(id);
    if (_desk)
        _desk->forget(id);
}

/// For what no client of ours sends.
void Authority::refuse(Id id, const sys::PeerCredentials& peer)
{
    _log.write(Level::kWarning, peer.uid, "sent a malformed request, process " + std::to_string(peer.pid));
    _server->close(id);
}

void Authority::answer(Id id, AuthorityRequest request, OSStatus status, std::span<const std::byte> body)
{
    AuthorityPacket packet;
    packet.beginAnswer(static_cast<uint16_t>(request), status);
    packet.body().raw(body.data(), body.size());
    (void)_server->send(id, packet.bytes()); // a client that is gone needs no answer
}

void Authority::makeForm(Id id)
{
    const auto form = _references.formOf(id, now());
    if (!form.ok())
        return answer(id, AuthorityRequest::kMakeForm, errAuthorizationExternalizeNotAllowed);
    answer(id, AuthorityRequest::kMakeForm, errAuthorizationSuccess, std::as_bytes(std::span(form.value().bytes)));
}

void Authority::checkForm(Id id, const sys::PeerCredentials& peer, ByteCursor& cursor)
{
    AuthorizationExternalForm form{};
    const auto bytes = cursor.bytes(sizeof form.bytes, sizeof form.bytes);
    const auto user = cursor.little<uint32_t>();
    const std::string right(cursor.text(kMaxAuthorizationNameBytes));
    if (!cursor.atEnd())
        return refuse(id, peer);
    std::memcpy(form.bytes, bytes.data(), sizeof form.bytes);
    // About other users' references only our own user's servers may ask.
    const bool mayAsk = peer.uid == ::geteuid() || peer.uid == user;
    const auto found = mayAsk ? _references.findFor(id, form, user, now()) : std::nullopt;
    const bool held = found && _database.rule(right) && _references.holds(*found, right, now());
    if (!held)
        _log.write(Level::kWarning, mayAsk ? user : peer.uid,
                   "refused " + right
                       + (!mayAsk      ? ": asked about another user's form"
                              : !found ? ": its form is unknown, of another user or expired"
                                       : ": its form does not hold the right"));
    answer(id, AuthorityRequest::kCheckForm, held ? errAuthorizationSuccess : errAuthorizationDenied);
}

void Authority::getRight(Id id, const sys::PeerCredentials& peer, ByteCursor& cursor)
{
    const std::string_view name = cursor.text(kMaxAuthorizationNameBytes);
    if (!cursor.atEnd())
        return refuse(id, peer);
    const Ref<Dictionary> definition = _database.definition(name);
    if (!definition)
        return answer(id, AuthorityRequest::kGetRight, errAuthorizationDenied);
    const auto bytes = writePropertyList(*definition, PropertyListFormat::kBinary);
    if (!bytes.ok())
        return answer(id, AuthorityRequest::kGetRight, errAuthorizationInternal);
    answer(id, AuthorityRequest::kGetRight, errAuthorizationSuccess, bytes.value());
}

void Authority::setRight(Id id, const sys::PeerCredentials& peer, ByteCursor& cursor)
{
    const std::string name(cursor.text(kMaxAuthorizationNameBytes));
    const auto bytes = cursor.bytes(cursor.remaining(), kMaxRightDefinitionBytes);
    if (cursor.failed() || name.empty() || name.find('\0') != std::string::npos)
        return refuse(id, peer);
    const auto list = readPropertyList(bytes, kDefinitionLimits);
    Ref<Dictionary> definition = list.ok() ? as<Dictionary>(list.value()) : nullptr;
    if (!definition || !RightsDatabase::check(*definition).ok())
        return answer(id, AuthorityRequest::kSetRight, errAuthorizationInvalidSet);
    // The rules of the machine are root's; those of the user's own authority its user's, the only one connected.
    if (_isSystem && peer.uid != 0)
        return askToSetRight(id, peer, name, std::move(definition));
    storeRight(id, peer, name, std::move(definition));
}

/// An administrator is asked each time: no credential that was given for something else serves this.
void Authority::askToSetRight(Id id, const sys::PeerCredentials& peer, const std::string& name,
                              Ref<Dictionary> definition)
{
    CredentialRequest request;
    request.client = id;
    request.peer = peer;
    request.right = "the definition of " + name;
    request.groups = _configuration.groupsFor("admin");
    request.text = "A program wants to change who may have the right \"" + name + "\" on this machine.";
    request.interactionAllowed = true;
    request.done = [this, id, peer, name, definition](OSStatus status, const Credential*) {
        _references.setBusy(id, false);
        if (status != errAuthorizationSuccess)
            return answer(id, AuthorityRequest::kSetRight, status);
        storeRight(id, peer, name, definition);
    };
    _references.setBusy(id, true);
    _desk->submit(std::move(request));
}

void Authority::storeRight(Id id, const sys::PeerCredentials& peer, const std::string& name, Ref<Dictionary> definition)
{
    const Status stored = _database.set(name, std::move(definition));
    _log.write(stored.ok() ? Level::kNotice : Level::kWarning, peer.uid,
               stored.ok() ? "defined the right " + name
                           : "could not define the right " + name + ": " + stored.message());
    answer(id, AuthorityRequest::kSetRight, stored.ok() ? errAuthorizationSuccess : errAuthorizationInternal);
}

} // namespace vnt
