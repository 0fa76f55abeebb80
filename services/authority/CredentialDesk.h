#pragma once

#include <deque>
#include <memory>
#include <optional>

#include "services/authority/AuditLog.h"
#include "services/authority/Configuration.h"
#include "services/authority/FailureLimit.h"
#include "services/authority/HelperProcess.h"
#include "services/authority/SharedCredentials.h"
#include "services/authority/helper_messages.h"

namespace vnt {

/// A client that needs a credential, with what it sent along.
struct CredentialRequest {
    uint64_t client = 0; ///< connection, for CredentialDesk::forget()
    sys::PeerCredentials peer;
    std::string right; ///< for the log
    std::vector<std::string> groups; ///< one of which the user must be in
    std::optional<std::string> userName, password; ///< not given: to be asked for
    std::string text; ///< what the prompt says
    bool interactionAllowed = false;
    /// Asked before anybody is: true when another credential has come meanwhile. May be empty.
    std::function<bool()> isSettled;
    /// Called once: with the credential, or with none and the reason. None and success: isSettled() said so.
    std::function<void(OSStatus, const Credential*)> done;

    CredentialRequest() = default;
    CredentialRequest(CredentialRequest&&) = default;
    CredentialRequest& operator=(CredentialRequest&&) = default;
    ~CredentialRequest();
};

/// Finds credentials: shows prompts and checks passwords, each in a process of its own, so that no client waits for
/// another's. One prompt and one check at a time for each user; the others of that user wait their turn. On the
/// server's thread.
class CredentialDesk {
public:
    struct Options {
        std::string pamDirectory, pinentry;
    };
    CredentialDesk(PacketServer& server, AuditLog& log, Options options);

    void submit(CredentialRequest request);
    /// The client is gone: nobody is asked for it, its `done` is not called. A check that runs goes on, and counts.
    void forget(uint64_t client);
    /// Nothing runs or waits, and no failure is remembered.
    [[nodiscard]] bool isIdle();

private:
    struct Job {
        CredentialRequest request;
        unsigned prompts = 0; // shown so far
        std::string problem; // what the next one says was wrong
        bool nameWasGiven = false; // by the client, not typed

        void forgetTyped();
    };
    using Lane = std::deque<std::shared_ptr<Job>>;
    /// What one helper does, and what waits for it.
    struct Place {
        Lane waiting;
        std::shared_ptr<Job> current;
        std::unique_ptr<HelperProcess> helper;
        [[nodiscard]] bool isEmpty() const { return waiting.empty() && !current; }
    };
    struct UserPlaces {
        Place prompts, checks;

        /// What was typed into a prompt is being checked: another prompt may turn out not to be needed.
        [[nodiscard]] bool isPromptUndecided() const;
    };

    void pump(uid_t user);
    void pumpEveryone();
    std::shared_ptr<Job> nextOf(Place& place);
    void startPrompt(uid_t user, std::shared_ptr<Job> job);
    void startCheck(uid_t user, std::shared_ptr<Job> job);
    void onPrompted(uid_t user, std::span<const std::byte> answer);
    void onChecked(uid_t user, std::span<const std::byte> answer);
    void finish(Job& job, OSStatus status, const Credential* credential = nullptr);
    std::shared_ptr<Job> vacate(Place& place);

    PacketServer& _server; // outlives this
    AuditLog& _log; // outlives this
    const Options _options;
    FailureLimit _failures;
    std::map<uid_t, UserPlaces> _users;
    size_t _helpers = 0;
};

} // namespace vnt
