#include <Vantora/TaskDaemon.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <thread>

#include "Vantora/privileged/AuthorizedRpc.h"
#include "Vantora/privileged/Rights.h"
#include "platform/base/sys.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/bridge.h"
#include "platform/mach/NameService.h"
#include "platform/mach/PortTable.h"
#include "tests/support/PrivateAuthority.h"

namespace vnt {
namespace {

namespace fs = std::filesystem;
constexpr uid_t kNobody = 65534;

/// The programs KxTSecD and VantoraAuthority, started by name, in directories of this test's own.
class RealDaemon : public testing::Test {
protected:
    void SetUp() override
    {
        if (!fs::exists(std::string(VNT_TEST_PROGRAM_DIR) + "/KxTSecD"))
            GTEST_SKIP() << "needs KxTSecD in " << VNT_TEST_PROGRAM_DIR << "; build the preset release first";
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root to run the daemon";
        _world.emplace(VNT_TEST_PROGRAM_DIR);
        useNamespace(Namespace::kSystem);
    }
    void TearDown() override
    {
        if (!_world)
            return;
        endService("quillon.tfp");
        mach_port_t port = MACH_PORT_NULL; // finds the shared connection dead and closes it
        ::setenv("VANTORA_PROGRAM_DIR", "/nowhere", 1);
        (void)bootstrap_look_up2(bootstrap_port, "quillon.tfp", &port, 0, BOOTSTRAP_PRIVILEGED_SERVER);
        _world.reset();
        mig_dealloc_reply_port(mig_get_reply_port());
    }
    /// Ends a service that this test started and waits until it is gone.
    static void endService(const std::string& name)
    {
        const std::string programs = sys::environmentOr("VANTORA_PROGRAM_DIR", "");
        ::setenv("VANTORA_PROGRAM_DIR", "/nowhere", 1); // do not start one to kill it
        const auto connection = connectToService(Namespace::kSystem, name);
        ::setenv("VANTORA_PROGRAM_DIR", programs.c_str(), 1);
        if (!connection.ok())
            return;
        const auto process = sys::openPidFd(sys::peerCredentials(connection.value().get()).take().pid);
        if (!process.ok())
            return;
        (void)sys::signalPidFd(process.value().get(), SIGKILL);
        pollfd ended{process.value().get(), POLLIN, 0};
        EXPECT_EQ(sys::pollFds({&ended, 1}, std::chrono::seconds(20)).take(), 1);
    }

    /// The daemon's routine with a real authorization.
    static kern_return_t attach(pid_t pid, mach_port_t* task)
    {
        return make_authorized_rpc(kTaskPortAuthorization, [&](const char* form, uint32_t length, mach_port_t daemon) {
            EXPECT_EQ(length, 32u);
            return attach_access(daemon, form, length, pid, task);
        });
    }
    static mach_port_t daemonPort()
    {
        mach_port_t daemon = MACH_PORT_NULL;
        EXPECT_EQ(bootstrap_look_up2(bootstrap_port, "quillon.tfp", &daemon, 0, BOOTSTRAP_PRIVILEGED_SERVER), 0);
        return daemon;
    }

    std::optional<test::PrivateAuthority> _world;
};

/// A child that waits to be told to go on.
class Child {
public:
    /// Runs `body` in the child, then waits there for the parent's end of the pipe to close.
    template <typename Body> explicit Child(Body body)
    {
        auto go = sys::makePipe().take();
        auto ready = sys::makePipe().take();
        _pid = ::fork();
        if (_pid == 0) {
            go.second.reset();
            body();
            char byte = 'r';
            (void)::write(ready.second.get(), &byte, 1);
            (void)::read(go.first.get(), &byte, 1);
            ::execl("/bin/sleep", "sleep", "1000", nullptr);
            ::_exit(1);
        }
        _go = std::move(go.second);
        char byte = 0;
        EXPECT_TRUE(sys::readFully(ready.first.get(), &byte, 1).ok());
    }
    ~Child() { end(); }
    void end()
    {
        if (_pid <= 0)
            return;
        ::kill(_pid, SIGKILL);
        ::waitpid(_pid, nullptr, 0);
        _pid = -1;
    }
    void goOnToExec() { _go.reset(); }
    [[nodiscard]] pid_t pid() const { return _pid; }

private:
    pid_t _pid = -1;
    UniqueFd _go;
};

volatile uint64_t marker = 0x1122334455667788; // NOLINT: the same address in a child

kern_return_t readMarker(mach_port_t task, uint64_t& value)
{
    size_t count = 0;
    const kern_return_t status =
        task_read_memory(task, reinterpret_cast<uintptr_t>(&marker), &value, sizeof value, &count);
    return status == KERN_SUCCESS && count != sizeof value ? kern_return_t{-1} : status;
}

TEST_F(RealDaemon, ATaskPortLooksIntoItsProcessUntilThatIsAnotherProgram)
{
    for (const bool direct : {true, false}) {
        SCOPED_TRACE(direct ? "opened here" : "from the daemon");
        Child child([] { marker = 0x99; });
        mach_port_t task = MACH_PORT_NULL;
        ASSERT_EQ(direct ? task_for_pid(mach_task_self(), child.pid(), &task) : attach(child.pid(), &task), 0);
        int pid = 0, running = 0;
        EXPECT_EQ(task_get_pid(task, &pid), KERN_SUCCESS);
        EXPECT_EQ(pid, child.pid());
        EXPECT_EQ(task_is_running(task, &running), KERN_SUCCESS);
        EXPECT_EQ(running, 1);
        uint64_t value = 0;
        EXPECT_EQ(readMarker(task, value), KERN_SUCCESS);
        EXPECT_EQ(value, 0x99u);
        size_t count = 1;
        EXPECT_EQ(task_read_memory(task, 16, &value, 8, &count), KERN_INVALID_ADDRESS);
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(task_read_memory(task, UINT64_MAX - 8, &value, 8, &count), KERN_INVALID_ADDRESS);

        uint32_t regionCount = 0;
        EXPECT_EQ(task_copy_regions(task, nullptr, &regionCount), KERN_SUCCESS);
        std::vector<task_region_t> regions(regionCount);
        EXPECT_EQ(task_copy_regions(task, regions.data(), &regionCount), KERN_SUCCESS);
        const auto holds = [](const task_region_t& region) {
            return region.address <= reinterpret_cast<uintptr_t>(&marker)
                && reinterpret_cast<uintptr_t>(&marker) < region.address + region.size;
        };
        const auto region = std::find_if(regions.begin(), regions.end(), holds);
        ASSERT_NE(region, regions.end());
        EXPECT_EQ(region->flags, uint32_t{TASK_REGION_READ | TASK_REGION_WRITE});

        int32_t threads[2] = {};
        uint32_t threadCount = 2;
        EXPECT_EQ(task_copy_threads(task, threads, &threadCount), KERN_SUCCESS);
        // One, and what a sanitizer adds.
        EXPECT_EQ(threadCount, sys::listDirectory("/proc/" + std::to_string(child.pid()) + "/task").take().size());
        EXPECT_EQ(threads[0], child.pid());
        task_thread_t thread;
        EXPECT_EQ(task_get_thread(task, threads[0], &thread), KERN_SUCCESS);
        EXPECT_EQ(std::string(thread.name), "Vantora_privile"); // this program, cut by the kernel
        EXPECT_EQ(task_get_thread(task, 1, &thread), KERN_INVALID_ARGUMENT); // not one of its

        child.goOnToExec();
        while (readMarker(task, value) == KERN_SUCCESS) // the test's time limit ends this
            std::this_thread::yield();
        EXPECT_EQ(readMarker(task, value), KERN_TERMINATED);
        EXPECT_EQ(task_is_running(task, &running), KERN_SUCCESS);
        EXPECT_EQ(running, 1);
        child.end();
        EXPECT_EQ(task_is_running(task, &running), KERN_SUCCESS);
        EXPECT_EQ(running, 0);
        EXPECT_EQ(task_copy_threads(task, threads, &threadCount), KERN_TERMINATED);
        EXPECT_EQ(mach_port_deallocate(mach_task_self(), task), KERN_SUCCESS);
        EXPECT_EQ(task_get_pid(task, &pid), KERN_INVALID_ARGUMENT);
    }
}

/// Runs `body` as another user in a child process; its result is the child's exit status.
template <typename Body> int asNobody(Body body)
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
            ::_exit(101);
        ::_exit(body());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 102;
}

TEST_F(RealDaemon, WhoMayNotTraceNeedsTheDaemonAndTheDaemonAnAuthorization)
{
    (void)daemonPort(); // runs, so that another user finds it
    Child child([] { marker = 0x55; });
    mach_port_t task = MACH_PORT_NULL;
    ASSERT_EQ(attach(child.pid(), &task), KERN_SUCCESS);
    // The right carries the access: whoever holds it reads, although that user could open nothing.
    EXPECT_EQ(asNobody([&] {
                  uint64_t value = 0;
                  return readMarker(task, value) == KERN_SUCCESS && value == 0x55 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(mach_port_deallocate(mach_task_self(), task), KERN_SUCCESS);
    EXPECT_EQ(asNobody([&] {
                  mach_port_t none = 0x77;
                  return task_for_pid(mach_task_self(), child.pid(), &none) == KERN_FAILURE && none == 0 ? 0 : 1;
              }),
              0);

    AuthorizationRef reference = AzlCreateTFPAuthorization();
    ASSERT_NE(reference, nullptr);
    AuthorizationRef analysisOnly = AzlCreateLaunchSystemBootstrapAuthorization();
    ASSERT_NE(analysisOnly, nullptr);
    AuthorizationExternalForm form{}, forged{}, tooLittle{};
    ASSERT_EQ(AuthorizationMakeExternalForm(reference, &form), errAuthorizationSuccess);
    ASSERT_EQ(AuthorizationMakeExternalForm(analysisOnly, &tooLittle), errAuthorizationSuccess);
    const mach_port_t daemon = daemonPort();
    const auto askWith = [&](mach_port_t to, const char* bytes, uint32_t length) {
        mach_port_t got = 0x77;
        const kern_return_t status = attach_access(to, bytes, length, child.pid(), &got);
        if (status == KERN_SUCCESS) {
            EXPECT_EQ(mach_port_deallocate(mach_task_self(), got), KERN_SUCCESS);
        }
        return status;
    };
    EXPECT_EQ(askWith(daemon, form.bytes, 32), KERN_SUCCESS);
    EXPECT_EQ(askWith(daemon, nullptr, 0), KERN_NO_ACCESS);
    EXPECT_EQ(askWith(daemon, forged.bytes, 32), KERN_NO_ACCESS);
    EXPECT_EQ(askWith(daemon, tooLittle.bytes, 32), KERN_NO_ACCESS);
    EXPECT_EQ(askWith(daemon, form.bytes, 31), KERN_INVALID_ARGUMENT);
    // Another user's token is worth nothing, on that user's own connection.
    EXPECT_EQ(asNobody([&] {
                  mig_dealloc_reply_port(mig_get_reply_port());
                  auto connection = connectToService(Namespace::kSystem, "quillon.tfp");
                  if (!connection.ok())
                      return 50;
                  auto port = PortTable::shared().insertSend(connection.take());
                  return static_cast<int>(askWith(port.value(), form.bytes, 32));
              }),
              KERN_NO_ACCESS);
    const pid_t gone = child.pid();
    child.end();
    mach_port_t none = MACH_PORT_NULL;
    for (const pid_t pid : {gone, 0, -1})
        EXPECT_EQ(attach_access(daemon, form.bytes, 32, pid, &none), KERN_FAILURE) << pid;
    AzlDestroyAuthorization(reference);
    AzlDestroyAuthorization(analysisOnly);
}

TEST_F(RealDaemon, AJobIsRegisteredOnceAndStartedByName)
{
    char path[] = "/var/lib/vnt-test.XXXXXX";
    ASSERT_NE(::mkdtemp(path), nullptr);
    const std::string program = std::string(path) + "/service";
    fs::copy_file(std::string(VNT_TEST_PROGRAM_DIR) + "/PortEchoService", program);
    fs::permissions(program, fs::perms(0755));
    const auto setUp = [](std::vector<std::pair<const char*, std::string>> entries) {
        auto job = MutableDictionary::create();
        for (const auto& [key, value] : entries)
            job->set(key, String::create(value));
        const auto bytes = writePropertyList(*job, PropertyListFormat::kXml).take();
        return setup_system_bootstrap_daemon(bytes.data(), static_cast<uint32_t>(bytes.size()));
    };
    struct Row {
        const char* what;
        std::vector<std::pair<const char*, std::string>> job;
        kern_return_t expected;
    };
    const Row rows[] = {
        {"relative", {{"name", "test.job"}, {"program", "service"}}, KERN_INVALID_ARGUMENT},
        {"not there", {{"name", "test.job"}, {"program", program + "2"}}, KERN_INVALID_ARGUMENT},
        {"no program", {{"name", "test.job"}, {"program", path}}, KERN_PROTECTION_FAILURE},
        {"where all may write", {{"name", "test.job"}, {"program", "/tmp/x"}}, KERN_PROTECTION_FAILURE},
        {"no name", {{"program", program}}, KERN_INVALID_ARGUMENT},
        {"bad name", {{"name", "../job"}, {"program", program}}, KERN_INVALID_ARGUMENT},
        {"more than that", {{"name", "test.job"}, {"program", program}, {"user", "root"}}, KERN_INVALID_ARGUMENT},
        {"our own name", {{"name", "quillon.server.mig"}, {"program", program}}, KERN_NAME_EXISTS},
        {"good", {{"name", "test.job"}, {"program", program}}, KERN_SUCCESS},
        {"once more", {{"name", "test.job"}, {"program", program}}, KERN_NAME_EXISTS},
    };
    for (const Row& row : rows)
        EXPECT_EQ(setUp(row.job), row.expected) << row.what;
    EXPECT_EQ(setup_system_bootstrap_daemon("rubbish", 7), KERN_INVALID_ARGUMENT);

    mach_port_t port = MACH_PORT_NULL;
    EXPECT_EQ(bootstrap_look_up(bootstrap_port, "test.job", &port), KERN_SUCCESS);
    EXPECT_EQ(mach_port_deallocate(mach_task_self(), port), KERN_SUCCESS);
    endService("test.job");
    // A program that others may change meanwhile is not started.
    fs::permissions(program, fs::perms(0777));
    EXPECT_EQ(bootstrap_look_up(bootstrap_port, "test.job", &port), BOOTSTRAP_NOT_PRIVILEGED);
    fs::remove_all(path);
}

/// What one collect brought.
struct Gathered {
    std::map<int, Ref<Dictionary>> byPid;
    Ref<Dictionary> all;
    int calls = 0;

    static void take(void* context, CFPropertyListRef list)
    {
        auto* self = static_cast<Gathered*>(context);
        self->all = Ref<Dictionary>(fromC<Dictionary>(list));
        self->byPid.clear();
        for (const auto& item : self->all->get<Array>("signatures")->items()) {
            const auto signature = as<Dictionary>(item);
            self->byPid[signature->get<Number>("pid")->intValue()] = signature;
        }
        ++self->calls;
    }
    pid_watcher_callback_t callback() { return {take, this, nullptr}; }
};

pid_t runTrue()
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execl("/bin/true", "true", nullptr);
        ::_exit(127);
    }
    ::waitpid(pid, nullptr, 0);
    return pid;
}

TEST_F(RealDaemon, AWatchSeesWhatStartsAndWhatEnds)
{
    auto before = std::make_unique<Child>([] {});
    mach_port_t handle = MACH_PORT_NULL;
    const kern_return_t status = pid_watcher_connect(&handle);
    if (status == KERN_FAILURE)
        GTEST_SKIP() << "needs perf events for the whole machine; see the system log for what KxTSecD was refused";
    ASSERT_EQ(status, KERN_SUCCESS);
    std::set<pid_t> ended;
    for (int i = 0; i < 50; ++i)
        ended.insert(runTrue());
    Child running([] {});
    Gathered first;
    auto callback = first.callback();
    ASSERT_EQ(pid_watcher_collect(&handle, nullptr, &callback), KERN_SUCCESS);
    ASSERT_EQ(first.calls, 1);
    for (const pid_t pid : ended) {
        const Ref<Dictionary> signature = first.byPid[pid];
        ASSERT_TRUE(signature) << pid;
        EXPECT_EQ(signature->get<String>("name")->str(), "true");
        ASSERT_TRUE(signature->get<Number>("parent") && signature->get<Number>("started")
                    && signature->get<Number>("ended"))
            << signature->description() << " lost: " << first.all->get("lost")->description();
        EXPECT_EQ(signature->get<Number>("parent")->intValue(), ::getpid());
        EXPECT_LT(signature->get<Number>("started")->uint64Value(), signature->get<Number>("ended")->uint64Value());
        bool program = false, library = false;
        for (const auto& item : signature->get<Array>("images")->items()) {
            const auto image = as<Dictionary>(item);
            if (!image->get("path"))
                continue; // a mark of when another program was executed
            const std::string path = image->get<String>("path")->str();
            program = program || (path == signature->get<String>("executable")->str() && image->get<String>("buildID"));
            library = library || (path.find("libc.so") != std::string::npos && image->get<String>("buildID"));
        }
        EXPECT_TRUE(program && library) << signature->description();
    }
    ASSERT_TRUE(first.byPid[running.pid()]);
    EXPECT_FALSE(first.byPid[running.pid()]->get("ended"));
    EXPECT_GT(first.byPid[running.pid()]->get<Array>("images")->count(), 2u); // its parent's: it has executed nothing
    EXPECT_FALSE(first.byPid[before->pid()]); // began before and still runs

    const pid_t beforePid = before->pid();
    before.reset();
    Gathered last;
    callback = last.callback();
    EXPECT_EQ(pid_watcher_disconnect(&handle, nullptr, &callback), KERN_SUCCESS);
    ASSERT_EQ(last.calls, 1);
    ASSERT_TRUE(last.byPid[beforePid]);
    EXPECT_TRUE(last.byPid[beforePid]->get("ended"));
    EXPECT_FALSE(last.byPid[beforePid]->get("started"));
    EXPECT_GT(last.byPid[beforePid]->get<Array>("images")->count(), 2u);
    EXPECT_TRUE(last.byPid[*ended.begin()]); // every answer is whole
    EXPECT_EQ(last.all->get<Number>("dropped")->intValue(), 0);
}

TEST_F(RealDaemon, AWatchEndsWithItsHandle)
{
    mach_port_t handle = MACH_PORT_NULL;
    // Far more than one user may have at a time.
    for (int i = 0; i < 100; ++i) {
        kern_return_t status = KERN_RESOURCE_SHORTAGE;
        while (status == KERN_RESOURCE_SHORTAGE) { // the test's time limit ends this
            status = pid_watcher_connect(&handle);
            EXPECT_EQ(mach_port_mod_refs(mach_task_self(), handle, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
        }
        if (status == KERN_FAILURE)
            GTEST_SKIP() << "needs perf events for the whole machine";
        ASSERT_EQ(status, KERN_SUCCESS);
    }
    // A handle without a watch, and one of somebody else's making, get nothing.
    void* data = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &handle), KERN_SUCCESS);
    EXPECT_EQ(get_symbolication_info(daemonPort(), handle, &data, &length), KERN_INVALID_NAME);
    EXPECT_EQ(watch_pids(daemonPort(), nullptr, 0, handle), KERN_NO_ACCESS);
    EXPECT_EQ(stop_watching_pids(daemonPort(), handle, &data, &length), KERN_INVALID_NAME);
    EXPECT_EQ(mach_port_mod_refs(mach_task_self(), handle, MACH_PORT_RIGHT_RECEIVE, -1), KERN_SUCCESS);
}

} // namespace
} // namespace vnt
