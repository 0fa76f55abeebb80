#include "collectors/unwind/StackUnwinder.h"

#include <execinfo.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstring>
#include <functional>

namespace vnt {
namespace {

/// What a sample of the calling thread would bring, taken where capture() is called from, and what the C library's own
/// unwinder says of the same stack.
struct Captured {
    StackUnwinder::Sample sample;
    std::vector<std::byte> stack;
    std::vector<uint64_t> chain;
    std::vector<uint64_t> truth;
};

/// Registers in DWARF's order from a context (sys/ucontext.h).
void setRegisters(FrameRegisters& registers, const ucontext_t& context)
{
    static constexpr int kInOrder[] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI, REG_RBP, REG_RSP, REG_R8,
                                       REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
    for (size_t i = 0; i < FrameRegisters::kCount; ++i)
        registers.set(i, static_cast<uint64_t>(context.uc_mcontext.gregs[kInOrder[i]]));
}

uint64_t endOfStack()
{
    pthread_attr_t attributes;
    void* address = nullptr;
    size_t size = 0;
    ::pthread_getattr_np(::pthread_self(), &attributes);
    ::pthread_attr_getstack(&attributes, &address, &size);
    ::pthread_attr_destroy(&attributes);
    return reinterpret_cast<uint64_t>(address) + size;
}

Captured captured;

// The stack is copied from the frame that is captured, whose caller goes on changing nothing.
__attribute__((noinline, no_sanitize("address"))) void copyStack(const ucontext_t& context, uint64_t end)
{
    captured.sample.pid = ::getpid();
    setRegisters(captured.sample.registers, context);
    const uint64_t low = *captured.sample.registers.get(7);
    captured.stack.resize(end - low);
    const auto* from = reinterpret_cast<const volatile std::byte*>(low);
    for (size_t i = 0; i < captured.stack.size(); ++i)
        captured.stack[i] = from[i];
    captured.sample.stack = captured.stack;
}

__attribute__((noinline)) void capture()
{
    captured = Captured();
    void* addresses[200];
    const int count = ::backtrace(addresses, 200);
    ucontext_t context;
    ::getcontext(&context);
    copyStack(context, endOfStack());
    // A sanitizer's own backtrace stands before this function's frame.
    int first = 0;
    while (first + 1 < count && addresses[first + 1] != __builtin_return_address(0))
        ++first;
    for (int i = first; i < count; ++i)
        captured.truth.push_back(reinterpret_cast<uint64_t>(addresses[i]));
}

/// By frame pointers, as the kernel does.
__attribute__((no_sanitize("address"))) void followChain()
{
    const uint64_t low = *captured.sample.registers.get(7);
    uint64_t frame = *captured.sample.registers.get(6);
    captured.chain = {*captured.sample.registers.get(16)};
    while (frame >= low && frame + 16 <= low + captured.stack.size() && captured.chain.size() < 127) {
        uint64_t words[2];
        std::memcpy(words, captured.stack.data() + (frame - low), sizeof words);
        captured.chain.push_back(words[1]);
        frame = words[0];
    }
    captured.sample.chain = captured.chain;
}

__attribute__((noinline)) void deeper(int depth)
{
    if (depth > 0)
        deeper(depth - 1);
    else
        capture();
    asm volatile("");
}

__attribute__((noinline, optimize("omit-frame-pointer"))) void deeperFrameless(int depth)
{
    if (depth > 0)
        deeperFrameless(depth - 1);
    else
        capture();
    asm volatile("");
}

int compare(const void*, const void*)
{
    deeperFrameless(20);
    return 0;
}

void onSignal(int)
{
    deeper(5);
    asm volatile("");
}

/// On a stack of its own, whose outermost frames are the C library's start of a thread.
void runInThread(void* (*body)(void*))
{
    pthread_t thread;
    ASSERT_EQ(::pthread_create(&thread, nullptr, body, nullptr), 0);
    ::pthread_join(thread, nullptr);
}

/// The innermost frame is captured at another instruction than backtrace's, and an interrupted address is shown as one
/// behind it.
void expectTruth(const std::vector<uint64_t>& frames, size_t interrupted = SIZE_MAX)
{
    ASSERT_EQ(frames.size(), captured.truth.size());
    for (size_t i = 1; i < frames.size(); ++i)
        EXPECT_EQ(frames[i], captured.truth[i] + (i == interrupted ? 1 : 0)) << "frame " << i;
}

TEST(StackUnwinder, FindsWhatTheCLibraryFinds)
{
    StackUnwinder unwinder;
    struct {
        const char* what;
        std::function<void()> run;
    } const rows[] = {
        {"frame pointers", [] { deeper(20); }},
        {"no frame pointers", [] { deeperFrameless(20); }},
        {"below the C library's qsort",
         [] {
             int pair[2] = {2, 1};
             std::qsort(pair, 2, sizeof *pair, compare);
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        row.run();
        std::vector<uint64_t> frames;
        const auto outcome = unwinder.unwind(captured.sample, frames);
        EXPECT_EQ(outcome.end, StackUnwinder::End::kOutermost);
        EXPECT_GT(outcome.neededBytes, 0u);
        EXPECT_LE(outcome.neededBytes, captured.stack.size());
        expectTruth(frames);
    }
    EXPECT_GT(unwinder.modules().heldBytes(), 0u);
}

TEST(StackUnwinder, PassesASignalHandler)
{
    struct sigaction action { };
    struct sigaction before { };
    action.sa_handler = onSignal;
    ::sigaction(SIGUSR1, &action, &before);
    ::raise(SIGUSR1);
    ::sigaction(SIGUSR1, &before, nullptr);
    StackUnwinder unwinder;
    std::vector<uint64_t> frames;
    EXPECT_EQ(unwinder.unwind(captured.sample, frames).end, StackUnwinder::End::kOutermost);
    // capture, six times deeper, onSignal and where a handler returns to; then the place that was interrupted.
    expectTruth(frames, 9);
}

TEST(StackUnwinder, AThreadEndsWhereItBegan)
{
    StackUnwinder unwinder;
    std::vector<uint64_t> frames;
    runInThread([](void*) -> void* {
        deeperFrameless(3);
        return nullptr;
    });
    EXPECT_EQ(unwinder.unwind(captured.sample, frames).end, StackUnwinder::End::kOutermost);
    expectTruth(frames);
}

TEST(StackUnwinder, AShortDumpIsContinuedByTheChainWhereFramePointersAreKept)
{
    StackUnwinder unwinder;
    runInThread([](void*) -> void* {
        deeper(30);
        return nullptr;
    });
    followChain();
    std::vector<uint64_t> whole;
    const auto full = unwinder.unwind(captured.sample, whole);
    ASSERT_EQ(full.end, StackUnwinder::End::kOutermost);

    captured.sample.stack = std::span(captured.stack).first(512);
    std::vector<uint64_t> frames;
    const auto outcome = unwinder.unwind(captured.sample, frames);
#ifndef __SANITIZE_ADDRESS__ // its frames are larger than the dump
    EXPECT_EQ(outcome.end, StackUnwinder::End::kOutermost);
    EXPECT_EQ(frames, whole);
#else
    EXPECT_TRUE(outcome.end == StackUnwinder::End::kOutermost || outcome.end == StackUnwinder::End::kStackMissing);
#endif

    captured.sample.chain = {};
    frames.clear();
    EXPECT_EQ(unwinder.unwind(captured.sample, frames).end, StackUnwinder::End::kStackMissing);
    EXPECT_LT(frames.size(), whole.size());
}

TEST(StackUnwinder, AShortDumpWithoutFramePointersIsCut)
{
    StackUnwinder unwinder;
    deeperFrameless(60);
    followChain();
    std::vector<uint64_t> whole, frames;
    const auto full = unwinder.unwind(captured.sample, whole);
    EXPECT_EQ(full.end, StackUnwinder::End::kOutermost);
    EXPECT_GT(full.neededBytes, 61u * 16) << "each of the frames takes some";
    captured.sample.stack = std::span(captured.stack).first(512);
    EXPECT_EQ(unwinder.unwind(captured.sample, frames).end, StackUnwinder::End::kStackMissing);
    ASSERT_LT(frames.size(), whole.size());
    EXPECT_TRUE(std::equal(frames.begin(), frames.end(), whole.begin())) << "what is there is right";

    // As much as was said to be needed does.
    frames.clear();
    captured.sample.stack = std::span(captured.stack).first((full.neededBytes + 7) / 8 * 8);
    EXPECT_EQ(unwinder.unwind(captured.sample, frames).end, StackUnwinder::End::kOutermost);
    EXPECT_EQ(frames, whole);

    frames.clear();
    captured.sample.maxFrames = 10;
    EXPECT_EQ(unwinder.unwind(captured.sample, frames).end, StackUnwinder::End::kTooDeep);
    EXPECT_EQ(frames.size(), 10u);
}

TEST(StackUnwinder, GarbageEndsAStack)
{
    StackUnwinder unwinder;
    deeper(3);
    const uint64_t low = *captured.sample.registers.get(7);
    struct {
        const char* what;
        std::function<void(StackUnwinder::Sample&)> spoil;
    } const rows[] = {
        {"no registers", [](auto& sample) { sample.registers.known = 0; }},
        {"no stack", [](auto& sample) { sample.stack = {}; }},
        {"code nowhere, nothing on the stack",
         [](auto& sample) {
             sample.registers.set(16, 1);
             sample.stack = {};
         }},
        {"stack pointer at the end of memory", [](auto& sample) { sample.registers.set(7, UINT64_MAX - 3); }},
        {"frame pointer below", [low](auto& sample) { sample.registers.set(6, low - 64); }},
        {"frame pointer at the end of memory", [](auto& sample) { sample.registers.set(6, UINT64_MAX); }},
        {"another process's", [](auto& sample) { sample.pid = 1 << 30; }},
        {"32-bit code", [](auto& sample) { sample.is64Bit = false; }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        StackUnwinder::Sample sample = captured.sample;
        row.spoil(sample);
        std::vector<uint64_t> frames;
        EXPECT_NE(unwinder.unwind(sample, frames).end, StackUnwinder::End::kTooDeep);
        EXPECT_LE(frames.size(), captured.truth.size());
    }
    // Return addresses that are none.
    std::vector<std::byte> zeros(captured.stack.size(), std::byte{0x41});
    captured.sample.stack = zeros;
    std::vector<uint64_t> frames;
    EXPECT_EQ(unwinder.unwind(captured.sample, frames).end, StackUnwinder::End::kBroken);
    EXPECT_EQ(frames.size(), 1u);
}

} // namespace
} // namespace vnt
