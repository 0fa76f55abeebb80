#include "Vantora/privileged/TerminalCredentials.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Vantora/privileged/Rights.h"
#include "Vantora/privileged/ScriptedAuthority_test.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

using test::currentDefinition;
using test::ScriptedAuthority;
using Lines = std::vector<std::string>;

constexpr OSStatus kAsk = errAuthorizationInteractionNotAllowed;
const std::string kAlone = "copy [quillon.process.analysis] () 18";
const std::string kDialog =
    "copy [quillon.process.analysis] (prompt=Vantora wants permission to analyze other processes.) 19";

std::string withCredentials(const std::string& items) { return "copy [quillon.process.analysis] (" + items + ") 18"; }

/// A process on a terminal of its own that creates the session's authorization, and the user who types there.
class TerminalSession {
public:
    enum Standard { kTerminals, kInputIsPipe, kErrorIsPipe };

    TerminalSession(ScriptedAuthority::Script script, Standard standard, const char* loginUid = nullptr)
        : _authority(Namespace::kUser, std::move(script)),
          _verdict(sys::makePipe().take()),
          _go(sys::makePipe().take())
    {
        int terminal = -1;
        _child = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (_child == 0)
            runChild(standard, loginUid);
        _terminal = UniqueFd(terminal);
        ::fcntl(terminal, F_SETFD, FD_CLOEXEC);
        _verdict.second.reset();
        _authority.start();
    }
    ~TerminalSession()
    {
        _go.second.reset();
        _terminal.reset();
        if (_child > 0)
            ::kill(_child, SIGKILL);
        ::waitpid(_child, nullptr, 0);
    }

    void type(const std::string& keys) { EXPECT_TRUE(sys::writeFully(_terminal.get(), keys.data(), keys.size()).ok()); }
    /// Waits until the terminal has shown `text` after what was waited for before.
    testing::AssertionResult shows(const std::string& text)
    {
        while (_shown.find(text, _seen) == std::string::npos) {
            if (!readMore())
                return testing::AssertionFailure() << "not shown: " << text << "\nshown: " << _shown;
        }
        _seen = _shown.find(text, _seen) + text.size();
        return testing::AssertionSuccess();
    }
    /// Whether a reference came out of it. The process stays.
    bool succeeded()
    {
        char verdict = '?';
        EXPECT_TRUE(sys::readFully(_verdict.first.get(), &verdict, 1).ok());
        return verdict == 'y';
    }
    /// All that was ever shown; call after succeeded().
    std::string everythingShown()
    {
        pollfd ready{_terminal.get(), POLLIN, 0};
        while (sys::pollFds({&ready, 1}, std::chrono::milliseconds(0)).take() > 0 && readMore()) { }
        return _shown;
    }
    Lines transcript() { return _authority.transcript(); }
    [[nodiscard]] pid_t process() const { return _child; }

private:
    [[noreturn]] void runChild(Standard standard, const char* loginUid)
    {
        _go.second.reset();
        if (loginUid) {
            std::ofstream file("/proc/self/loginuid");
            file << loginUid << std::flush;
        }
        auto pipe = sys::makePipe().take();
        if (standard == kInputIsPipe)
            ::dup2(pipe.first.get(), STDIN_FILENO);
        if (standard == kErrorIsPipe)
            ::dup2(pipe.second.get(), STDERR_FILENO);
        const AuthorizationRef reference = AzlCreateAuthorization();
        (void)::write(_verdict.second.get(), reference ? "y" : "n", 1);
        char byte = 0;
        (void)::read(_go.first.get(), &byte, 1);
        ::_exit(0);
    }
    bool readMore()
    {
        pollfd ready{_terminal.get(), POLLIN, 0};
        char text[512];
        if (sys::pollFds({&ready, 1}, std::chrono::seconds(30)).take() == 0)
            return false;
        const auto count = sys::readSome(_terminal.get(), text, sizeof text);
        if (!count.ok() || count.value() == 0)
            return false;
        _shown.append(text, count.value());
        return true;
    }

    ScriptedAuthority _authority;
    std::pair<UniqueFd, UniqueFd> _verdict, _go;
    UniqueFd _terminal;
    pid_t _child = -1;
    std::string _shown;
    size_t _seen = 0;
};

class TerminalCredentialsTest : public testing::Test {
protected:
    void SetUp() override
    {
        useNamespace(Namespace::kUser);
        ::setenv("VANTORA_PROGRAM_DIR", "/nowhere", 1);
    }
    void TearDown() override { ::unsetenv("VANTORA_PROGRAM_DIR"); }
    static Lines requests(TerminalSession& session)
    {
        Lines lines = session.transcript();
        EXPECT_FALSE(lines.empty());
        if (!lines.empty())
            lines.erase(lines.begin()); // the definition is read first, always
        return lines;
    }
    static ScriptedAuthority::Script answering(std::deque<OSStatus> statuses)
    {
        return {currentDefinition(36000), 0, std::move(statuses), {}};
    }
};

TEST_F(TerminalCredentialsTest, WhatIsTypedIsSent)
{
    struct Row {
        const char* what;
        std::string name, password;
        const char* items; // null: nothing is asked
    };
    const std::string longName(300, 'n');
    const std::string cutName = "username=" + longName.substr(0, 253) + ", password=secret, shared";
    const Row rows[] = {
        {"name and password", "fred\n", "secret\n", "username=fred, password=secret, shared"},
        {"a long name is cut", longName + "\n", "secret\n", cutName.c_str()},
        {"253 characters are kept", longName.substr(0, 253) + "\n", "secret\n", cutName.c_str()},
        {"the end of the file takes the last character", "fred\x04\x04", "secret\n",
         "username=fre, password=secret, shared"},
        {"a NUL ends the name", std::string("\0red\n", 5), "secret\n", "username, password=secret, shared"},
        {"an empty password is one", "fred\n", "\n", "username=fred, password, shared"},
        {"a password that looks like an interrupt", "fred\n", "a\x03z\n", "username=fred, password=a\x03z, shared"},
        {"no name at all", "\x04", "secret\n", nullptr},
        {"no password at all", "fred\n", "\x04", nullptr},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        TerminalSession session(answering({kAsk}), TerminalSession::kTerminals);
        ASSERT_TRUE(session.shows(": Vantora wants permission to analyze other processes. "
                                  "Type your password to allow this.\r\nName"));
        ASSERT_TRUE(session.shows(": "));
        session.type(row.name);
        ASSERT_TRUE(session.shows("Password: "));
        session.type(row.password);
        EXPECT_EQ(session.succeeded(), row.items != nullptr);
        Lines expected{kAlone};
        expected.push_back(row.items ? withCredentials(row.items) : "destroy");
        EXPECT_EQ(requests(session), expected);
        EXPECT_TRUE(session.shows(row.items ? "\r\n" : "Vantora: Failed to Authorize Rights: -60006.\r\n"));
        EXPECT_EQ(session.everythingShown().find("secret"), std::string::npos) << "the password was shown";
    }
}

TEST_F(TerminalCredentialsTest, ReturnTakesTheLoginName)
{
    // Without privilege the process keeps the login it has, if it has one.
    TerminalSession session(answering({kAsk}), TerminalSession::kTerminals, "0");
    ASSERT_TRUE(session.shows("Name"));
    ASSERT_TRUE(session.shows(": "));
    const std::string shown = session.everythingShown();
    const size_t begin = shown.find("Name (");
    const std::string login =
        begin == std::string::npos ? "" : shown.substr(begin + 6, shown.find(')', begin) - begin - 6);
    session.type("\n");
    ASSERT_TRUE(session.shows("Password: "));
    session.type("secret\n");
    EXPECT_EQ(session.succeeded(), !login.empty());
    EXPECT_EQ(requests(session),
              (Lines{kAlone,
                     login.empty() ? "destroy" : withCredentials("username=" + login + ", password=secret, shared")}));
    EXPECT_TRUE(session.shows(login.empty() ? "Vantora: Failed to Authorize Rights: -60006.\r\n" : "\r\n"));
}

TEST_F(TerminalCredentialsTest, NobodyIsAskedWhenThatIsNotNeededOrNotPossible)
{
    struct Row {
        const char* what;
        TerminalSession::Standard standard;
        std::deque<OSStatus> statuses;
        bool succeeds;
        Lines requests;
        const char* said;
    };
    const Row rows[] = {
        {"granted already: asked twice", TerminalSession::kTerminals, {}, true, {kAlone, kAlone}, ""},
        {"the second answer counts",
         TerminalSession::kTerminals,
         {0, errAuthorizationDenied},
         false,
         {kAlone, kAlone, "destroy"},
         "Vantora: Failed to Authorize Rights: -60005.\r\n"},
        {"refused, then granted", TerminalSession::kTerminals, {errAuthorizationDenied}, true, {kAlone, kAlone}, ""},
        {"interaction needed at the second time only",
         TerminalSession::kTerminals,
         {0, kAsk},
         false,
         {kAlone, kAlone, "destroy"},
         "Vantora: Failed to Authorize Rights: -60007.\r\n"},
        {"input is no terminal", TerminalSession::kInputIsPipe, {}, true, {kDialog}, ""},
        {"input is no terminal, refused",
         TerminalSession::kInputIsPipe,
         {kAsk},
         false,
         {kDialog, "destroy"},
         "Vantora: Failed to Authorize Rights: -60007.\r\n"},
        {"standard error is no terminal", TerminalSession::kErrorIsPipe, {}, true, {kDialog}, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        TerminalSession session(answering(row.statuses), row.standard);
        EXPECT_EQ(session.succeeded(), row.succeeds);
        EXPECT_EQ(requests(session), row.requests);
        EXPECT_EQ(session.everythingShown(), row.said);
    }
}

TEST_F(TerminalCredentialsTest, ARefusedPasswordEndsTheReference)
{
    TerminalSession session(answering({kAsk, errAuthorizationDenied}), TerminalSession::kTerminals);
    ASSERT_TRUE(session.shows("Name"));
    session.type("fred\n");
    ASSERT_TRUE(session.shows("Password: "));
    session.type("wrong\n");
    EXPECT_FALSE(session.succeeded());
    EXPECT_EQ(requests(session), (Lines{kAlone, withCredentials("username=fred, password=wrong, shared"), "destroy"}));
    EXPECT_TRUE(session.shows("Vantora: Failed to Authorize Rights: -60005.\r\n"));
}

/// Places in a process's own memory where `text` stands.
Lines placesOf(pid_t process, const std::string& text)
{
    constexpr unsigned long kLargest = 256ul << 20; // a sanitizer's shadow is no place of ours
    Lines places;
    const std::string directory = "/proc/" + std::to_string(process);
    std::ifstream maps(directory + "/maps");
    std::ifstream memory(directory + "/mem", std::ios::binary);
    for (std::string line; std::getline(maps, line);) {
        unsigned long begin = 0, end = 0;
        char writable = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx %*c%c", &begin, &end, &writable) != 3 || writable != 'w'
            || end - begin > kLargest)
            continue;
        std::string bytes(end - begin, '\0');
        memory.clear();
        memory.seekg(static_cast<std::streamoff>(begin));
        memory.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (bytes.find(text) != std::string::npos)
            places.push_back(line);
    }
    return places;
}

TEST_F(TerminalCredentialsTest, NothingTypedStaysInMemory)
{
    TerminalSession session(answering({kAsk}), TerminalSession::kTerminals);
    // Made after the fork: the process has them from the terminal only.
    const std::string name = "user-" + sys::randomHex(12), password = "word-" + sys::randomHex(12);
    ASSERT_TRUE(session.shows("Name"));
    session.type(name + "\n");
    ASSERT_TRUE(session.shows("Password: "));
    if (placesOf(session.process(), "Type your password").empty() && placesOf(session.process(), name).empty())
        GTEST_SKIP() << "needs to read the memory of a child; run: sudo sysctl kernel.yama.ptrace_scope=1";
    EXPECT_NE(placesOf(session.process(), name), Lines{}); // the look finds what there is
    session.type(password + "\n");
    ASSERT_TRUE(session.succeeded());
    EXPECT_EQ(requests(session),
              (Lines{kAlone, withCredentials("username=" + name + ", password=" + password + ", shared")}));
    EXPECT_EQ(placesOf(session.process(), name), Lines{});
    EXPECT_EQ(placesOf(session.process(), password), Lines{});
}

} // namespace
} // namespace vnt
