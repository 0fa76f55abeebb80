#pragma once

#include <string>

#include "bundle/Instruments.h"
#include "bundle/TestBundle.h"
#include "records/CensusRecordWriter.h"
#include "records/HeapRecordWriter.h"
#include "records/OrphanRecordWriter.h"
#include "records/TraceRecordWriter.h"

namespace vnt::test {

/// For tests: a bundle of all instruments whose every name is markup, a terminal's command, or far too long. Two
/// seconds of a program with two threads: the hot one works in the first second only, the other one waits.
class TestRecording {
public:
    static constexpr const char* kMarkup = "<img src=x onerror=alert(1)>";
    static constexpr const char* kScript = "</script><script>alert(2)</script>";
    static constexpr uint64_t kStart = 100 * kSecondNs; ///< as archiveOf() has it

    explicit TestRecording(std::string directory) : _directory(std::move(directory))
    {
        _module = _directory + "/prog<b>ram";
        writeText(_module,
                  testElf<Elf64>({{"main", kTextAddress, 0x100},
                                  {std::string("work") + kMarkup, kTextAddress + 0x100, 0x100},
                                  {std::string("leaf") + kScript + "\x1b[31m", kTextAddress + 0x200, 0x100},
                                  {"huge" + std::string(20'000, 'z'), kTextAddress + 0x300, 0x100}},
                                 "p"));
        VNT_CHECK(sys::makeDirectories(path(), 0700).ok());
        writeStacks();
        writeHeap();
        writeTrace();
        writeOrphans();
        writeCensus();
    }
    [[nodiscard]] std::string path() const { return _directory + "/evil<i>.vnt"; }

private:
    static uint64_t at(uint64_t ms) { return kStart + ms * 1'000'000; }
    static uint64_t code(uint64_t offset) { return kModuleStart + offset; }

    void write(std::string_view identifier, const StreamText& messages)
    {
        const auto process =
            processSignature(42, kMarkup, {image(kModuleStart, kTextSize, kTextOffset, _module, "70")});
        const auto signatures = signaturesOf({{42, process}, {0, kernelSignature()}});
        const std::string base = path() + "/" + std::string(identifier);
        writeText(base, archiveOf(signatures.get(), 42, messages.messages()));
        writeText(base + std::string(kMessageStreamSuffix), messages.text());
    }

    /// main > work > leaf: 600 samples in the first second; main > work: 200 in the second; main > huge: 100 in all.
    /// The second thread waits for one second and a half.
    void writeStacks()
    {
        using namespace stacks;
        StackRecordWriter writer(SessionRecord{1'000'000, 1 | SessionRecord::kBlockedThreads, 0});
        writer.addThread(0, {42, 42, 0, std::string("hot") + kMarkup});
        writer.addThread(1, {42, 43, 0, "waiter"});
        const uint32_t main = writer.addNode(0, 0, code(0x10));
        const uint32_t work = writer.addNode(main, code(0x10), code(0x110));
        const uint32_t leaf = writer.addNode(work, code(0x110), code(0x210));
        const uint32_t huge = writer.addNode(main, code(0x10), code(0x310));
        for (uint64_t i = 0; i < 600; ++i)
            writer.addSample(at(i), 0, leaf);
        for (uint64_t i = 0; i < 200; ++i)
            writer.addSample(at(1000 + i), 0, work);
        for (uint64_t i = 0; i < 100; ++i)
            writer.addSample(at(i * 20), 0, huge);
        writer.addBlocked(at(1700), 1, work, 1500 * uint64_t{1'000'000});
        writer.addLost(at(1900), LostCause::kRingFull, 7);
        writer.addCost(at(1900), 4'000'000);
        StreamText messages;
        messages.addFrom(writer);
        write(kStackSamplerId, messages);
    }

    /// 100 blocks of 1000 bytes, every fourth of which stays.
    void writeHeap()
    {
        using namespace heap;
        HeapRecordWriter writer(heap::SessionRecord{});
        writer.addTarget(at(1), {42, 0, kMarkup});
        const uint32_t main = writer.addNode(0, 0, code(0x11));
        const uint32_t work = writer.addNode(main, code(0x11), code(0x111));
        for (uint32_t i = 0; i < 100; ++i) {
            writer.addAllocate(at(10 + 10 * i), heap::Function::kMalloc, i, work, 1000, 0x1000 + 16 * i);
            if (i % 4 != 0)
                writer.addFree(at(15 + 10 * i), heap::Function::kMalloc, i);
        }
        StreamText messages;
        messages.add(writer.message());
        write(kHeapRecorderId, messages);
    }

    /// The first thread reads 50 times, 1 ms each, and is then off the processor until 1800 ms.
    void writeTrace()
    {
        using namespace trace;
        TraceRecordWriter writer(trace::SessionRecord{1, 42, 0, 64});
        writer.addThread(0, {42, 42, 0, std::string("hot") + kMarkup});
        writer.addThread(1, {0, 0, kOutsideTarget, "idle"});
        const uint32_t main = writer.addNode(0, 0, code(0x10));
        const TypeRecord types[] = {
            {EventKind::kCallEnter, 0, "raw_syscalls:sys_enter", kMarkup, TypeRecord::kStacks, {"fd", "buf"}},
            {EventKind::kCallExit, 0, "raw_syscalls:sys_exit", kMarkup, TypeRecord::kStacks, {"ret"}},
            {EventKind::kSwitch, 0, "sched:sched_switch", "", TypeRecord::kStacks, {"prev_state", "next_pid"}},
            {EventKind::kOther, 0, kScript, "", TypeRecord::kText, {"<u>"}},
        };
        for (const TypeRecord& type : types)
            writer.addType(type);
        const auto event = [&](uint64_t timeNs, uint32_t type, uint32_t thread, uint32_t stack,
                               std::vector<uint64_t> values, std::string_view text = {}) {
            writer.addEvent({timeNs, 0, type, thread, stack, values, text});
        };
        for (uint64_t i = 0; i < 50; ++i) {
            event(at(20 * i), 0, 0, main, {3, 0x7fff00001234});
            event(at(20 * i + 1), 1, 0, 0, {i == 7 ? static_cast<uint64_t>(-11) : 5}); // EAGAIN
        }
        event(at(1100), 2, 0, main, {1, 0});
        event(at(1200), 3, 0, 0, {1}, kMarkup);
        event(at(1800), 2, 1, 0, {0, 42});
        writer.addSettled(at(1900));
        StreamText messages;
        messages.add(writer.message());
        write(kKernelTracerId, messages);
    }

    /// A lost block of 100 bytes holds one of 50, which holds one of 7; another of 30 is alone.
    void writeOrphans()
    {
        using namespace orphans;
        OrphanRecordWriter writer;
        const uint32_t main = writer.addNode(0, 0, code(0x11));
        const uint32_t work = writer.addNode(main, code(0x11), code(0x111));
        SearchRecord search;
        search.number = 1;
        search.pid = 42;
        search.flags = SearchRecord::kHasStacks | SearchRecord::kHasContents;
        search.name = kMarkup;
        search.pauseNs = 2'000'000;
        search.blocks = 25;
        search.leaks = 4;
        search.leakedBytes = 187;
        writer.addSearch(at(1500), search);
        const struct {
            uint64_t size;
            uint32_t holder;
            Kind kind;
            const char* contents;
        } leaks[] = {{100, 0, Kind::kDirect, kScript},
                     {50, 1, Kind::kIndirect, ""},
                     {7, 2, Kind::kIndirect, kMarkup},
                     {30, 0, Kind::kCycle, ""}};
        uint64_t number = 0;
        for (const auto& leak : leaks) {
            ++number;
            writer.addLeak(
                {0x1000 * number, leak.size, leak.kind, true, leak.holder, at(10 * number), 0, work, leak.contents});
        }
        writer.addEnd({4, 0, 0});
        StreamText messages;
        messages.add(writer.message());
        write(kOrphanFinderId, messages);
    }

    /// One process at half a processor, another that ends by signal 9.
    void writeCensus()
    {
        using namespace census;
        CensusRecordWriter writer(census::SessionRecord{200'000'000, 0, 2, 8u << 20});
        const uint32_t first = writer.addProcess({42, 1, kStart, 0, 0, kMarkup, "/opt/<i>"});
        const uint32_t second = writer.addProcess({77, 42, kStart + 1, 0, 0, kScript, ""});
        Usage before{};
        for (uint64_t sweep = 0; sweep <= 10; ++sweep) {
            writer.addSweep(at(200 * sweep), {2, 100 * sweep, 400 * sweep, 4u << 20});
            Usage now = before;
            at(now, Field::kCpuNs) = static_cast<int64_t>(100'000'000 * sweep);
            at(now, Field::kResidentKiB) = static_cast<int64_t>(1024 + 100 * sweep);
            writer.addUsage(first, before, now);
            before = now;
        }
        writer.addEnded(at(1500), second, 9);
        StreamText messages;
        messages.add(writer.message());
        write(kProcessCensusId, messages);
    }
    static int64_t& at(census::Usage& usage, census::Field field) { return census::at(usage, field); }

    std::string _directory;
    std::string _module;
};

} // namespace vnt::test
