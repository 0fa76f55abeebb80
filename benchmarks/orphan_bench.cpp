// A search for leaks in a heap of a million blocks, 177 MB, 10,000 of them lost: how long the target stands still, how
// long the result takes, and what is found, beside what reading the same bytes takes at least. Then the whole run of
// such a program, alone, recorded, and under what else finds leaks on this machine.

#include <sys/mman.h>
#include <sys/uio.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "collectors/orphans/JournaledTarget_testing.h"
#include "collectors/orphans/OrphanSearch.h"
#include "platform/base/Mapping.h"

namespace {

using namespace vnt;

constexpr int kRounds = 7;
constexpr uint64_t kBlocks = 1'000'000;
constexpr uint64_t kLost = 10'000;

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double milliseconds(uint64_t ns) { return static_cast<double>(ns) / 1e6; }

/// The target's heap read once into memory that is there already, by one thread.
double readingMs(pid_t pid)
{
    const auto maps = orphans::readMaps(pid);
    for (const orphans::MapEntry& entry : maps.ok() ? maps.value() : std::vector<orphans::MapEntry>()) {
        if (entry.path != "[heap]")
            continue;
        static Mapping buffer = Mapping::create(entry.range.sizeBytes(), PROT_READ | PROT_WRITE,
                                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0)
                                    .take();
        const uint64_t begun = sys::monotonicNs();
        for (uint64_t at = 0; at < entry.range.sizeBytes(); at += 1u << 20) {
            const size_t size = std::min<uint64_t>(1u << 20, entry.range.sizeBytes() - at);
            iovec local{static_cast<std::byte*>(buffer.address()) + at, size};
            iovec remote{reinterpret_cast<void*>(entry.range.start + at), size};
            (void)::process_vm_readv(pid, &local, 1, &remote, 1, 0);
        }
        return milliseconds(sys::monotonicNs() - begun);
    }
    return 0;
}

void measureSearch()
{
    test::JournaledTarget target(VNT_JOURNAL,
                                 {VNT_TARGETS "/leakheap", std::to_string(kBlocks), std::to_string(kLost)});
    if (!target.awaitLine("ready"))
        return;
    std::vector<double> pause, verdict, bound;
    uint64_t found = 0, bytes = 0;
    for (int i = 0; i < kRounds; ++i) {
        bound.push_back(readingMs(target.pid()));
        orphans::OrphanSearch search({.stacks = true});
        Status status;
        (void)target.collector().inspect([&](HeapView& heap) { status = search.look(heap); });
        if (!status.ok()) {
            std::printf("%s\n", status.message().c_str());
            return;
        }
        const orphans::OrphanResult result = search.judge();
        pause.push_back(milliseconds(result.search.pauseNs));
        verdict.push_back(milliseconds(result.search.verdictNs));
        found = result.search.leaks;
        bytes = result.search.blockBytes;
    }
    std::printf("%llu blocks, %.0f MB: %llu leaks found of %llu\n", static_cast<unsigned long long>(kBlocks),
                static_cast<double>(bytes) / 1e6, static_cast<unsigned long long>(found),
                static_cast<unsigned long long>(kLost));
    std::printf("  pause    %7.1f ms (bound 50); reading the heap alone %.1f ms, ratio %.2f\n", median(pause),
                median(bound), median(pause) / median(bound));
    std::printf("  verdict  %7.1f ms (bound 350), ratio %.2f\n", median(verdict), median(verdict) / median(bound));
}

double runMs(const std::string& command)
{
    const uint64_t begun = sys::monotonicNs();
    (void)std::system((command + " >/dev/null 2>&1").c_str());
    return milliseconds(sys::monotonicNs() - begun);
}

void compareRuns(const std::string& scratch)
{
    const std::string arguments = " " + std::to_string(kBlocks) + " " + std::to_string(kLost) + " exit";
    const std::string program = VNT_TARGETS "/leakheap" + arguments;
    const double alone = runMs(program);
    const auto show = [alone](const char* what, double ms) {
        std::printf("  %-22s %8.0f ms, %.1f times\n", what, ms, ms / alone);
    };
    std::printf("A whole run of the program\n");
    show("alone", alone);
    show("recorded, bundle saved",
         runMs("rm -rf " + scratch + "/b.vnt; " VNT_PROGRAMS "/rumbel record -i orphanfinder -o " + scratch + "/b -- "
               + program));
    show("leak sanitizer", runMs(VNT_TARGETS "/leakheap_sanitized" + arguments));
    if (std::system("command -v valgrind >/dev/null 2>&1") == 0)
        show("valgrind", runMs("valgrind --leak-check=full " + program));
}

} // namespace

int main()
{
    char directory[] = "/tmp/orphan-bench-XXXXXX";
    if (!::mkdtemp(directory))
        return 1;
    measureSearch();
    if (!std::getenv("SHORT"))
        compareRuns(directory);
    return std::system((std::string("rm -rf ") + directory).c_str()) == 0 ? 0 : 1;
}
