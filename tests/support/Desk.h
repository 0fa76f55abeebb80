#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "platform/base/UniqueFd.h"
#include "platform/base/sys.h"
#include "tests/support/PrivateAccounts.h"

namespace vnt::test {

/// A process of a user on a terminal of that user's, and whoever sits there.
class Desk {
public:
    Desk(const Account& account, const std::function<int()>& body)
    {
        int terminal = -1;
        _child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (_child == 0) {
            (void)::fchown(STDIN_FILENO, account.uid, static_cast<gid_t>(-1));
            (void)::chdir("/");
            if (::setresgid(account.gid, account.gid, account.gid) != 0
                || ::setresuid(account.uid, account.uid, account.uid) != 0)
                ::_exit(120);
            (void)::prctl(PR_SET_DUMPABLE, 1); // as a program is that the user has started
            const int status = body();
            ::_exit(status == 0 ? 0 : -60000 - status);
        }
        _terminal = UniqueFd(terminal);
        ::fcntl(terminal, F_SETFD, FD_CLOEXEC);
    }
    ~Desk() { leave(); }

    void type(const std::string& keys) { EXPECT_TRUE(sys::writeFully(_terminal.get(), keys.data(), keys.size()).ok()); }
    /// Waits until the terminal has shown `text` since what was waited for before.
    bool shows(const std::string& text)
    {
        while (_shown.find(text, _seen) == std::string::npos) {
            pollfd ready{_terminal.get(), POLLIN, 0};
            char more[1024];
            if (sys::pollFds({&ready, 1}, std::chrono::seconds(60)).take() == 0)
                return false;
            const auto count = sys::readSome(_terminal.get(), more, sizeof more);
            if (!count.ok() || count.value() == 0)
                return false;
            _shown.append(more, count.value());
        }
        _seen = _shown.find(text, _seen) + text.size();
        return true;
    }
    /// Everything that the terminal has shown.
    [[nodiscard]] const std::string& transcript() const { return _shown; }
    /// What the body answered: 0, or a number from -60255 to -60001.
    int outcome()
    {
        int status = 0;
        (void)shows("\x04 is never shown"); // to the end: a full terminal would hold the program
        ::waitpid(_child, &status, 0);
        _child = -1;
        return WEXITSTATUS(status) == 0 ? 0 : -60000 - WEXITSTATUS(status);
    }
    void leave()
    {
        if (_child > 0) {
            ::kill(_child, SIGKILL);
            ::waitpid(_child, nullptr, 0);
        }
        _child = -1;
    }

private:
    pid_t _child = -1;
    UniqueFd _terminal;
    std::string _shown;
    size_t _seen = 0;
};

} // namespace vnt::test
