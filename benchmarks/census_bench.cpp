// What one look at every process costs, beside the bounds of the same run: reading one small file of each process, and
// reading all four.   census_bench [PROCESSES] [SWEEPS]
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "collectors/census/ProcessCensus.h"
#include "platform/base/sys.h"
#include "records/CensusRecordReader.h"

namespace {

using namespace vnt;

/// Keeps what the census says of its own cost.
class Costs final : public RecordSink, public census::CensusRecordHandler {
public:
    Status trySend(std::span<const std::byte> message) override
    {
        bytes += message.size();
        return _reader.read(message, *this);
    }
    Status send(std::span<const std::byte> message) override { return trySend(message); }
    void reportProblem(const std::string& text) override { std::fprintf(stderr, "census_bench: %s\n", text.c_str()); }
    void onCost(uint64_t, uint64_t cpuNs, uint64_t, uint64_t) override
    {
        cpu.push_back(cpuNs);
        sweeps.fetch_add(1);
    }

    std::vector<uint64_t> cpu; // cumulative, one a sweep; read when the census has stopped
    std::atomic<int> sweeps{0};
    uint64_t bytes = 0;

private:
    census::CensusRecordReader _reader;
};

uint64_t cpuNs()
{
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

/// Processor time of reading these files of every process, the least of five.
double boundMs(const std::vector<pid_t>& pids, std::initializer_list<const char*> files)
{
    uint64_t least = UINT64_MAX;
    for (int i = 0; i < 5; ++i) {
        const uint64_t begin = cpuNs();
        for (const pid_t pid : pids) {
            for (const char* file : files)
                (void)sys::readFile("/proc/" + std::to_string(pid) + "/" + file, 16384);
        }
        least = std::min(least, cpuNs() - begin);
    }
    return static_cast<double>(least) / 1e6;
}

/// Processor time of a census's first sweep, to which every process is new; the least of five, as for the bounds.
double firstSweepMs()
{
    uint64_t least = UINT64_MAX;
    for (int i = 0; i < 5; ++i) {
        Costs costs;
        ProcessCensus census(costs);
        (void)census.start();
        while (costs.sweeps.load() < 1)
            ::usleep(1'000);
        census.stop();
        least = std::min(least, costs.cpu.front());
    }
    return static_cast<double>(least) / 1e6;
}

} // namespace

int main(int argc, char** argv)
{
    const int processes = argc > 1 ? std::atoi(argv[1]) : 2000;
    const int sweeps = argc > 2 ? std::atoi(argv[2]) : 30;
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        const pid_t pid = ::fork();
        if (pid < 0)
            break;
        if (pid == 0) {
            for (;;)
                ::pause();
        }
        children.push_back(pid);
    }
    ProcessReader reader;
    const auto pids = reader.processes();
    // What the kernel makes at the first look at a file of a process, the bound does not pay either: it is the best of
    // five.
    for (const pid_t pid : pids.value())
        (void)reader.look(pid);
    const double oneFile = boundMs(pids.value(), {"stat"});
    const double fourFiles = boundMs(pids.value(), {"stat", "status", "io", "statm"});
    const double first = firstSweepMs();

    Costs costs;
    ProcessCensus census(costs);
    census.setInterval(100'000'000);
    (void)census.start();
    while (costs.sweeps.load() < sweeps)
        ::usleep(10'000);
    census.stop();
    std::vector<double> each;
    for (size_t i = 1; i < costs.cpu.size(); ++i)
        each.push_back(static_cast<double>(costs.cpu[i] - costs.cpu[i - 1]) / 1e6);
    std::sort(each.begin(), each.end());
    const double median = each.empty() ? 0 : each[each.size() / 2];
    std::printf("%zu processes, %zu sweeps, %.1f bytes a sweep\n", pids.value().size(), costs.cpu.size(),
                static_cast<double>(costs.bytes) / static_cast<double>(std::max<size_t>(costs.cpu.size(), 1)));
    std::printf("bound: stat alone %.1f ms, all four files %.1f ms\n", oneFile, fourFiles);
    std::printf("first sweep, everything new  %8.2f ms  %.2f of all four files\n", first, first / fourFiles);
    std::printf("later sweeps, median         %8.2f ms  %.2f of stat alone\n", median, median / oneFile);
    for (const pid_t pid : children) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    return 0;
}
