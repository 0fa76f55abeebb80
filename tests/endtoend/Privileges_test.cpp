#include <Vantora/TaskDaemon.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>

#include "Vantora/privileged/DaemonRpc.h"
#include "platform/authorization/Authorization.h"
#include "platform/base/sys.h"
#include "platform/mach/Namespace.h"
#include "platform/messagequeue/KxMessageQueue.h"
#include "tests/endtoend/Tool.h"
#include "tests/support/Desk.h"
#include "tests/support/PrivateAccounts.h"
#include "tests/support/PrivateAuthority.h"

/// Who may do what: the table of docs/security.md, tried by every kind of user against the real programs.
namespace vnt::test {
namespace {

constexpr const char* kAnalysis = "quillon.process.analysis";
constexpr const char* kKill = "quillon.process.kill";
constexpr const char* kTaskPort = "system.privilege.taskport.debug";

/// What a client tried and was let do; their sum is an exit status.
enum Deed : int {
    kSession = 1, ///< a server of its own in the system's namespace
    kOwnSuspended = 2, ///< a process of its own held still
    kOtherSuspended = 4, ///< root's process held still
    kOtherLookedAt = 8, ///< where its code lies
    kOtherKilled = 16,
    kTaskPortOfOther = 32,
    kWatch = 64, ///< of all processes
};

/// A client of the system's services, in a process of its own that is that user.
class Client {
public:
    /// Asks for `rights` with somebody's name and password, or with nothing.
    Client(const std::vector<const char*>& rights, const Account* typed)
    {
        (void)AuthorizationCreate(nullptr, nullptr, kAuthorizationFlagDefaults, &_reference);
        AuthorizationItem who[] = {
            {"username", typed ? std::strlen(typed->name) : 0, const_cast<char*>(typed ? typed->name : ""), 0},
            {"password", typed ? std::strlen(typed->password) : 0, const_cast<char*>(typed ? typed->password : ""), 0},
        };
        const AuthorizationEnvironment environment{2, who};
        for (const char* right : rights) { // one by one: a refused one takes no other with it
            AuthorizationItem item{right, 0, nullptr, 0};
            const AuthorizationRights set{1, &item};
            (void)AuthorizationCopyRights(_reference, &set, typed ? &environment : nullptr,
                                          kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize, nullptr);
        }
        (void)AuthorizationMakeExternalForm(_reference, &_form);
    }

    bool connect()
    {
        mach_port_t port = MACH_PORT_NULL;
        char address[2048];
        if (bootstrap_look_up(bootstrap_port, "quillon.server.mig", &port) != 0
            || createServer(port, _form.bytes, sizeof _form.bytes, "server", address, sizeof address) != 0)
            return false;
        _queue = KxMessageQueue::initWithAddress(*Url::withString(address));
        _control = _queue->createServiceForIdentifier(*String::create("quillon.server.services.processcontrol"));
        _device = _queue->createServiceForIdentifier(*String::create("quillon.server.services.deviceinfo"));
        return true;
    }
    bool controls(const char* selector, pid_t pid)
    {
        try {
            const auto answer = as<Number>(_control->dispatch(selector, {Number::withInt(pid)}));
            return answer && answer->boolValue();
        } catch (const Exception& exception) {
            return false;
        }
    }
    bool looksAt(pid_t pid)
    {
        return _device->dispatch("symbolicatorSignatureForPid:trackingSelector:",
                                 {Number::withInt(pid), Ref<Object>(Null::create())})
            != nullptr;
    }
    bool opensTask(pid_t pid)
    {
        mach_port_t task = MACH_PORT_NULL;
        return attach_access(daemon(), _form.bytes, sizeof _form.bytes, pid, &task) == 0;
    }
    bool watches()
    {
        mach_port_t handle = MACH_PORT_NULL;
        return mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &handle) == 0
            && watch_pids(daemon(), _form.bytes, sizeof _form.bytes, handle) == 0;
    }
    void freeReference() { (void)AuthorizationFree(std::exchange(_reference, nullptr), kAuthorizationFlagDefaults); }

private:
    static mach_port_t daemon()
    {
        mach_port_t port = MACH_PORT_NULL;
        (void)bootstrap_look_up2(bootstrap_port, "quillon.tfp", &port, 0, BOOTSTRAP_PRIVILEGED_SERVER);
        return port;
    }

    AuthorizationRef _reference = nullptr;
    AuthorizationExternalForm _form{};
    Ref<KxMessageQueue> _queue;
    Ref<KxServiceQueue> _control, _device;
};

pid_t sleeper()
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        for (;;)
            ::pause();
    }
    return pid;
}

void finish(pid_t pid)
{
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

class Privileges : public testing::Test {
protected:
    void SetUp() override
    {
        const Status entered = PrivateAccounts::enter();
        if (!entered.ok())
            GTEST_SKIP() << "SKIPPED: " << entered.message();
        _world.emplace(VNT_BIN);
        useNamespace(Namespace::kSystem);
        for (const char* service : {"quillon.authority", "quillon.server.mig", "quillon.tfp"}) { // root starts them
            mach_port_t port = MACH_PORT_NULL;
            ASSERT_EQ(bootstrap_look_up(bootstrap_port, service, &port), 0) << service;
            (void)mach_port_deallocate(mach_task_self(), port);
        }
    }
    void TearDown() override
    {
        if (_world)
            (void)std::system(("pkill -KILL -f '" + _world->directory() + "'").c_str());
        _world.reset();
    }

    std::optional<PrivateAuthority> _world;
};

/// Everything, as that user; what was let through.
int deeds(const Account& account, const std::vector<const char*>& rights, const Account* typed)
{
    const pid_t victim = sleeper(); // root's
    const int done = PrivateAccounts::runAs(account, [&] {
        (void)::setsid();
        int sum = 0;
        Client client(rights, typed);
        if (client.connect()) {
            sum |= kSession;
            const pid_t own = sleeper();
            sum |= client.controls("suspendPid:", own) ? kOwnSuspended : 0;
            ::kill(own, SIGKILL);
            sum |= client.controls("suspendPid:", victim) ? kOtherSuspended : 0;
            sum |= client.looksAt(victim) ? kOtherLookedAt : 0;
        }
        sum |= client.opensTask(victim) ? kTaskPortOfOther : 0;
        sum |= client.watches() ? kWatch : 0;
        if (sum & kSession)
            sum |= client.controls("killPid:", victim) ? kOtherKilled : 0; // last: it is gone then
        return sum;
    });
    finish(victim);
    return done;
}

TEST_F(Privileges, TheTableOfWhoMayDoWhat)
{
    const Account& ordinary = PrivateAccounts::kOrdinary;
    const Account& administrator = PrivateAccounts::kAdministrator;
    const Account& root = PrivateAccounts::kRoot;
    const std::vector<const char*> all = {kAnalysis, kTaskPort, kKill};
    constexpr int kNothing = 0;
    constexpr int kAnalysed = kSession | kOwnSuspended | kOtherSuspended | kOtherLookedAt;
    constexpr int kEverything = kAnalysed | kOtherKilled | kTaskPortOfOther | kWatch;
    const struct {
        const char* what;
        const Account& account;
        std::vector<const char*> rights;
        const Account* typed;
        int allowed;
    } rows[] = {
        {"an ordinary user, nothing typed", ordinary, all, nullptr, kNothing},
        {"an ordinary user's own password", ordinary, all, &ordinary, kNothing},
        {"an administrator, nothing typed", administrator, all, nullptr, kNothing},
        {"an administrator's password, for analysis", administrator, {kAnalysis}, &administrator, kAnalysed},
        {"an ordinary user with an administrator's password", ordinary, {kAnalysis}, &administrator, kAnalysed},
        {"a watch takes the task-port right alone", administrator, {kTaskPort}, &administrator, kWatch},
        {"an administrator with all rights", administrator, all, &administrator, kEverything},
        {"root, nothing typed", root, all, nullptr, kEverything},
    };
    for (const auto& row : rows)
        EXPECT_EQ(deeds(row.account, row.rights, row.typed), row.allowed) << row.what;
}

/// The tool on the terminal of somebody who may record nothing of the machine, until an administrator sits down.
class TypedPassword : public Privileges {
protected:
    void SetUp() override
    {
        Privileges::SetUp();
        if (IsSkipped())
            return;
        ASSERT_NE(::mkdtemp(_directory), nullptr);
        ASSERT_EQ(::chown(_directory, PrivateAccounts::kOrdinary.uid, PrivateAccounts::kOrdinary.gid), 0);
    }
    void TearDown() override
    {
        Privileges::TearDown();
        (void)std::system((std::string("rm -rf ") + _directory).c_str());
    }

    /// `rumbel record --system` with these arguments, the account's name and password typed; what the tool answered.
    int record(const Account& typed, std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"rumbel", "record", "--system", "-o", std::string(_directory) + "/it"});
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        Desk desk(PrivateAccounts::kOrdinary, [&] {
            ::setenv("XDG_STATE_HOME", _directory, 1); // where data is kept until it is saved; the tests' is root's
            return ::execv(programPath("rumbel").c_str(), argv.data());
        });
        EXPECT_TRUE(desk.shows("Name"));
        desk.type(std::string(typed.name) + "\n");
        EXPECT_TRUE(desk.shows("Password:"));
        desk.type(std::string(typed.password) + "\n");
        const int outcome = desk.outcome();
        EXPECT_EQ(desk.transcript().find(typed.password), std::string::npos) << "shown on the terminal";
        if (outcome != 0)
            _said = desk.transcript();
        return outcome;
    }
    /// What the bundle's report says of each instrument.
    nlohmann::json instruments()
    {
        const ToolResult report =
            rumbel({"report", "--json", std::string(_directory) + "/it.vnt"}, PrivateAccounts::kOrdinary.uid);
        EXPECT_EQ(report.status, 0) << report.err;
        const auto json = nlohmann::json::parse(report.out, nullptr, /*allow_exceptions=*/false);
        return json.value("instruments", nlohmann::json::object());
    }

    std::string _said; ///< on the terminal, by a tool that failed

private:
    char _directory[32] = "/tmp/vnt-test.XXXXXX";
};

TEST_F(TypedPassword, LetsTheToolRecordTheWholeMachine)
{
    const std::vector<std::string> machine = {"-a",       "-d",  "1", "-i", "stacksampler,kerneltracer,processcensus",
                                              "--stacks", "both"};
    const pid_t busy = ::fork(); // root's
    if (busy == 0) {
        for (std::atomic<uint64_t> count{0};; ++count) { }
    }
    EXPECT_NE(record(PrivateAccounts::kOrdinary, machine), 0) << "an own password allows nothing";
    EXPECT_EQ(record(PrivateAccounts::kAdministrator, machine), 0) << _said;
    const auto recorded = instruments();
    const auto& threads = recorded.at("quillon.vnt.stacksampler").at("threads");
    EXPECT_TRUE(std::any_of(threads.begin(), threads.end(), [&](const auto& t) { return t.at("pid") == busy; }));
    EXPECT_GT(recorded.at("quillon.vnt.kerneltracer").at("events"), 0);
    EXPECT_GT(recorded.at("quillon.vnt.processcensus").at("processes"), 2);
    finish(busy);
}

TEST_F(TypedPassword, LetsTheToolRecordAProgramWithAllFiveInstruments)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a program built with the address sanitizer does not start behind the journal";
#endif
    ASSERT_EQ(record(PrivateAccounts::kAdministrator,
                     {"-i", "stacksampler,kerneltracer,heaprecorder,orphanfinder,processcensus", "--",
                      programPath("tutorial_program"), "2"}),
              0)
        << _said;
    const auto recorded = instruments();
    EXPECT_EQ(recorded.at("quillon.vnt.stacksampler").at("functions").at(0).at("name"), "hashWord");
    EXPECT_GT(recorded.at("quillon.vnt.kerneltracer").at("events"), 0);
    EXPECT_EQ(recorded.at("quillon.vnt.heaprecorder").at("sites").at(0).at("function"), "rememberWord");
    EXPECT_GT(recorded.at("quillon.vnt.orphanfinder").at("leaks"), 0);
    EXPECT_GT(recorded.at("quillon.vnt.processcensus").at("sweeps"), 1);
}

/// A right ends with its reference, also for a session that was made with it.
TEST_F(Privileges, AFreedReferenceTakesTheSessionsReachWithIt)
{
    const pid_t victim = sleeper();
    const int done = PrivateAccounts::runAs(PrivateAccounts::kOrdinary, [&] {
        (void)::setsid();
        Client client({kAnalysis, kKill}, &PrivateAccounts::kAdministrator);
        if (!client.connect() || !client.controls("suspendPid:", victim))
            return 100;
        client.freeReference();
        int sum = 0;
        const pid_t own = sleeper();
        sum |= client.controls("suspendPid:", own) ? kOwnSuspended : 0;
        ::kill(own, SIGKILL);
        sum |= client.controls("killPid:", victim) ? kOtherKilled : 0;
        sum |= client.opensTask(victim) ? kTaskPortOfOther : 0;
        return sum;
    });
    EXPECT_EQ(done, kOwnSuspended);
    EXPECT_EQ(::kill(victim, 0), 0);
    finish(victim);
}

/// Of a worker that root's server started for a user, the user is left, and the few capabilities of recording.
TEST_F(Privileges, AWorkerIsItsClientWithFewCapabilities)
{
    const int done = PrivateAccounts::runAs(PrivateAccounts::kOrdinary, [&] {
        (void)::setsid();
        Client client({kAnalysis}, &PrivateAccounts::kAdministrator);
        if (!client.connect() || client.controls("suspendPid:", -1) == false)
            return 100;
        const auto listing = sys::listDirectory("/proc");
        for (const std::string& entry : listing.ok() ? listing.value() : std::vector<std::string>()) {
            const auto line = sys::readFile("/proc/" + entry + "/cmdline", 4096);
            if (!line.ok() || line.value().find("--worker") == std::string::npos)
                continue;
            const auto status = sys::readFile("/proc/" + entry + "/status", 16384);
            const std::string& text = status.ok() ? status.value() : std::string();
            const std::string uid = std::to_string(PrivateAccounts::kOrdinary.uid);
            if (text.find("\nUid:\t" + uid + "\t" + uid + "\t" + uid + "\t" + uid) == std::string::npos)
                continue;
            const auto mask = [&](const char* key) {
                return std::strtoull(text.c_str() + text.find(key) + std::strlen(key), nullptr, 16);
            };
            constexpr unsigned long long kDangerous = 1ULL << 0 /* CHOWN */ | 1ULL << 1 /* DAC_OVERRIDE */
                | 1ULL << 6 /* SETGID */ | 1ULL << 7 /* SETUID */ | 1ULL << 16 /* SYS_MODULE */
                | 1ULL << 21 /* SYS_ADMIN */;
            const bool limited = (mask("CapEff:") & kDangerous) == 0 && (mask("CapPrm:") & kDangerous) == 0
                && (mask("CapBnd:") & kDangerous) == 0 && text.find("NoNewPrivs:\t1") != std::string::npos;
            return limited ? 1 : 101;
        }
        return 102;
    });
    EXPECT_EQ(done, 1);
}

} // namespace
} // namespace vnt::test
