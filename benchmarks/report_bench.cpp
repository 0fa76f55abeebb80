/// What a report costs. Of the example program, recorded by both at 9 kHz one after the other: `rumbel report --tree`
/// against a fifth of `perf report --stdio`. Of 36,000 samples with stacks 30 deep at random addresses in this
/// program's own modules, symbolized from their files, which is the worst there is: against the bound of 0.3 s; ten
/// times as many against ten times the time. A process of 100 of the system's libraries, symbolized on a warm cache,
/// against a second. All records through the reading interface, against the report. Runs are interleaved and the
/// medians compared. Usage: report_bench [RUNS]
#include <link.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <sstream>

#include "bundle/ElfSymbols.h"
#include "bundle/RecordReading.h"
#include "bundle/TestBundle.h"
#include "rumbel/report/report.h"

using namespace vnt;

namespace {

constexpr uint64_t kStart = 100 * test::kSecondNs;
constexpr uint32_t kDepth = 30;
constexpr uint32_t kDistinctStacks = 5000;

struct CodeSegment {
    std::string path;
    uint64_t start = 0;
    uint64_t size = 0;
    uint64_t offset = 0;
};

/// The code of every module of this process that is a file.
std::vector<CodeSegment> codeSegments()
{
    std::vector<CodeSegment> segments;
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* result) {
            const std::string path = *info->dlpi_name ? info->dlpi_name : sys::executablePath().take();
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const ElfW(Phdr)& header = info->dlpi_phdr[i];
                if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0 && path.starts_with("/"))
                    static_cast<std::vector<CodeSegment>*>(result)->push_back(
                        {path, info->dlpi_addr + header.p_vaddr, header.p_filesz, header.p_offset});
            }
            return 0;
        },
        &segments);
    return segments;
}

std::string makeBundle(const std::string& directory, uint32_t samples, const std::vector<CodeSegment>& segments,
                       const std::string& name)
{
    std::vector<Ref<Object>> images;
    for (const CodeSegment& segment : segments)
        images.push_back(test::image(segment.start, segment.size, segment.offset, segment.path, ""));
    const auto signatures =
        test::signaturesOf({{42, test::processSignature(42, "report_bench", images)}, {0, test::kernelSignature()}});

    std::mt19937_64 random(1); // NOLINT: the same bundle every time
    stacks::StackRecordWriter writer(stacks::SessionRecord{1'000'000, 1, 0});
    test::StreamText stream;
    for (uint32_t thread = 0; thread < 4; ++thread)
        writer.addThread(thread, {42, 42 + thread, 0, "worker"});
    std::vector<uint32_t> innermost;
    std::vector<std::pair<uint32_t, uint64_t>> path; // node, address; the next stack leaves it somewhere
    for (uint32_t i = 0; i < kDistinctStacks; ++i) {
        path.resize(path.empty() ? 0 : random() % path.size());
        while (path.size() < kDepth) {
            const CodeSegment& segment = segments[random() % segments.size()];
            const uint64_t address = segment.start + random() % segment.size;
            const auto [caller, callerAddress] = path.empty() ? std::pair<uint32_t, uint64_t>() : path.back();
            path.emplace_back(writer.addNode(caller, callerAddress, address), address);
        }
        innermost.push_back(path.back().first);
    }
    for (uint32_t i = 0; i < samples; ++i) {
        writer.addSample(kStart + i * 1'000'000ull, i % 4, innermost[random() % innermost.size()]);
        if (writer.sizeBytes() > 48u << 10)
            stream.addFrom(writer);
    }
    stream.addFrom(writer);
    const std::string bundle = directory + "/" + name + ".vnt";
    test::writeBundle(bundle, test::archiveOf(signatures.get(), 42, stream.messages()), stream.text());
    return bundle;
}

/// Libraries of this system that have code, with the first executable segment of each.
std::vector<CodeSegment> systemLibraries(size_t count)
{
    std::vector<CodeSegment> segments;
    std::vector<std::string> names = sys::listDirectory(VNT_LIBRARIES).take();
    std::sort(names.begin(), names.end());
    uint64_t start = 0x7f0000000000;
    for (const std::string& name : names) {
        const std::string path = std::string(VNT_LIBRARIES "/") + name;
        auto file =
            name.find(".so.") != std::string::npos ? ElfFile::open(path) : Result<ElfFile>(Status(Code::kInvalid, ""));
        if (!file.ok())
            continue;
        for (const auto& segment : file.value().loadMap().segments) {
            if (segment.executable && segments.size() < count) {
                segments.push_back({path, start, segment.size, segment.offset});
                start += 1u << 30;
                break;
            }
        }
    }
    return segments;
}

double millisecondsOf(const std::function<void()>& work)
{
    const auto before = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - before).count();
}

double reportMs(const std::string& bundle)
{
    return millisecondsOf([&] {
        ReportOptions options;
        options.bundlePath = bundle;
        options.tree = true;
        std::ostringstream out;
        std::ostringstream err;
        VNT_CHECK(runReport(options, out, err) == 0);
    });
}

double recordsOf(const std::string& path)
{
    return millisecondsOf([&] {
        const Bundle bundle = Bundle::open(path).take();
        const auto totals = readRecords(bundle, bundle.instrument(kStackSamplerId), [](const Record&) { return true; });
        VNT_CHECK(totals.records == 360'000 && totals.unordered == 0);
    });
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    char directory[] = "/tmp/vnt-bench.XXXXXX";
    VNT_CHECK(::mkdtemp(directory) != nullptr);
    const std::string small = makeBundle(directory, 36'000, codeSegments(), "small");
    const std::string large = makeBundle(directory, 360'000, codeSegments(), "large");
    const std::vector<CodeSegment> libraries = systemLibraries(100);
    const std::string modules = makeBundle(directory, 10'000, libraries, "modules");
    // Two threads for two seconds at 9 kHz: about 36,000 samples. User space only: perf 6.1 aborts over some kernels'
    // notes.
    const std::string data = std::string(directory) + "/perf.data";
    const std::string bundle = std::string(directory) + "/same.vnt";
    const std::string program = " " VNT_PROGRAMS "/demo_workload 2 >/dev/null 2>&1";
    const auto runs0 = [](const std::string& command) { return std::system(command.c_str()) == 0; };
    const bool hasPerf = runs0("perf record -q -e cpu-clock:u -F 9000 --call-graph fp -o " + data + program)
        && runs0(VNT_PROGRAMS "/rumbel record --interval 111 -o " + bundle + " --" + program);
    std::vector<double> smallMs;
    std::vector<double> largeMs;
    std::vector<double> perfMs;
    std::vector<double> sameMs;
    std::vector<double> modulesMs;
    std::vector<double> recordsMs;
    (void)reportMs(modules); // warms the cache
    for (int run = 0; run < runs; ++run) {
        smallMs.push_back(reportMs(small));
        largeMs.push_back(reportMs(large));
        modulesMs.push_back(reportMs(modules));
        recordsMs.push_back(recordsOf(large));
        if (hasPerf) {
            perfMs.push_back(
                millisecondsOf([&] { VNT_CHECK(runs0("perf report --stdio -i " + data + " >/dev/null 2>&1")); }));
            sameMs.push_back(millisecondsOf(
                [&] { VNT_CHECK(runs0(VNT_PROGRAMS "/rumbel report --tree " + bundle + " >/dev/null")); }));
        }
    }
    std::printf("report of  36,000 samples: %8.1f ms  (%.2f of the bound of 300 ms)\n", median(smallMs),
                median(smallMs) / 300);
    std::printf("report of 360,000 samples: %8.1f ms  (%.2f of ten times the above)\n", median(largeMs),
                median(largeMs) / (10 * median(smallMs)));
    std::printf("report of %3zu libraries:     %8.1f ms  (%.2f of the bound of a second)\n", libraries.size(),
                median(modulesMs), median(modulesMs) / 1000);
    std::printf("360,000 records in order:  %8.1f ms  (%.0f ns a record of %u frames, %.2f of the report)\n",
                median(recordsMs), median(recordsMs) * 1e6 / 360'000, kDepth, median(recordsMs) / median(largeMs));
    if (hasPerf)
        std::printf("the example program:       %8.1f ms  (%.2f of perf report's %.1f ms, bound 0.20)\n",
                    median(sameMs), median(sameMs) / median(perfMs), median(perfMs));
    else
        std::printf("the example program could not be recorded by both: is perf there?\n");
    (void)std::system(("rm -rf '" + std::string(directory) + "'").c_str()); // the system clears /tmp otherwise
    return 0;
}
