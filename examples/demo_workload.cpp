// Spends its processor time in three functions in known shares, so that a profile can be held against the truth:
//   demo_workload [SECONDS]      (default 4)
// Each of two threads always runs the stage that is furthest behind its share, in pieces of about five milliseconds by
// the thread's own processor clock, which is read between the pieces only. The stages call nothing.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBufferSize = 4096;
using Buffer = std::array<uint32_t, kBufferSize>;

/// Where results go, so that no compiler may leave the work out.
volatile uint32_t resultSink;

/// Counts a stage's rounds on the stack: a leaf that needs no stack gets no frame from the compiler, whatever its
/// options say, and its caller would be missing in every stack.
using RoundCounter = volatile uint32_t;

} // namespace

// C names: a profile shows them as they stand here.
extern "C" {

/// Reads decimal numbers out of text made of the buffer's bytes.
__attribute__((noinline)) uint32_t parseInput(Buffer& buffer, uint32_t rounds)
{
    uint32_t sum = 0;
    [[maybe_unused]] RoundCounter done = 0;
    for (uint32_t round = 0; round < rounds; ++round) {
        done = round;
        uint32_t number = 0;
        for (uint32_t value : buffer) {
            const uint32_t character = (value + round) & 0x7f;
            if (character >= '0' && character <= '9') {
                number = number * 10 + (character - '0');
            } else {
                sum += number;
                number = 0;
            }
        }
    }
    return sum;
}

/// Sorts the buffer in runs, by insertion, after disordering it again.
__attribute__((noinline)) uint32_t sortRecords(Buffer& buffer, uint32_t rounds)
{
    constexpr size_t kRun = 64;
    [[maybe_unused]] RoundCounter done = 0;
    for (uint32_t round = 0; round < rounds; ++round) {
        done = round;
        uint32_t random = round | 1;
        for (uint32_t& value : buffer) {
            random = random * 1664525 + 1013904223;
            value ^= random;
        }
        for (size_t run = 0; run < kBufferSize; run += kRun) {
            for (size_t i = run + 1; i < run + kRun; ++i) {
                const uint32_t value = buffer[i];
                size_t at = i;
                for (; at > run && buffer[at - 1] > value; --at)
                    buffer[at] = buffer[at - 1];
                buffer[at] = value;
            }
        }
    }
    return buffer[0];
}

/// Looks for repetitions of three values through a hash table, as a compressor does.
__attribute__((noinline)) uint32_t compressBlocks(Buffer& buffer, uint32_t rounds)
{
    static thread_local std::array<uint16_t, 1024> lastSeen;
    uint32_t matches = 0;
    [[maybe_unused]] RoundCounter done = 0;
    for (uint32_t round = 0; round < rounds; ++round) {
        done = round;
        for (size_t i = 0; i + 3 <= kBufferSize; ++i) {
            const uint32_t key = ((buffer[i] + round) * 2654435761u) ^ (buffer[i + 1] >> 3) ^ (buffer[i + 2] << 5);
            uint16_t& seen = lastSeen[(key >> 16) & 1023];
            matches += buffer[seen] == buffer[i];
            seen = static_cast<uint16_t>(i);
        }
    }
    return matches;
}

} // extern "C"

namespace {

struct Stage {
    const char* name;
    uint32_t (*run)(Buffer&, uint32_t);
    double share;
    uint32_t rounds; ///< of one piece; set to last about five milliseconds
};

constexpr size_t kStages = 3;
constexpr Stage kStageTable[kStages] = {
    {"parseInput", parseInput, 0.20, 8},
    {"sortRecords", sortRecords, 0.35, 8},
    {"compressBlocks", compressBlocks, 0.45, 8},
};

/// Processor time of each stage in one thread, in nanoseconds.
using Spent = std::array<double, kStages>;

double threadCpuNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

__attribute__((noinline)) void runStage(Stage& stage, Buffer& buffer, double& spentNs)
{
    constexpr double kPieceNs =
        2e7; // many sampling intervals: samples at a fixed rate then meet each stage by its share
    const double before = threadCpuNs();
    resultSink = stage.run(buffer, stage.rounds);
    const double pieceNs = threadCpuNs() - before;
    spentNs += pieceNs;
    if (pieceNs < kPieceNs / 2)
        stage.rounds *= 2;
    else if (pieceNs > kPieceNs * 2 && stage.rounds > 1)
        stage.rounds /= 2;
}

__attribute__((noinline)) void processBatch(std::array<Stage, kStages>& stages, Buffer& buffer, Spent& spent)
{
    double all = 0;
    for (const double ns : spent)
        all += ns;
    size_t behind = 0;
    for (size_t i = 1; i < kStages; ++i) {
        if (stages[i].share * all - spent[i] > stages[behind].share * all - spent[behind])
            behind = i;
    }
    runStage(stages[behind], buffer, spent[behind]);
}

__attribute__((noinline)) void runWorker(Clock::time_point end, Spent& spent)
{
    std::array<Stage, kStages> stages;
    std::copy(std::begin(kStageTable), std::end(kStageTable), stages.begin());
    Buffer buffer{};
    while (Clock::now() < end)
        processBatch(stages, buffer, spent);
}

} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 4.0;
    if (!(seconds > 0 && seconds < 86400)) {
        std::fprintf(stderr, "usage: demo_workload [SECONDS]\n");
        return 2;
    }
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    Spent first{};
    Spent second{};
    std::thread worker([&] { runWorker(end, second); });
    runWorker(end, first);
    worker.join();
    double all = 0;
    for (size_t i = 0; i < kStages; ++i)
        all += first[i] + second[i];
    for (size_t i = 0; i < kStages; ++i)
        std::printf("demo: %s %.1f %%\n", kStageTable[i].name, 100 * (first[i] + second[i]) / all);
    return 0;
}
