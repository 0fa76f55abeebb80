/// What recording kernel events costs a program that makes nothing but the cheapest system call: two events a call.
/// Bare, with our tracer (by BPF programs and by perf events, without stacks and with user and kernel stacks), and with
/// `perf record` on the same two tracepoints. The runs are interleaved and the medians compared; goals stand beside the
/// figures. Then how fast a recording is read back.
/// Usage: trace_bench [RUNS [CALLS]]
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "bundle/TraceReader.h"
#include "collectors/kernel/KernelTracer.h"
#include "platform/base/sys.h"

using namespace vnt;

namespace {

const std::string kTarget = VNT_TARGETS "/kernelwork";
constexpr uint32_t kSystemCalls = 0x040cfffe;

struct Outcome {
    double callNs = 0; ///< the target's processor time of a call
    double wallMs = 0;
    double events = 0;
    double lost = 0;
    double bytes = 0;
    double recorderCpuNs = 0;
};

/// Keeps the messages, for the reading afterwards.
class Keeper : public RecordSink {
public:
    Status trySend(std::span<const std::byte> message) override
    {
        bytes += static_cast<double>(message.size());
        messages.emplace_back(message.begin(), message.end());
        return {};
    }
    Status send(std::span<const std::byte> message) override { return trySend(message); }
    void reportProblem(const std::string& text) override { std::fprintf(stderr, "%s\n", text.c_str()); }

    std::vector<std::vector<std::byte>> messages;
    double bytes = 0;
};

struct Child {
    pid_t pid = 0;
    UniqueFd output;
};

/// Standard output into a pipe; stopped before exec when `stopped`.
Child launch(const std::vector<std::string>& arguments, bool stopped)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    auto pipe = sys::makePipe().take();
    Child child;
    child.pid = ::fork();
    if (child.pid == 0) {
        ::dup2(pipe.second.get(), 1);
        ::dup2(::open("/dev/null", O_WRONLY), 2);
        if (stopped)
            ::raise(SIGSTOP);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    if (stopped)
        ::waitpid(child.pid, nullptr, WUNTRACED);
    child.output = std::move(pipe.first);
    return child;
}

Outcome finish(Child& child, rusage& usage)
{
    const uint64_t beganNs = sys::monotonicNs();
    int status = 0;
    ::wait4(child.pid, &status, 0, &usage);
    Outcome outcome;
    outcome.wallMs = static_cast<double>(sys::monotonicNs() - beganNs) * 1e-6;
    char text[256] = {};
    const auto count = sys::readSome(child.output.get(), text, sizeof text - 1);
    if (!count.ok() || status != 0 || std::sscanf(text, "count %*s ns %lf", &outcome.callNs) != 1) {
        std::fprintf(stderr, "run failed (status %d): %s\n", status, text);
        std::exit(1);
    }
    return outcome;
}

double processorNs(const rusage& usage)
{
    const auto ns = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
    };
    return ns(usage.ru_utime) + ns(usage.ru_stime);
}

Outcome runBare(const std::string& calls)
{
    Child child = launch({kTarget, "calls", calls}, false);
    rusage usage{};
    return finish(child, usage);
}

Outcome runOurs(const std::string& calls, KernelTracerOptions::Path path, bool stacks, Keeper& keeper)
{
    Child child = launch({kTarget, "calls", calls}, true);
    KernelTracerOptions options;
    options.pid = child.pid;
    options.classes = {kSystemCalls};
    options.userStacks = options.kernelStacks = stacks;
    options.path = path;
    auto tracer = KernelTracer::start(options, keeper, nullptr);
    if (!tracer.ok()) {
        std::fprintf(stderr, "%s\n", tracer.status().message().c_str());
        ::kill(child.pid, SIGKILL);
        std::exit(1);
    }
    ::kill(child.pid, SIGCONT);
    rusage usage{};
    Outcome outcome = finish(child, usage);
    if (const Status stopped = tracer.value()->stop(); !stopped.ok())
        std::fprintf(stderr, "%s\n", stopped.message().c_str());
    Remarks remarks;
    TraceReader reader([](const TraceEvent&) {}, {}, remarks);
    for (const auto& message : keeper.messages)
        reader.add(message);
    const TraceTotals totals = reader.finish();
    outcome.events = static_cast<double>(totals.events);
    outcome.lost = static_cast<double>(totals.lost());
    outcome.bytes = keeper.bytes;
    outcome.recorderCpuNs = static_cast<double>(totals.recorderCpuNs);
    return outcome;
}

Outcome runPerf(const std::string& calls, bool stacks)
{
    const std::string file = sys::environmentOr("TMPDIR", "/tmp") + "/trace_bench." + std::to_string(::getpid());
    std::vector<std::string> arguments{
        "perf", "record", "-B", "-m", "2048", "-e", "raw_syscalls:sys_enter", "-e", "raw_syscalls:sys_exit"};
    if (stacks)
        arguments.push_back("-g");
    for (const std::string& argument :
         {std::string("-o"), file, std::string("--"), kTarget, std::string("calls"), calls})
        arguments.push_back(argument);
    Child child = launch(arguments, false);
    rusage usage{};
    Outcome outcome = finish(child, usage);
    // perf waited for the target, so its own part is the rest.
    outcome.recorderCpuNs = processorNs(usage) - outcome.callNs * std::atof(calls.c_str());
    outcome.events = 2 * std::atof(calls.c_str());
    const auto info = sys::statFile(file);
    outcome.bytes = info.ok() ? static_cast<double>(info.value().st_size) : 0;
    (void)::unlink(file.c_str());
    return outcome;
}

double median(const std::vector<Outcome>& runs, double Outcome::*figure)
{
    std::vector<double> values;
    for (const Outcome& run : runs)
        values.push_back(run.*figure);
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// The time in which a recording is read, sorted and passed on, and how large the events are.
void readBack(const char* what, const Keeper& keeper, double bound)
{
    std::vector<double> seconds;
    TraceTotals totals;
    for (int run = 0; run < 5; ++run) {
        Remarks remarks;
        uint64_t sum = 0;
        const uint64_t beganNs = sys::monotonicNs();
        TraceReader reader([&](const TraceEvent& event) { sum += event.value(0); }, {}, remarks);
        for (const auto& message : keeper.messages)
            reader.add(message);
        totals = reader.finish();
        seconds.push_back(static_cast<double>(sys::monotonicNs() - beganNs) * 1e-9);
    }
    std::sort(seconds.begin(), seconds.end());
    const auto events = static_cast<double>(totals.events);
    std::printf(
        "  %-28s %8.0f events, %5.1f bytes each; read back at %.2f million a second (goal %.1f): %.3f s for 400,000\n",
        what, events, keeper.bytes / events, events / seconds[2] * 1e-6, bound, seconds[2] * 400'000 / events);
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::atoi(argv[1]) : 5;
    const std::string calls = argc > 2 ? argv[2] : "300000";
    using Path = KernelTracerOptions::Path;
    static constexpr struct {
        const char* what;
        Path path;
        bool stacks;
        double goalUs;
        const char* peer;
    } kVariants[] = {
        {"BPF program", Path::kProgram, false, 0.6, "perf record"},
        {"BPF program, stacks", Path::kProgram, true, 2.6, "perf record -g"},
        {"perf events", Path::kPerf, false, 1.1, "perf record"},
        {"perf events, stacks", Path::kPerf, true, 5.0, "perf record -g"},
    };
    std::map<std::string, std::vector<Outcome>> outcomes;
    std::map<std::string, Keeper> kept;
    for (int run = 0; run < runs; ++run) {
        outcomes["bare"].push_back(runBare(calls));
        for (const auto& variant : kVariants) {
            Keeper& keeper = kept[variant.what];
            keeper = Keeper();
            outcomes[variant.what].push_back(runOurs(calls, variant.path, variant.stacks, keeper));
        }
        outcomes["perf record"].push_back(runPerf(calls, false));
        outcomes["perf record -g"].push_back(runPerf(calls, true));
    }
    const double bareNs = median(outcomes["bare"], &Outcome::callNs);
    const auto costUs = [&](const std::string& what) {
        return (median(outcomes[what], &Outcome::callNs) - bareNs) / 2 * 1e-3; // two events a call
    };
    std::printf("%s calls, medians of %d runs; a bare call takes %.0f ns\n", calls.c_str(), runs, bareNs);
    for (const auto& variant : kVariants) {
        const auto& list = outcomes[variant.what];
        const double events = median(list, &Outcome::events);
        const double asked = 2 * std::atof(calls.c_str());
        std::printf("  %-20s %.2f us an event (goal %.1f; %-14s %.2f, ratio %.2f)  %.0f events of at least %.0f, lost "
                    "%.0f, %.0f a second  recorder %.3f us an event\n",
                    variant.what, costUs(variant.what), variant.goalUs, variant.peer, costUs(variant.peer),
                    costUs(variant.what) / costUs(variant.peer), events, asked, median(list, &Outcome::lost),
                    events / median(list, &Outcome::wallMs) * 1e3,
                    median(list, &Outcome::recorderCpuNs) / events * 1e-3);
    }
    for (const char* peer : {"perf record", "perf record -g"})
        std::printf("  %-20s %.2f us an event, %.1f bytes an event, recorder %.3f us an event\n", peer, costUs(peer),
                    median(outcomes[peer], &Outcome::bytes) / median(outcomes[peer], &Outcome::events),
                    median(outcomes[peer], &Outcome::recorderCpuNs) / median(outcomes[peer], &Outcome::events) * 1e-3);
    for (const auto& variant : kVariants)
        readBack(variant.what, kept[variant.what], 0.4);
    return 0;
}
