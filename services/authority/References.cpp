#include "services/authority/References.h"

#include <algorithm>
#include <cstring>

#include "platform/base/sys.h"

namespace vnt {

void References::open(Id id, uid_t user) { _references.try_emplace(id, Reference{user, {}, {}, false, {}}); }

void References::close(Id id)
{
    const auto found = _references.find(id);
    if (found == _references.end())
        return;
    for (const Form& form : found->second.forms)
        _byHandle.erase(handleOf(form.bytes));
    _references.erase(found);
}

void References::grant(Id id, const std::string& right, Instant until)
{
    _references.at(id).rightsUntil[right] = until;
}

bool References::holds(Id id, std::string_view right, Instant now) const
{
    const auto& rights = _references.at(id).rightsUntil;
    const auto found = rights.find(right);
    return found != rights.end() && now < found->second;
}

void References::dropRights(Id id) { _references.at(id).rightsUntil.clear(); }

uint64_t References::handleOf(const AuthorizationExternalForm& form)
{
    uint64_t handle = 0;
    static_assert(sizeof handle == kHandleBytes);
    std::memcpy(&handle, form.bytes, kHandleBytes);
    return handle;
}

Result<AuthorizationExternalForm> References::formOf(Id id, Instant now)
{
    Reference& reference = _references.at(id);
    std::erase_if(reference.forms, [&](const Form& form) {
        const bool isOver = now >= form.until;
        if (isOver)
            _byHandle.erase(handleOf(form.bytes));
        return isOver;
    });
    if (!reference.forms.empty() && reference.forms.back().until - now > _formLifetime / 2)
        return reference.forms.back().bytes;
    Form form;
    form.until = now + _formLifetime;
    do {
        RETURN_IF_ERROR(sys::randomBytes(form.bytes.bytes, sizeof form.bytes.bytes));
    } while (!_byHandle.try_emplace(handleOf(form.bytes), id).second);
    reference.forms.push_back(form);
    return form.bytes;
}

std::optional<References::Id> References::find(const AuthorizationExternalForm& form, uid_t user, Instant now) const
{
    const auto found = _byHandle.find(handleOf(form));
    if (found == _byHandle.end())
        return std::nullopt;
    const Reference& reference = _references.at(found->second);
    bool isFound = false;
    for (const Form& own : reference.forms)
        isFound |= areEqual(form, own.bytes) && reference.user == user && now < own.until;
    return isFound ? std::optional(found->second) : std::nullopt;
}

bool References::areEqual(const AuthorizationExternalForm& a, const AuthorizationExternalForm& b)
{
    unsigned difference = 0;
    for (size_t i = 0; i < sizeof a.bytes; ++i) // all of it, whatever the first byte says
        difference |= static_cast<unsigned char>(a.bytes[i] ^ b.bytes[i]);
    return difference == 0;
}

std::optional<References::Id> References::findFor(Id server, const AuthorizationExternalForm& form, uid_t user,
                                                  Instant now)
{
    std::vector<Accepted>& accepted = _references.at(server).accepted;
    if (const auto found = find(form, user, now)) {
        const bool isKnown = std::any_of(accepted.begin(), accepted.end(),
                                         [&](const Accepted& known) { return areEqual(form, known.bytes); });
        if (!isKnown && accepted.size() >= kMaxAccepted)
            accepted.erase(accepted.begin());
        if (!isKnown)
            accepted.push_back({form, *found});
        return found;
    }
    std::optional<Id> result;
    for (const Accepted& known : accepted) {
        const auto reference = _references.find(known.reference);
        if (areEqual(form, known.bytes) && reference != _references.end() && reference->second.user == user)
            result = known.reference;
    }
    return result;
}

void References::setBusy(Id id, bool busy)
{
    if (const auto found = _references.find(id); found != _references.end())
        found->second.busy = busy;
}

bool References::isBusy(Id id) const
{
    const auto found = _references.find(id);
    return found != _references.end() && found->second.busy;
}

} // namespace vnt
