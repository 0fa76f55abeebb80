#include "services/authority/CredentialDesk.h"

#include <algorithm>

namespace vnt {
namespace {

using Level = AuditLog::Level;

constexpr size_t kMaxHelpers = 32; // of all users
constexpr size_t kMaxWaitingPerUser = 16; // in each lane
constexpr unsigned kMaxPrompts = 3; // of one request
constexpr std::chrono::seconds kPromptLimit{120};
constexpr std::chrono::seconds kCheckLimit{20}; // a directory service that is down is not waited for longer

std::chrono::steady_clock::time_point now() { return std::chrono::steady_clock::now(); }

} // namespace

CredentialRequest::~CredentialRequest()
{
    if (userName)
        wipe(*userName);
    if (password)
        wipe(*password);
}

CredentialDesk::CredentialDesk(PacketServer& server, AuditLog& log, Options options)
    : _server(server),
      _log(log),
      _options(std::move(options))
{
}

void CredentialDesk::Job::forgetTyped()
{
    wipe(*request.password);
    request.password.reset();
    if (nameWasGiven)
        return;
    wipe(*request.userName);
    request.userName.reset();
}

void CredentialDesk::submit(CredentialRequest request)
{
    const uid_t user = request.peer.uid;
    auto job = std::make_shared<Job>();
    job->request = std::move(request);
    job->nameWasGiven = job->request.userName.has_value();
    const bool isComplete = job->request.userName && job->request.password;
    if (!isComplete && !job->request.interactionAllowed)
        return finish(*job, errAuthorizationInteractionNotAllowed);
    UserPlaces& places = _users[user];
    Lane& lane = isComplete ? places.checks.waiting : places.prompts.waiting;
    if (lane.size() >= kMaxWaitingPerUser) {
        _log.write(Level::kWarning, user, "refused: too many requests of this user wait for a credential");
        return finish(*job, errAuthorizationDenied);
    }
    lane.push_back(std::move(job));
    pump(user);
}

void CredentialDesk::forget(uint64_t client)
{
    bool isPlaceFree = false;
    for (auto& [user, places] : _users) {
        for (Place* place : {&places.prompts, &places.checks})
            std::erase_if(place->waiting, [&](const auto& job) { return job->request.client == client; });
        if (places.checks.current && places.checks.current->request.client == client)
            places.checks.current->request.done = nullptr;
        if (places.prompts.current && places.prompts.current->request.client == client) {
            (void)vacate(places.prompts);
            isPlaceFree = true;
        }
    }
    if (isPlaceFree)
        pumpEveryone();
}

bool CredentialDesk::isIdle() { return _users.empty() && _failures.empty(now()); }

void CredentialDesk::pumpEveryone()
{
    std::vector<uid_t> users;
    for (const auto& [user, places] : _users)
        users.push_back(user);
    for (const uid_t user : users)
        pump(user);
}

bool CredentialDesk::UserPlaces::isPromptUndecided() const
{
    const auto wasPrompted = [](const std::shared_ptr<Job>& job) { return job->prompts > 0; };
    return (checks.current && wasPrompted(checks.current))
        || std::any_of(checks.waiting.begin(), checks.waiting.end(), wasPrompted);
}

/// The first that waits, when it may start.
std::shared_ptr<CredentialDesk::Job> CredentialDesk::nextOf(Place& place)
{
    if (place.current || place.waiting.empty() || _helpers >= kMaxHelpers)
        return nullptr;
    auto job = std::move(place.waiting.front());
    place.waiting.pop_front();
    return job;
}

/// Starts what may be started now. Finishing a request may submit another of the same user, which comes through here
/// again: the places are looked at anew each time.
void CredentialDesk::pump(uid_t user)
{
    while (!_users[user].isPromptUndecided()) {
        auto job = nextOf(_users[user].prompts);
        if (!job)
            break;
        if (job->request.isSettled && job->request.isSettled())
            finish(*job, errAuthorizationSuccess);
        else if (_failures.isReached(user, now()))
            finish(*job, errAuthorizationDenied);
        else
            startPrompt(user, std::move(job));
    }
    while (auto job = nextOf(_users[user].checks)) {
        if (_failures.isReached(user, now())) {
            _log.write(Level::kWarning, user, "refused for " + job->request.right + ": too many failures before");
            finish(*job, errAuthorizationDenied);
        } else {
            startCheck(user, std::move(job));
        }
    }
    if (_users[user].prompts.isEmpty() && _users[user].checks.isEmpty())
        _users.erase(user);
}

void CredentialDesk::startPrompt(uid_t user, std::shared_ptr<Job> job)
{
    const CredentialRequest& request = job->request;
    AskOrder order;
    order.user = request.peer.uid;
    order.group = request.peer.gid;
    order.process = request.peer.pid;
    order.userName = request.userName.value_or("");
    order.text = request.text;
    order.problem = job->problem;
    order.pinentry = _options.pinentry;
    order.groups = request.groups;
    ByteWriter bytes;
    bytes.reserve(kMaxHelperPacketBytes);
    order.write(bytes);
    auto helper = HelperProcess::start(_server, kAskMode, bytes, kPromptLimit,
                                       [this, user](std::span<const std::byte> answer) { onPrompted(user, answer); });
    if (!helper.ok()) {
        _log.write(Level::kWarning, user, "nobody could be asked: " + helper.status().message());
        return finish(*job, errAuthorizationInternal);
    }
    ++job->prompts;
    ++_helpers;
    Place& place = _users[user].prompts;
    place.helper = helper.take();
    place.current = std::move(job);
}

void CredentialDesk::startCheck(uid_t user, std::shared_ptr<Job> job)
{
    CheckOrder order;
    order.asker = std::to_string(user);
    order.userName = *job->request.userName;
    order.password = *job->request.password;
    order.pamDirectory = _options.pamDirectory;
    order.groups = job->request.groups;
    ByteWriter bytes;
    bytes.reserve(kMaxHelperPacketBytes); // no copy is left behind as it grows
    order.write(bytes);
    auto helper = HelperProcess::start(_server, kCheckMode, bytes, kCheckLimit,
                                       [this, user](std::span<const std::byte> answer) { onChecked(user, answer); });
    if (!helper.ok()) {
        _log.write(Level::kWarning, user, "nothing could be checked: " + helper.status().message());
        return finish(*job, errAuthorizationInternal);
    }
    ++_helpers;
    Place& place = _users[user].checks;
    place.helper = helper.take();
    place.current = std::move(job);
}

/// Ends the helper; what it worked on.
std::shared_ptr<CredentialDesk::Job> CredentialDesk::vacate(Place& place)
{
    place.helper.reset();
    --_helpers;
    return std::exchange(place.current, nullptr);
}

void CredentialDesk::onPrompted(uid_t user, std::span<const std::byte> answer)
{
    const std::shared_ptr<Job> job = vacate(_users[user].prompts);
    ByteCursor cursor(answer);
    const AskResult result = AskResult::read(cursor);
    if (!cursor.atEnd()) {
        finish(*job, errAuthorizationCanceled); // nobody answered in time, or the prompt was killed
    } else if (result.status != errAuthorizationSuccess) {
        const bool isClosed = result.status == errAuthorizationCanceled;
        finish(*job, isClosed ? errAuthorizationCanceled : errAuthorizationInteractionNotAllowed);
    } else {
        job->request.userName = result.userName;
        job->request.password = result.password;
        _users[user].checks.waiting.push_back(job);
    }
    pumpEveryone();
}

void CredentialDesk::onChecked(uid_t user, std::span<const std::byte> answer)
{
    const std::shared_ptr<Job> job = vacate(_users[user].checks);
    ByteCursor cursor(answer);
    const CheckResult result = CheckResult::read(cursor);
    const std::string& right = job->request.right;
    if (cursor.atEnd() && result.isGranted) {
        _log.write(Level::kNotice, user, "granted " + right + " by the credentials of " + result.userName);
        const Credential credential{result.userName, result.user, result.groups, now()};
        finish(*job, errAuthorizationSuccess, &credential);
    } else {
        _failures.note(user, now());
        _log.write(Level::kWarning, user, "refused " + right + ": the credentials were not those of an administrator");
        const bool asksAgain = job->prompts > 0 && job->prompts < kMaxPrompts && job->request.done;
        if (asksAgain) {
            job->problem = "The name and password were not accepted.";
            job->forgetTyped();
            _users[user].prompts.waiting.push_front(job);
        } else {
            finish(*job, errAuthorizationDenied);
        }
    }
    pumpEveryone();
}

void CredentialDesk::finish(Job& job, OSStatus status, const Credential* credential)
{
    if (const auto done = std::exchange(job.request.done, nullptr))
        done(status, credential);
}

} // namespace vnt
