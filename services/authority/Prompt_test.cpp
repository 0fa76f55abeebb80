#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "Vantora/privileged/Rights.h"
#include "platform/base/sys.h"
#include "services/authority/AuthorityFixture_test.h"
#include "tests/support/Desk.h"

namespace vnt::test {
namespace {

const Account& ordinary = PrivateAccounts::kOrdinary;
const Account& administrator = PrivateAccounts::kAdministrator;

class PromptTest : public AuthorityTest {
protected:
    /// A program that speaks as a prompt's does, in the shell; what it is told goes into a file beside it.
    void usePinentry(const std::string& onGetPin, const std::string& greeting = "OK ready")
    {
        const std::string path = world().directory() + "/pinentry";
        std::ofstream(path) << "#!/bin/sh\necho \"uid $(id -u) gid $(id -g)\" >>" << path << ".log\nenv >>" << path
                            << ".env\necho '" << greeting << "'\nwhile read -r line; do\n  echo \"$line\" >>" << path
                            << ".log\n  case \"$line\" in\n  GETPIN*) " << onGetPin
                            << " ;;\n  *) echo OK ;;\n  esac\ndone\n";
        ::chmod(path.c_str(), 0755);
        for (const char* suffix : {".log", ".env"}) {
            std::ofstream(path + suffix) << "";
            ::chmod((path + suffix).c_str(), 0666);
        }
        use(path);
    }
    void use(const std::string& program)
    {
        world().kill(Namespace::kSystem);
        world().configure("admin-groups = vnt-admins\npinentry = " + program + "\n");
        ASSERT_GT(PrivateAuthority::process(Namespace::kSystem), 0);
    }
    std::string told(const char* suffix = ".log")
    {
        std::ifstream file(world().directory() + "/pinentry" + suffix);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }
    static OSStatus asking(const char* right = kAnalysis, const std::string& prompt = "Please\nallow 100% of it.")
    {
        Typed typed;
        typed.prompt = prompt;
        return request(newReference(), {right}, typed, kAsking);
    }
    static std::string sayPassword(const Account& account)
    {
        return std::string("echo 'D ") + account.password + "'; echo OK";
    }
};

TEST_F(PromptTest, TheMachinesOwnProgramAsksOnTheTerminal)
{
    if (::access("/usr/bin/pinentry-curses", X_OK) != 0)
        GTEST_SKIP() << "needs pinentry-curses; run: sudo apt-get install pinentry-curses";
    use("/usr/bin/pinentry-curses");
    Desk desk(administrator, [] { return asking(); });
    ASSERT_TRUE(desk.shows("allow 100% of it."));
    ASSERT_TRUE(desk.shows("vnt-administrator"));
    desk.type(std::string(administrator.password) + "\r");
    EXPECT_EQ(desk.outcome(), kGranted);
}

TEST_F(PromptTest, TheProgramsAnswerDecides)
{
    const std::string flag = world().directory() + "/tried";
    struct Row {
        const char* what;
        const Account& asker;
        std::string onGetPin;
        OSStatus expected;
    };
    const Row rows[] = {
        {"an administrator's password", administrator, sayPassword(administrator), kGranted},
        {"escaped bytes", administrator, "echo 'D %76iolet-4-%53tone'; echo OK", kGranted},
        {"wrong, then right", administrator,
         "if [ -e " + flag + " ]; then " + sayPassword(administrator) + "; else : >" + flag
             + "; echo 'D no'; echo OK; fi",
         kGranted},
        {"always wrong", ordinary, "echo 'D no'; echo OK", errAuthorizationDenied},
        {"closed", ordinary, "echo 'ERR 83886179 Operation cancelled <Pinentry>'", errAuthorizationCanceled},
        {"no terminal for it", ordinary, "echo 'ERR 83918950 Inappropriate ioctl'", kNobodyAsked},
        {"gone", ordinary, "exit 0", kNobodyAsked},
        {"a line without end", ordinary, "head -c 100000 /dev/zero | tr '\\0' x", kNobodyAsked},
        {"lines without end", ordinary, "yes 'S PROGRESS'", kNobodyAsked},
    };
    ::chmod(world().directory().c_str(), 0777); // the flag is the asking user's
    for (const Row& row : rows) {
        usePinentry(row.onGetPin);
        Desk desk(row.asker, [] { return asking(); });
        EXPECT_EQ(desk.outcome(), row.expected) << row.what << "\n" << told();
    }
}

TEST_F(PromptTest, ItRunsAsTheAskingUserAndSaysWhoAsks)
{
    usePinentry(sayPassword(administrator));
    Desk desk(administrator, [] { return asking(); });
    EXPECT_EQ(desk.outcome(), kGranted);
    const std::string log = told();
    EXPECT_EQ(log.find("uid 61002 gid 61001\n"), 0u) << log;
    EXPECT_NE(log.find("OPTION ttyname=/dev/pts/"), std::string::npos) << log;
    EXPECT_NE(log.find("SETDESC Asked by /"), std::string::npos) << log;
    EXPECT_NE(log.find(" of user vnt-administrator):%0A%0APlease%0Aallow 100%25 of it.\n"), std::string::npos) << log;
    EXPECT_NE(log.find("SETPROMPT Password of vnt-administrator:\n"), std::string::npos) << log;
    EXPECT_EQ(told(".env").find("VANTORA_"), std::string::npos) << "the environment of a stranger";
}

TEST_F(PromptTest, AClientsWordsNeitherHideWhoAsksNorSayAnythingToTheProgram)
{
    usePinentry(sayPassword(administrator));
    const std::string texts[] = {std::string(1000, '\n'), std::string(4096, '%'), std::string(4000, 'x'),
                                 "a\rOPTION grab\n\x1b[2J", "x\n\nAsked by /sbin/init (process 1 of user root):"};
    for (const std::string& text : texts) {
        ::truncate((world().directory() + "/pinentry.log").c_str(), 0);
        Desk desk(administrator, [&] { return asking(kAnalysis, text); });
        EXPECT_EQ(desk.outcome(), kGranted);
        std::istringstream lines(told());
        int explanations = 0;
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 1000u);
            EXPECT_NE(line.rfind("OPTION grab", 0), 0u);
            EXPECT_EQ(line.find('\x1b'), std::string::npos);
            explanations +=
                line.rfind("SETDESC Asked by /", 0) == 0 && line.find(" of user vnt-administrator):%0A%0A") < 300;
        }
        EXPECT_EQ(explanations, 1) << told();
    }
}

TEST_F(PromptTest, AnOrdinaryUserNamesAnAdministrator)
{
    const std::string step = world().directory() + "/step";
    ::chmod(world().directory().c_str(), 0777);
    usePinentry("if [ -e " + step + " ]; then " + sayPassword(administrator) + "; else : >" + step
                + "; echo 'D vnt-administrator'; echo OK; fi");
    Desk desk(ordinary, [] { return asking(); });
    EXPECT_EQ(desk.outcome(), kGranted);
    const size_t name = told().find("SETPROMPT Name of an administrator:");
    EXPECT_NE(name, std::string::npos);
    EXPECT_GT(told().find("SETPROMPT Password of vnt-administrator:"), name);
}

TEST_F(PromptTest, NobodyIsAskedWithoutATerminalOrPermission)
{
    usePinentry(sayPassword(administrator));
    EXPECT_EQ(as(administrator, [] { return asking(); }), kNobodyAsked); // no terminal
    Desk quiet(administrator, [] { return request(newReference(), {kAnalysis}); }); // interaction not allowed
    EXPECT_EQ(quiet.outcome(), kNobodyAsked);
    EXPECT_EQ(told(), "");
}

TEST_F(PromptTest, WhatOnePromptGaveSettlesThoseThatWait)
{
    const std::string block = world().directory() + "/block";
    std::ofstream(block) << "";
    usePinentry("while [ -e " + block + " ]; do sleep 0.02; done; " + sayPassword(administrator));
    Desk desk(administrator, [&]() -> OSStatus {
        std::vector<pid_t> others;
        for (int i = 0; i < 3; ++i) {
            const pid_t other = ::fork();
            if (other == 0)
                ::_exit(asking() == kGranted ? 0 : 1);
            others.push_back(other);
        }
        OSStatus worst = kGranted;
        for (const pid_t other : others) {
            int status = 1;
            ::waitpid(other, &status, 0);
            worst = status == 0 ? worst : errAuthorizationInternal;
        }
        return worst;
    });
    EXPECT_TRUE(eventually([&] { return told().find("GETPIN") != std::string::npos; }));
    EXPECT_EQ(::unlink(block.c_str()), 0);
    EXPECT_EQ(desk.outcome(), kGranted);
    const std::string log = told();
    EXPECT_EQ(log.find("GETPIN"), log.rfind("GETPIN")) << "asked more than once";
}

TEST_F(PromptTest, APromptGoesWithTheClientThatAsked)
{
    usePinentry("echo $$ >" + world().directory() + "/pinentry.env; exec sleep 1000");
    Desk desk(administrator, [] { return asking(); });
    pid_t program = 0;
    EXPECT_TRUE(eventually(
        [&] { return std::istringstream(told(".env")) >> program && told().find("GETPIN") != std::string::npos; }));
    EXPECT_EQ(helpers().size(), 1u);
    desk.leave();
    EXPECT_TRUE(eventually([] { return helpers().empty(); }));
    EXPECT_TRUE(eventually([&] { return ::kill(program, 0) != 0; })) << "the prompt's program stayed";
    // The user's place is free again at once.
    usePinentry(sayPassword(administrator));
    Desk next(administrator, [] { return asking(); });
    EXPECT_EQ(next.outcome(), kGranted);
}

TEST_F(PromptTest, TheLibraryAsksOnItsOwnTerminalOnceForASession)
{
    Desk desk(ordinary, []() -> OSStatus {
        const AuthorizationRef first = AzlCreateAuthorization();
        if (!first || AzlVerifyVantoraRightIsAuthorized(first) != 1 || AzlVerifyBasicAuthorization(first) != 0)
            return errAuthorizationInternal;
        const AuthorizationRef second = AzlCreateTFPAuthorization(); // by what is shared
        if (!second || AzlVerifyBasicAuthorization(second) != 1)
            return errAuthorizationDenied;
        return AzlDestroyAuthorization(first) + AzlDestroyAuthorization(second);
    });
    ASSERT_TRUE(desk.shows("Name"));
    desk.type(std::string(administrator.name) + "\n");
    ASSERT_TRUE(desk.shows("Password: "));
    desk.type(std::string(administrator.password) + "\n");
    EXPECT_EQ(desk.outcome(), kGranted);
    Desk refused(ordinary, [] { return AzlCreateAuthorization() ? kGranted : errAuthorizationDenied; });
    ASSERT_TRUE(refused.shows("Name"));
    refused.type("\x04");
    ASSERT_TRUE(refused.shows("Password: "));
    refused.type("x\n");
    EXPECT_TRUE(refused.shows("Vantora: Failed to Authorize Rights: -60006."));
    EXPECT_EQ(refused.outcome(), errAuthorizationDenied);
}

TEST_F(PromptTest, AnAdministratorMayChangeADefinition)
{
    usePinentry(sayPassword(administrator));
    Desk desk(administrator, [] { return define(newReference(), "test.new", {60, "vnt-users", true, true}); });
    EXPECT_EQ(desk.outcome(), kGranted);
    EXPECT_NE(told().find("A program wants to change who may have the right \"test.new\" on this machine."),
              std::string::npos);
    EXPECT_EQ(requestAs(ordinary, "test.new", typedBy(ordinary)), kGranted);
}

} // namespace
} // namespace vnt::test
