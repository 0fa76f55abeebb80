/// What sampling costs a processor-bound target with stacks 30 deep: bare, with our sampler (placed as it chooses, and
/// forced onto processors and onto threads), and with `perf record` at the same rate; then the same without frame
/// pointers. The runs are interleaved and the medians compared; goals stand beside the figures.
/// Usage: sampling_bench [RUNS [MILLISECONDS [RATE...]]]
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "collectors/stacks/EventSet.h"
#include "platform/base/sys.h"
#include "records/StackRecordReader.h"

using namespace vnt;

namespace {

struct Outcome {
    double iterationsPerCpuSecond = 0;
    double iterationsPerSecond = 0;
    double targetCpuNs = 0;
    double samples = 0;
    double recorderCpuNs = 0;
    double lost = 0;
    double bytes = 0;
    double startMs = 0;
    double frames = 0; ///< of user code, of all samples
    double cut = 0; ///< samples that say their stack is not whole
};

class Counter : public RecordSink, public stacks::StackRecordHandler {
public:
    Status trySend(std::span<const std::byte> message) override
    {
        bytes += static_cast<double>(message.size());
        return _reader.read(message, *this);
    }
    Status send(std::span<const std::byte> message) override { return trySend(message); }
    void reportProblem(const std::string& text) override { std::fprintf(stderr, "%s\n", text.c_str()); }
    void onSample(const stacks::SampleRecord& sample) override
    {
        ++samples;
        cut += _reader.frames(sample.stack, _frames) ? 0 : 1;
        frames += static_cast<double>(_frames.size());
    }
    void onLost(uint64_t, stacks::LostCause, uint64_t newly, uint64_t) override { lost += static_cast<double>(newly); }
    void onCost(uint64_t, uint64_t ns, uint64_t) override { cpuNs = static_cast<double>(ns); }

    double samples = 0, lost = 0, bytes = 0, cpuNs = 0, frames = 0, cut = 0;

private:
    stacks::StackRecordReader _reader;
    std::vector<uint64_t> _frames;
};

double secondsOf(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

/// Starts `arguments` with standard output into a pipe; stopped before exec when `stopped`.
pid_t launch(const std::vector<std::string>& arguments, bool stopped, int output)
{
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(output, 1);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 2);
        if (stopped)
            ::raise(SIGSTOP);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    if (stopped) {
        int status = 0;
        ::waitpid(child, &status, WUNTRACED);
    }
    return child;
}

Outcome finish(pid_t child, std::pair<UniqueFd, UniqueFd>& pipe, rusage& usage)
{
    int status = 0;
    ::wait4(child, &status, 0, &usage);
    pipe.second.reset();
    char text[256] = {};
    auto count = sys::readSome(pipe.first.get(), text, sizeof text - 1);
    Outcome outcome;
    if (!count.ok() || status != 0
        || std::sscanf(text, "%lf %lf %lf", &outcome.iterationsPerCpuSecond, &outcome.iterationsPerSecond,
                       &outcome.targetCpuNs)
            != 3) {
        std::fprintf(stderr, "run failed (status %d): %s\n", status, text);
        std::exit(1);
    }
    return outcome;
}

/// What is recorded, and for how long.
struct Work {
    std::string program;
    std::string milliseconds;
    const char* perfStacks; ///< of perf record's --call-graph
};

Outcome runBare(const Work& work)
{
    auto pipe = sys::makePipe().take();
    const pid_t child = launch({work.program, work.milliseconds}, false, pipe.second.get());
    rusage usage{};
    return finish(child, pipe, usage);
}

Outcome runOurs(const Work& work, uint64_t rate, const Placement* placement)
{
    auto pipe = sys::makePipe().take();
    const pid_t child = launch({work.program, work.milliseconds}, true, pipe.second.get());
    StackSamplerOptions options;
    options.pid = child;
    options.intervalNs = 1'000'000'000 / rate;
    Counter counter;
    const uint64_t beginNs = sys::monotonicNs();
    auto sampler = startStackSampler(options, counter, nullptr, placement);
    const uint64_t startedNs = sys::monotonicNs();
    if (!sampler.ok()) {
        std::fprintf(stderr, "%s\n", sampler.status().message().c_str());
        ::kill(child, SIGKILL);
        std::exit(1);
    }
    ::kill(child, SIGCONT);
    rusage usage{};
    Outcome outcome = finish(child, pipe, usage);
    const Status stopped = sampler.value()->stop();
    if (!stopped.ok())
        std::fprintf(stderr, "%s\n", stopped.message().c_str());
    outcome.samples = counter.samples;
    outcome.lost = counter.lost;
    outcome.frames = counter.frames;
    outcome.cut = counter.cut;
    outcome.bytes = counter.bytes;
    outcome.recorderCpuNs = counter.cpuNs;
    outcome.startMs = static_cast<double>(startedNs - beginNs) * 1e-6;
    return outcome;
}

/// A command's first number.
double numberFrom(const std::string& command)
{
    double number = 0;
    FILE* output = ::popen(command.c_str(), "r");
    if (!output || std::fscanf(output, "%lf", &number) != 1)
        number = 0;
    if (output)
        ::pclose(output);
    return number;
}

Outcome runPerf(const Work& work, uint64_t rate)
{
    auto pipe = sys::makePipe().take();
    const std::string file = "/tmp/sampling_bench." + std::to_string(::getpid());
    const pid_t child = launch({"perf", "record", "-e", "cpu-clock", "-F", std::to_string(rate), "--call-graph",
                                work.perfStacks, "-o", file, "--", work.program, work.milliseconds},
                               false, pipe.second.get());
    rusage usage{};
    Outcome outcome = finish(child, pipe, usage);
    // perf waited for the target, so its own part is the rest.
    outcome.recorderCpuNs = (secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime)) * 1e9 - outcome.targetCpuNs;
    outcome.samples = numberFrom("perf script -F time -i " + file + " 2>/dev/null | grep -c ':'");
    // Its reader unwinds dumps a hundred times slower than we: the frames of some samples stand for all.
    if (std::strcmp(work.perfStacks, "dwarf") == 0)
        outcome.frames =
            outcome.samples
            * numberFrom(
                "perf script -F ip,sym -i " + file
                + " 2>/dev/null | awk '!NF {if (s && ++n == 200) exit; s = 0; next} {f++; s = 1} END {print f / n}'");
    auto info = sys::statFile(file);
    outcome.bytes = info.ok() ? static_cast<double>(info.value().st_size) : 0;
    (void)::unlink(file.c_str());
    return outcome;
}

double median(const std::vector<Outcome>& runs, double Outcome::*figure)
{
    std::vector<double> values;
    for (const Outcome& run : runs)
        values.push_back(run.*figure);
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

void print(const char* what, const std::vector<Outcome>& runs, uint64_t rate, double bare)
{
    const double cpuSeconds = median(runs, &Outcome::targetCpuNs) * 1e-9;
    const double samples = std::max(1.0, median(runs, &Outcome::samples));
    std::printf("  %-16s slow-down %5.2f  samples %7.0f (%5.1f %% of asked)  lost %4.0f  %7.1f bytes/sample  "
                "%4.1f frames/sample, %4.1f %% cut  recorder %6.1f ms = %5.2f us/sample  start %.2f ms\n",
                what, bare / median(runs, &Outcome::iterationsPerCpuSecond), samples,
                100 * samples / (cpuSeconds * static_cast<double>(rate)), median(runs, &Outcome::lost),
                median(runs, &Outcome::bytes) / samples, median(runs, &Outcome::frames) / samples,
                100 * median(runs, &Outcome::cut) / samples, median(runs, &Outcome::recorderCpuNs) * 1e-6,
                median(runs, &Outcome::recorderCpuNs) * 1e-3 / samples, median(runs, &Outcome::startMs));
}

void compare(const Work& work, int runs, uint64_t rate)
{
    const bool hasFramePointers = std::strcmp(work.perfStacks, "fp") == 0;
    const Placement processors = Placement::kProcessors;
    const Placement threads = Placement::kThreads;
    std::map<std::string, std::vector<Outcome>> outcomes;
    for (int run = 0; run < runs; ++run) {
        outcomes["bare"].push_back(runBare(work));
        outcomes["ours"].push_back(runOurs(work, rate, nullptr));
        outcomes["perf record"].push_back(runPerf(work, rate));
        if (!hasFramePointers)
            continue;
        outcomes["on processors"].push_back(runOurs(work, rate, &processors));
        outcomes["on threads"].push_back(runOurs(work, rate, &threads));
    }
    const double bare = median(outcomes["bare"], &Outcome::iterationsPerCpuSecond);
    std::printf("%llu Hz, %s frame pointers, %d runs of %s ms, perf record --call-graph %s\n",
                static_cast<unsigned long long>(rate), hasFramePointers ? "with" : "without", runs,
                work.milliseconds.c_str(), work.perfStacks);
    for (const auto& [what, list] : outcomes)
        print(what.c_str(), list, rate, bare);
    const auto& ours = outcomes["ours"];
    const auto& perf = outcomes["perf record"];
    std::printf("  ours / perf: slow-down %.3f (goal %s), recorder time %.3f (goal 0.25)",
                median(perf, &Outcome::iterationsPerCpuSecond) / median(ours, &Outcome::iterationsPerCpuSecond),
                hasFramePointers ? "1.05" : "1.00",
                median(ours, &Outcome::recorderCpuNs) / median(perf, &Outcome::recorderCpuNs));
    if (!hasFramePointers)
        std::printf(", bytes %.4f (goal 0.01)", median(ours, &Outcome::bytes) / median(perf, &Outcome::bytes));
    std::printf("\n");
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::atoi(argv[1]) : 5;
    const std::string milliseconds = argc > 2 ? argv[2] : "2000";
    std::vector<uint64_t> rates;
    for (int i = 3; i < argc; ++i)
        rates.push_back(std::strtoull(argv[i], nullptr, 10));
    if (rates.empty())
        rates = {1000, 10000, 25000};
    for (const uint64_t rate : rates)
        compare({VNT_TARGETS "/spin30", milliseconds, "fp"}, runs, rate);
    for (const uint64_t rate : rates) {
        if (rate <= 10000) // the peer writes 80 MB a second then
            compare({VNT_TARGETS "/spin30frameless", milliseconds, "dwarf"}, runs, rate);
    }
    return 0;
}
