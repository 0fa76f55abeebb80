// Which rights a reference is granted: the part of Authority that may have to wait for a credential.
#include "services/authority/Authority.h"

namespace vnt {
namespace {

std::chrono::steady_clock::time_point now() { return std::chrono::steady_clock::now(); }

/// A right is held for as long as its definition says after the credential was given, however late it was asked for.
std::chrono::steady_clock::time_point endOf(const RightRule& rule, std::chrono::steady_clock::time_point begin)
{
    return rule.timeout ? begin + *rule.timeout : std::chrono::steady_clock::time_point::max();
}

} // namespace

struct Authority::Decision {
    Id id = 0;
    sys::PeerCredentials peer;
    uint32_t flags = 0;
    std::vector<std::string> rights;
    size_t next = 0;
    std::vector<std::string> granted;
    // What the environment said.
    std::optional<std::string> userName, password;
    std::string prompt;
    bool sharesCredential = false;
    std::optional<LoginSession> session; // looked up when it matters
    std::optional<Credential> credential; // given for this request, whether shared or not

    ~Decision()
    {
        if (userName)
            wipe(*userName);
        if (password)
            wipe(*password);
    }
    [[nodiscard]] bool allows(uint32_t flag) const { return (flags & flag) != 0; }
};

void Authority::copyRights(Id id, const sys::PeerCredentials& peer, ByteCursor& cursor)
{
    auto decision = std::make_shared<Decision>();
    decision->id = id;
    decision->peer = peer;
    decision->flags = cursor.little<uint32_t>();
    for (const AuthorizationItemView& item : readItems(cursor))
        decision->rights.emplace_back(item.name);
    for (const AuthorizationItemView& item : readItems(cursor)) {
        if (item.name == "username")
            decision->userName.emplace(item.value);
        else if (item.name == "password")
            decision->password.emplace(item.value);
        else if (item.name == "prompt")
            decision->prompt = item.value;
        else if (item.name == "shared")
            decision->sharesCredential = true;
    }
    if (!cursor.atEnd())
        return refuse(id, peer);
    _references.setBusy(id, true);
    decideNext(std::move(decision));
}

/// The newest credential that serves the rule: the one given for this very request, or a shared one.
const Credential* Authority::credentialFor(Decision& decision, const RightRule& rule) const
{
    const std::vector<std::string> groups = _configuration.groupsFor(rule.group);
    if (decision.credential && decision.credential->isOneOf(groups))
        return &*decision.credential;
    if (!decision.session)
        decision.session = LoginSession::of(decision.peer);
    return _shared.find(*decision.session, rule, groups, now());
}

/// The status when no new credential is needed to tell; none when one is. A right that is granted is held afterwards.
std::optional<OSStatus> Authority::decideAlone(Decision& decision, const std::string& right,
                                               const std::optional<RightRule>& rule)
{
    if (!rule)
        return errAuthorizationDenied;
    if (_references.holds(decision.id, right, now()))
        return errAuthorizationSuccess;
    if (!decision.allows(kAuthorizationFlagExtendRights))
        return errAuthorizationDenied;
    Instant begin = now();
    if (!_isSystem) {
        // What a user may do with own processes anyway; connections of others were refused.
        if (right != RightsDatabase::kAnalysisRight && right != RightsDatabase::kKillRight)
            return errAuthorizationDenied;
    } else if (!rule->allowRoot || decision.peer.uid != 0) {
        const Credential* credential = credentialFor(decision, *rule);
        if (!credential)
            return std::nullopt;
        begin = credential->obtained;
    }
    _references.grant(decision.id, right, endOf(*rule, begin));
    return errAuthorizationSuccess;
}

/// Goes on until a right needs a credential or all are decided. A refusal ends it, unless part of the rights will do.
void Authority::decideNext(std::shared_ptr<Decision> decision)
{
    while (decision->next < decision->rights.size()) {
        const std::string& right = decision->rights[decision->next];
        const std::optional<RightRule> rule = _database.rule(right);
        const std::optional<OSStatus> status = decideAlone(*decision, right, rule);
        if (!status)
            return askFor(decision, right, *rule);
        if (*status == errAuthorizationSuccess)
            decision->granted.push_back(right);
        else if (!decision->allows(kAuthorizationFlagPartialRights))
            return finish(*decision, *status);
        ++decision->next;
    }
    finish(*decision, errAuthorizationSuccess);
}

void Authority::askFor(const std::shared_ptr<Decision>& decision, const std::string& right, const RightRule& rule)
{
    CredentialRequest request;
    request.client = decision->id;
    request.peer = decision->peer;
    request.right = right;
    request.groups = _configuration.groupsFor(rule.group);
    request.userName = decision->userName;
    request.password = decision->password;
    request.text = decision->prompt.empty() ? "A program asks for the right \"" + right + "\"." : decision->prompt;
    request.interactionAllowed = decision->allows(kAuthorizationFlagInteractionAllowed);
    request.isSettled = [this, decision, rule] { return credentialFor(*decision, rule) != nullptr; };
    const bool wasTypedHere = !request.userName || !request.password;
    request.done = [this, decision, rule, wasTypedHere](OSStatus status, const Credential* credential) {
        if (credential) {
            decision->credential = *credential;
            if (rule.shared && (wasTypedHere || decision->sharesCredential))
                _shared.add(*decision->session, *credential);
        }
        if (status != errAuthorizationSuccess) {
            if (!decision->allows(kAuthorizationFlagPartialRights))
                return finish(*decision, status);
            ++decision->next;
        }
        decideNext(decision);
    };
    _desk->submit(std::move(request));
}

void Authority::finish(Decision& decision, OSStatus status)
{
    _references.setBusy(decision.id, false);
    if (status != errAuthorizationSuccess)
        return answer(decision.id, AuthorityRequest::kCopyRights, status);
    ByteWriter granted;
    granted.little(static_cast<uint32_t>(decision.granted.size()));
    for (const std::string& right : decision.granted) {
        granted.text(right);
        granted.little(uint32_t{0});
        granted.text("");
    }
    answer(decision.id, AuthorityRequest::kCopyRights, status, granted.view());
}

} // namespace vnt
