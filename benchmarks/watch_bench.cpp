#include <Vantora/TaskDaemon.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "platform/base/sys.h"
#include "platform/foundation/bridge.h"
#include "platform/mach/Namespace.h"
#include "tests/support/PrivateAuthority.h"

/// What watching processes costs those that start: rounds of short-lived processes with a watch and without one
/// alternate; the medians and their ratio are shown. Then ten thousand starts in one watch, and how many of them the
/// answer holds with their program. Needs root and events of the whole machine.
using namespace vnt;

namespace {

constexpr int kRounds = 20;
constexpr int kStartsPerRound = 500;
constexpr int kStarts = 10'000;

std::set<pid_t> startAll(int count)
{
    std::set<pid_t> pids;
    char name[] = "true";
    char* const arguments[] = {name, nullptr};
    for (int i = 0; i < count; ++i) {
        pid_t pid = 0;
        if (::posix_spawn(&pid, "/bin/true", nullptr, nullptr, arguments, environ) != 0) {
            std::perror("posix_spawn");
            std::exit(1);
        }
        ::waitpid(pid, nullptr, 0);
        pids.insert(pid);
    }
    return pids;
}

double usPerStart(int count, std::set<pid_t>& pids)
{
    const uint64_t begin = sys::monotonicNs();
    pids = startAll(count);
    return static_cast<double>(sys::monotonicNs() - begin) / 1000 / count;
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

/// Pids that an answer holds with images of their own program.
struct Seen {
    std::set<pid_t> pids;
    uint64_t lost = 0, dropped = 0;

    static void take(void* context, CFPropertyListRef list)
    {
        auto* self = static_cast<Seen*>(context);
        const auto answer = Ref<Dictionary>(fromC<Dictionary>(list));
        self->lost = answer->get<Number>("lost")->uint64Value();
        self->dropped = answer->get<Number>("dropped")->uint64Value();
        const auto signatures = answer->get<Array>("signatures");
        for (const auto& item : signatures->items()) {
            const auto signature = as<Dictionary>(item);
            if (signature->get("ended") && signature->get<Array>("images")->count() >= 3)
                self->pids.insert(signature->get<Number>("pid")->intValue());
        }
    }
    [[nodiscard]] size_t countOf(const std::set<pid_t>& wanted) const
    {
        return static_cast<size_t>(
            std::count_if(wanted.begin(), wanted.end(), [&](pid_t pid) { return pids.count(pid) != 0; }));
    }
};

void check(kern_return_t status, const char* what)
{
    if (status == 0)
        return;
    std::fprintf(stderr, "watch_bench: %s: %s\n", what, mach_error_string(status));
    std::exit(1);
}

mach_port_t beginWatch()
{
    mach_port_t handle = MACH_PORT_NULL;
    check(pid_watcher_connect(&handle), "pid_watcher_connect");
    check(pid_watcher_collect(&handle, nullptr, nullptr), "pid_watcher_collect"); // waits for the first scan
    return handle;
}

Seen endWatch(mach_port_t handle)
{
    Seen seen;
    const pid_watcher_callback_t callback{Seen::take, &seen, nullptr};
    check(pid_watcher_disconnect(&handle, nullptr, &callback), "pid_watcher_disconnect");
    return seen;
}

void compare()
{
    std::vector<double> without, with;
    size_t started = 0, seen = 0;
    std::set<pid_t> pids;
    for (int round = 0; round < kRounds; ++round) {
        without.push_back(usPerStart(kStartsPerRound, pids));
        const mach_port_t handle = beginWatch();
        with.push_back(usPerStart(kStartsPerRound, pids));
        started += pids.size();
        seen += endWatch(handle).countOf(pids);
    }
    std::printf("start and end of a process: %.0f us, watched %.0f us, ratio %.3f; seen %zu of %zu\n", median(without),
                median(with), median(with) / median(without), seen, started);
}

void watchMany()
{
    const mach_port_t handle = beginWatch();
    std::set<pid_t> pids;
    const double each = usPerStart(kStarts, pids);
    const uint64_t begin = sys::monotonicNs();
    const Seen seen = endWatch(handle);
    std::printf("one watch, %zu starts, %.0f us each: %zu seen with their program, %llu events lost, %llu dropped; "
                "the answer took %.0f ms\n",
                pids.size(), each, seen.countOf(pids), static_cast<unsigned long long>(seen.lost),
                static_cast<unsigned long long>(seen.dropped), static_cast<double>(sys::monotonicNs() - begin) / 1e6);
}

} // namespace

int main()
{
    if (::geteuid() != 0) {
        std::fprintf(stderr, "watch_bench: needs root\n");
        return 1;
    }
    const test::PrivateAuthority world(VNT_BIN);
    compare();
    watchMany();
    return 0;
}
