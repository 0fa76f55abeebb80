#pragma once

#include <string>

#include "platform/mach/Namespace.h"

namespace vnt::test {

/// Real authorities with a world of their own: name directories, rights database, configuration, PAM stack and log are
/// in one private directory, removed at the end together with the processes. Set up before the first look-up; the
/// environment is changed, so one at a time and with no other thread.
///
/// Look-ups start the programs of `programs`, VantoraAuthority through a script that adds its command line.
class PrivateAuthority {
public:
    /// `options` is added to VantoraAuthority's command line.
    explicit PrivateAuthority(const std::string& programs, const std::string& options = "");
    ~PrivateAuthority();
    PrivateAuthority(const PrivateAuthority&) = delete;
    PrivateAuthority& operator=(const PrivateAuthority&) = delete;

    [[nodiscard]] const std::string& directory() const { return _directory; }
    /// All that was logged so far.
    [[nodiscard]] std::string log() const;
    /// Replaces the configuration file; for authorities that start later.
    void configure(const std::string& text) const { writeFile("/authority.conf", text); }
    /// Replaces the PAM service file; empty: there is none. Takes effect at once.
    void setPamService(const std::string& text) const;
    /// Number of the running authority; starts one when there is none. -1 when it cannot be reached.
    [[nodiscard]] static pid_t process(Namespace which);
    /// Ends the running authority of that namespace, if there is one, and waits for its end.
    void kill(Namespace which) const;

private:
    void writeFile(const std::string& name, const std::string& text) const;

    const std::string _programs;
    std::string _directory;
    std::string _userDirectory, _systemDirectory; ///< what the environment said before
};

} // namespace vnt::test
