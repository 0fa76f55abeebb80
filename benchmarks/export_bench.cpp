/// What exports cost: 400,000 samples with stacks 30 deep, and four times as many, in each format, to /dev/null. Time
/// beside that of reading and symbolizing the same bundle, which every export has to do; memory beside that of the
/// smaller bundle, from which it should not grow. Each export is a process of its own; the medians are compared.
/// Usage: export_bench [RUNS]
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <sstream>

#include "bundle/Bundle.h"
#include "bundle/TestBundle.h"
#include "bundle/exports/Exporter.h"
#include "rumbel/export/ExportCommand.h"

using namespace vnt;

namespace {

constexpr uint64_t kStart = 100 * test::kSecondNs;
constexpr uint32_t kSamples = 400'000;
constexpr uint32_t kDepth = 30;
constexpr uint32_t kDistinctStacks = 5000;
constexpr uint32_t kFunctions = 200;

std::string makeBundle(const std::string& directory, uint32_t samples)
{
    const std::string module = directory + "/program";
    std::vector<test::TestSymbol> symbols;
    for (uint32_t i = 0; i < kFunctions; ++i)
        symbols.push_back({"function" + std::to_string(i), test::kTextAddress + 16 * i, 16});
    test::writeText(module, test::testElf<test::Elf64>(symbols, "p"));
    const auto signatures = test::signaturesOf(
        {{42,
          test::processSignature(42, "program",
                                 {test::image(test::kModuleStart, test::kTextSize, test::kTextOffset, module, "70")})},
         {0, test::kernelSignature()}});
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
            const uint64_t address = test::kModuleStart + 16 * (random() % kFunctions) + 8;
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
    const std::string bundle = directory + "/" + std::to_string(samples) + ".vnt";
    test::writeBundle(bundle, test::archiveOf(signatures.get(), 42, stream.messages()), stream.text());
    return bundle;
}

struct Cost {
    double ms = 0;
    double peakMiB = 0;
};

/// Runs `work` in a child.
Cost costOf(const std::function<void()>& work)
{
    const auto before = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child == 0) {
        work();
        ::_exit(0);
    }
    int status = 0;
    struct rusage usage { };
    VNT_CHECK(::wait4(child, &status, 0, &usage) == child && status == 0);
    return {std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - before).count(),
            static_cast<double>(usage.ru_maxrss) / 1024};
}

Cost medianCost(int runs, const std::function<void()>& work)
{
    std::vector<Cost> costs;
    for (int run = 0; run < runs; ++run)
        costs.push_back(costOf(work));
    std::sort(costs.begin(), costs.end(), [](const Cost& a, const Cost& b) { return a.ms < b.ms; });
    return costs[costs.size() / 2];
}

void read(const std::string& path)
{
    auto bundle = Bundle::open(path);
    VNT_CHECK(bundle.ok());
    VNT_CHECK(readStacks(bundle.value(), bundle.value().instrument(kStackSamplerId)).messages > 0);
}

void exportOnce(const std::string& path, const std::string& format)
{
    ExportCommand command;
    command.bundlePath = path;
    command.format = format;
    command.output = "/dev/null";
    std::ostringstream err;
    VNT_CHECK(runExport(command, STDOUT_FILENO, err) == 0);
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    char directory[] = "/tmp/vnt-bench.XXXXXX";
    VNT_CHECK(::mkdtemp(directory) != nullptr);
    std::string small;
    std::string large;
    // In a child, so that the measured ones do not inherit the memory.
    (void)costOf([&] {
        (void)makeBundle(directory, kSamples);
        (void)makeBundle(directory, 4 * kSamples);
    });
    small = std::string(directory) + "/" + std::to_string(kSamples) + ".vnt";
    large = std::string(directory) + "/" + std::to_string(4 * kSamples) + ".vnt";
    const Cost smallRead = medianCost(runs, [&] { read(small); });
    const Cost largeRead = medianCost(runs, [&] { read(large); });
    std::printf("%-11s %9.1f ms  %9.1f ms  peak %6.1f MiB  %6.1f MiB\n", "reading", smallRead.ms, largeRead.ms,
                smallRead.peakMiB, largeRead.peakMiB);
    for (const ExportFormat& format : exportFormats()) {
        const std::string name(format.name);
        const Cost first = medianCost(runs, [&] { exportOnce(small, name); });
        const Cost second = medianCost(runs, [&] { exportOnce(large, name); });
        std::printf("%-11s %9.1f ms  %9.1f ms  peak %6.1f MiB  %6.1f MiB  (%.1f of reading; %.2f of four times the "
                    "smaller; %.2f of its memory)\n",
                    name.c_str(), first.ms, second.ms, first.peakMiB, second.peakMiB, second.ms / largeRead.ms,
                    second.ms / (4 * first.ms), second.peakMiB / first.peakMiB);
    }
    (void)std::system(("rm -rf '" + std::string(directory) + "'").c_str()); // the system clears /tmp otherwise
    return 0;
}
