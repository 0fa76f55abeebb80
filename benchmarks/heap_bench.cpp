// What recording a heap costs: the same program alone, recorded by the heap recorder and, where it is installed, under
// heaptrack, in turn. Then the size of an event in the bundle, and the time of a report.

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr int kRounds = 5;

struct Pair {
    double wallNs = 0;
    double cpuNs = 0;
};

std::string scratch; // a directory

std::string output(const std::string& command)
{
    const std::string file = scratch + "/out";
    if (::system((command + " >" + file + " 2>/dev/null").c_str()) != 0)
        return {};
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

Pair pairIn(const std::string& text)
{
    Pair pair;
    const size_t at = text.find("pair: ");
    if (at != std::string::npos)
        (void)std::sscanf(text.c_str() + at, "pair: %lf ns, %lf", &pair.wallNs, &pair.cpuNs);
    return pair;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Series {
    std::vector<double> wall;
    std::vector<double> cpu;
    void add(const Pair& pair)
    {
        wall.push_back(pair.wallNs);
        cpu.push_back(pair.cpuNs);
    }
};

std::string recorded(const std::string& program)
{
    return "rm -rf " + scratch + "/b.vnt; " VNT_PROGRAMS "/rumbel record -i heaprecorder -o " + scratch + "/b -- "
        + program;
}

/// Nanoseconds of a malloc and a free, per thread: alone, recorded, under the peer.
void comparePairs(const char* title, const std::string& arguments, bool hasPeer)
{
    const std::string program = VNT_TARGETS "/heappairs " + arguments;
    Series bare, ours, peer;
    for (int i = 0; i < kRounds; ++i) {
        bare.add(pairIn(output(program)));
        ours.add(pairIn(output(recorded(program))));
        if (hasPeer)
            peer.add(pairIn(output("heaptrack -o " + scratch + "/ht " + program)));
    }
    std::printf("%s\n  alone      %7.1f ns, %7.1f ns of processor time\n", title, median(bare.wall), median(bare.cpu));
    std::printf("  recorded   %7.1f ns, %7.1f; %.1f more\n", median(ours.wall), median(ours.cpu),
                median(ours.cpu) - median(bare.cpu));
    if (hasPeer)
        std::printf("  heaptrack  %7.1f ns, %7.1f; %.1f more\n", median(peer.wall), median(peer.cpu),
                    median(peer.cpu) - median(bare.cpu));
}

void measureReport(long pairs)
{
    if (output(recorded(VNT_TARGETS "/heappairs " + std::to_string(pairs))).empty())
        return;
    struct stat stream { };
    const std::string bundle = scratch + "/b.vnt";
    ::stat((bundle + "/quillon.vnt.heaprecorder.messagequeue").c_str(), &stream);
    const auto begin = std::chrono::steady_clock::now();
    const std::string report = output(VNT_PROGRAMS "/rumbel report " + bundle);
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
    const size_t lost = report.find("  Lost");
    std::printf("%ld pairs: %.2f bytes an event (bound 12); a report takes %.3f s (bound %.1f s for 10 million)\n%s\n",
                pairs, static_cast<double>(stream.st_size) / (2.0 * static_cast<double>(pairs)), spent.count(), 1.0,
                report.substr(lost, report.find('\n', lost) - lost).c_str());
}

} // namespace

int main()
{
    char directory[] = "/tmp/heap-bench-XXXXXX";
    if (!::mkdtemp(directory))
        return 1;
    scratch = directory;
    const bool hasPeer = ::system("command -v heaptrack >/dev/null 2>&1") == 0;
    comparePairs("One thread, 20 calls deep (bound: 150 ns more)", "2000000 1 20", hasPeer);
    comparePairs("One thread, 2 calls deep", "2000000 1 2", hasPeer);
    comparePairs("Two threads (bound: 1.6 of one)", "1000000 2 20", hasPeer);
    measureReport(10'000'000);
    return ::system(("rm -rf " + scratch).c_str()) == 0 ? 0 : 1;
}
