#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "platform/mach/ServiceStart.h"

namespace vnt {

/// What the machine's administrator decides: /etc/vantora/authority.conf, lines of `key = value`, `#` begins a comment.
struct AuthorityConfiguration {
    /// `admin-groups`: the groups, separated by blanks, whose members are the "admin" of a right's definition.
    std::vector<std::string> adminGroups{"sudo", "wheel", "admin"};
    /// `pinentry`: the program that shows the prompt; "none": there is none.
    std::string pinentry = "/usr/bin/pinentry";

    /// The defaults when there is no such file. Errors: kDenied when others than its owner, this process's user, could
    /// change it; kInvalid with the line; better no service than other rules.
    static Result<AuthorityConfiguration> load(const std::string& path);
    /// The groups of this machine that stand for a definition's `group`; none for an empty one.
    [[nodiscard]] std::vector<std::string> groupsFor(const std::string& group) const;
};

/// The program's command line. What changes where the authority looks comes from here alone: its environment is that
/// of whoever looked its name up first.
struct AuthorityArguments {
    ServiceArguments service;
    std::string stateDirectory = "/var/lib/vantora"; ///< --state=DIR
    std::string configurationFile = "/etc/vantora/authority.conf"; ///< --config=FILE
    std::string pamDirectory; ///< --pam-config=DIR; empty: the system's
    std::string logFile; ///< --log=FILE; empty: the system log
    std::chrono::seconds formLifetime{600}; ///< --form-lifetime=SECONDS
    std::chrono::seconds idleExit{30}; ///< --idle-exit=SECONDS

    /// Errors: kInvalid for an unknown argument; kDenied for any of the above in secure execution.
    static Result<AuthorityArguments> parse(int argc, char** argv);
};

/// False (kDenied, kSystem, kNotFound) unless only this process's user could have changed the file or directory.
Status checkOwnOnly(const std::string& path);

} // namespace vnt
