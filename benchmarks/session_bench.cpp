/// What a whole recording through the library costs: from the call of VantoraStart to the first sample, from the call
/// of VantoraStop to the finished bundle, processor time of client and worker together, the client's memory; and the
/// tool on /bin/true, warm and with the server to be started, beside perf record. Usage: session_bench [SECONDS
/// [INTERVAL_US]]
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <Vantora/Vantora>

#include "platform/messagequeue/MessageStream.h"
#include "records/StackRecordReader.h"

namespace {

constexpr double kFirstSampleBoundMs = 10;
constexpr double kStopBoundMs = 50;
constexpr double kWarmBoundMs = 60;
constexpr double kColdBoundMs = 300;
constexpr double kMemoryBoundMiB = 16;

uint64_t nowNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

double msSince(uint64_t startNs) { return static_cast<double>(nowNs() - startNs) / 1e6; }

CFStringRef text(const std::string& value)
{
    return CFStringCreateWithCString(kCFAllocatorDefault, value.c_str(), kCFStringEncodingUTF8);
}

std::string fileText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// Processor seconds of the worker that serves this process (its command line ends in our pid and uid).
double workerSeconds()
{
    const std::string mark = std::string(1, '\0') + std::to_string(::getpid()) + '\0' + std::to_string(::getuid());
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string line = fileText(entry.path() / "cmdline");
        if (line.find("--worker") == std::string::npos || line.find(mark) == std::string::npos)
            continue;
        const std::string stat = fileText(entry.path() / "stat");
        unsigned long user = 0;
        unsigned long system = 0;
        std::sscanf(stat.c_str() + stat.rfind(')') + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
                    &system);
        return static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    }
    return -1;
}

double ownSeconds()
{
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double peakMiB()
{
    const std::string status = fileText("/proc/self/status");
    const size_t at = status.find("VmHWM:");
    return at == std::string::npos ? -1 : std::atof(status.c_str() + at + 6) / 1024;
}

struct FirstAndCount : vnt::stacks::StackRecordHandler {
    uint64_t firstNs = ~uint64_t{0};
    uint64_t samples = 0;
    uint64_t lost = 0;
    void onSample(const vnt::stacks::SampleRecord& sample) override
    {
        firstNs = std::min(firstNs, sample.timeNs);
        ++samples;
    }
    void onLost(uint64_t, vnt::stacks::LostCause, uint64_t newly, uint64_t) override { lost += newly; }
};

FirstAndCount readStream(const std::string& bundle)
{
    FirstAndCount found;
    auto stream = vnt::MessageStreamReader::open(bundle + "/quillon.vnt.stacksampler.messagequeue");
    if (!stream.ok())
        return found;
    vnt::stacks::StackRecordReader reader;
    stream.value().forEach([&](std::span<const std::byte> message) { return reader.read(message, found).ok(); });
    return found;
}

void row(const char* what, double value, const char* unit, double bound)
{
    std::printf("%-52s %8.2f %-4s bound <= %-6g %s\n", what, value, unit, bound, value <= bound ? "met" : "MISSED");
}

pid_t startTarget(double seconds)
{
    const pid_t target = ::fork();
    if (target == 0) {
        const std::string ms = std::to_string(static_cast<int>(seconds * 1000) + 5000);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::execl(VNT_TARGETS "/spin30", "spin30", ms.c_str(), nullptr);
        ::_exit(127);
    }
    ::usleep(100'000); // until it spins
    return target;
}

int recordTarget(double seconds, int64_t intervalUs)
{
    const pid_t target = startTarget(seconds);
    const std::string path = std::filesystem::temp_directory_path() / ("session-bench-" + std::to_string(::getpid()));
    CFErrorRef error = nullptr;
    CFMutableDictionaryRef options = CFDictionaryCreateMutable(kCFAllocatorDefault, 0, nullptr, nullptr);
    CFDictionarySetValue(options, text("quillon.vnt.option.samplinginterval"),
                         CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &intervalUs));
    VantoraSession session = VantoraCreate(nullptr, text(std::to_string(target)), nullptr, &error);
    if (!session || !VantoraAddInstrument(session, text("quillon.vnt.stacksampler"), options, nullptr, &error))
        return 1;
    const uint64_t startNs = nowNs();
    VantoraStart(session, nullptr, &error);
    const double startMs = msSince(startNs);
    ::usleep(static_cast<useconds_t>(seconds * 1e6));
    const double used = ownSeconds() + workerSeconds();
    const uint64_t stopNs = nowNs();
    VantoraStop(session, nullptr, &error);
    const bool saved = VantoraSave(session, text(path), &error);
    const double stopMs = msSince(stopNs);
    VantoraDispose(session, nullptr);
    ::kill(target, SIGKILL);
    ::waitpid(target, nullptr, 0);
    const FirstAndCount found = readStream(path + ".vnt");
    std::printf("recording of %.0f s every %lld us: %s, %llu samples, %llu lost\n", seconds,
                static_cast<long long>(intervalUs), saved ? "saved" : "NOT SAVED",
                static_cast<unsigned long long>(found.samples), static_cast<unsigned long long>(found.lost));
    std::printf("%-52s %8.2f ms\n", "VantoraStart itself", startMs);
    row("VantoraStart to the first sample", static_cast<double>(found.firstNs - startNs) / 1e6, "ms",
        kFirstSampleBoundMs);
    row("VantoraStop to the finished bundle", stopMs, "ms", kStopBoundMs);
    row("peak memory of the client", peakMiB(), "MiB", kMemoryBoundMiB);
    const double perSampleUs = used * 1e6 / static_cast<double>(std::max<uint64_t>(found.samples, 1));
    std::printf("%-52s %8.2f us a sample (%.3f s)\n", "processor time of client and worker", perSampleUs, used);
    std::filesystem::remove_all(path + ".vnt");
    return 0;
}

double runMs(const std::string& command)
{
    const uint64_t startNs = nowNs();
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
        std::printf("  (%s failed)\n", command.c_str());
    return msSince(startNs);
}

double medianMs(const std::string& command, const std::string& before)
{
    double times[5];
    for (double& time : times) {
        if (!before.empty())
            (void)runMs(before);
        time = runMs(command);
    }
    std::sort(std::begin(times), std::end(times));
    return times[2];
}

void wholeRuns()
{
    // Names of its own, so that nobody else's server is met, and one that can be found and ended for the cold runs.
    const std::string world =
        std::filesystem::temp_directory_path() / ("session-bench-world-" + std::to_string(::getpid()));
    ::setenv("VANTORA_BOOTSTRAP_DIR", world.c_str(), 1);
    ::setenv("VANTORA_SYSTEM_BOOTSTRAP_DIR", world.c_str(), 1);
    const std::string record = std::string(VNT_BIN "/rumbel record -o ") + world + "-true -- /bin/true";
    // Without its directory a service cannot be found: the next look-up starts another.
    const double cold = medianMs(record, "rm -rf " + world);
    const double warm = medianMs(record, "");
    row("rumbel record -- /bin/true, server running", warm, "ms", kWarmBoundMs);
    row("rumbel record -- /bin/true, server to be started", cold, "ms", kColdBoundMs);
    if (std::system("perf --version >/dev/null 2>&1") == 0)
        std::printf("%-52s %8.2f ms\n", "perf record -g -- /bin/true",
                    medianMs("perf record -q -e cpu-clock -g -o " + world + ".data -- /bin/true", ""));
    (void)std::system(("rm -rf " + world + "*").c_str());
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 10;
    const int64_t intervalUs = argc > 2 ? std::atoll(argv[2]) : 1000;
    if (recordTarget(seconds, intervalUs) != 0) {
        std::fprintf(stderr, "session_bench: no recording\n");
        return 1;
    }
    wholeRuns();
    return 0;
}
