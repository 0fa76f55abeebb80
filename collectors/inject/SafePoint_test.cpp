#include "collectors/inject/SafePoint.h"

#include <gtest/gtest.h>

#include <vector>

namespace vnt {
namespace {

constexpr uint64_t kInProgram = 0x1000, kInLibc = 0x2000, kInLoader = 0x3000, kInVdso = 0x4000;
constexpr uint64_t kSignalReturn = kInLibc + 0x99;

CodeOwner ownerOf(uint64_t address)
{
    constexpr CodeOwner owners[] = {CodeOwner::kProgram, CodeOwner::kProgram, CodeOwner::kLibc, CodeOwner::kGuarded,
                                    CodeOwner::kKernel};
    return address < 0x5000 ? owners[address >> 12] : CodeOwner::kProgram;
}

TEST(SafePoint, TellsWhereAFunctionMayBeCalled)
{
    struct Row {
        const char* what;
        bool safe;
        bool is32Bit;
        uint64_t instruction;
        int64_t systemCall;
        uint64_t secondArgument;
        std::vector<uint64_t> stack;
        bool inSequence;
    };
    constexpr int kRead = 0, kNanosleep = 35, kMmap = 9, kFutex = 202, kPoll32 = 168;
    constexpr uint64_t kWait = 128, kWaitBitset = 9 | 128, kWaitBitsetReal = 9 | 128 | 256; // <linux/futex.h>
    const Row rows[] = {
        {"the program's own code", true, false, kInProgram, -1, 0, {7}, false},
        {"code that nobody knows, made at run time", true, false, 0x99999, -1, 0, {7}, false},
        {"in the C library, maybe in malloc", false, false, kInLibc, -1, 0, {7}, false},
        {"a read in the C library", true, false, kInLibc, kRead, 0, {7}, false},
        {"a sleep in the C library", true, false, kInLibc, kNanosleep, 0, {7}, false},
        {"malloc asks for memory", false, false, kInLibc, kMmap, 0, {7}, false},
        {"a wait for one of the C library's locks", false, false, kInLibc, kFutex, kWait, {7}, false},
        {"a wait for a condition", true, false, kInLibc, kFutex, kWaitBitset, {7}, false},
        {"a wait for a condition, until a date", true, false, kInLibc, kFutex, kWaitBitsetReal, {7}, false},
        {"the loader", false, false, kInLoader, -1, 0, {7}, false},
        {"the loader reads a library", false, false, kInLoader, kRead, 0, {7}, false},
        {"a clock is read", false, false, kInVdso, -1, 0, {7}, false},
        {"a handler, whose thread was anywhere before", false, false, kInProgram, -1, 0, {7, 8, kSignalReturn}, false},
        {"a restartable sequence", false, false, kInProgram, -1, 0, {7}, true},
        {"32 bit: a poll, called from the C library", true, true, kInVdso, kPoll32, 0, {1, 2, 3, kInLibc}, false},
        {"32 bit: a poll, called from the loader", false, true, kInVdso, kPoll32, 0, {1, 2, 3, kInLoader}, false},
        {"32 bit: a number that is a wait only in 64 bit", false, true, kInLibc, kNanosleep, 0, {7}, false},
    };
    for (const Row& row : rows) {
        StoppedThread thread;
        thread.is32Bit = row.is32Bit;
        thread.instruction = row.instruction;
        thread.systemCall = row.systemCall;
        thread.secondArgument = row.secondArgument;
        thread.stack = row.stack;
        thread.signalReturns = std::span(&kSignalReturn, 1);
        thread.inRestartableSequence = row.inSequence;
        const char* why = whyUnsafe(thread, ownerOf);
        EXPECT_EQ(why == nullptr, row.safe) << row.what << ": " << (why ? why : "safe");
    }
}

} // namespace
} // namespace vnt
