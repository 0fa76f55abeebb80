#include "tests/exports/SmallBundle.h"

#include <algorithm>
#include <functional>

#include "bundle/TestBundle.h"
#include "records/CensusRecordWriter.h"
#include "records/HeapRecordWriter.h"
#include "records/OrphanRecordWriter.h"
#include "records/TraceRecordWriter.h"

namespace vnt::test {

namespace {

constexpr uint64_t kStart = 100 * kSecondNs;
constexpr uint64_t kMs = 1'000'000;
constexpr uint64_t kMain = kModuleStart + 0x10;
constexpr uint64_t kMiddle = kModuleStart + 0x110;
constexpr uint64_t kLeaf = kModuleStart + 0x210;

/// main, main > NAME, and so on: nodes of a writer.
struct Nodes {
    template <typename Writer>
    explicit Nodes(Writer& writer)
        : main(writer.addNode(0, 0, kMain)),
          middle(writer.addNode(main, kMain, kMiddle)),
          leaf(writer.addNode(middle, kMiddle, kLeaf))
    {
    }
    uint32_t main;
    uint32_t middle;
    uint32_t leaf;
};

void add(StreamText& stream, auto& writer)
{
    stream.add(writer.message());
    writer.messageSent();
}

void addSamples(StreamText& stream, const SmallBundleOptions& options)
{
    stacks::StackRecordWriter writer(
        {kMs, stacks::SessionRecord::kUserStacks | stacks::SessionRecord::kBlockedThreads, 0});
    writer.addThread(0, {42, 42, 0, "program"});
    writer.addThread(1, {42, 43, 0, options.name.substr(0, stacks::kMaxNameBytes)});
    const Nodes nodes(writer);
    const uint32_t kernel = writer.addNode(nodes.middle, kMiddle, kKernelStart + 0x1010);
    const uint32_t nowhere = writer.addNode(0, 0, 0x1000);
    const uint32_t unnamed = writer.addNode(nodes.main, kMain, kModuleStart + 0xf00);
    const uint32_t cut = writer.addNode(writer.addCutNode(), 0, kLeaf);
    for (uint64_t i = 1; i <= 6; ++i)
        writer.addSample(kStart + 10 * i * kMs, 0, nodes.leaf);
    for (uint64_t i = 1; i <= 3; ++i)
        writer.addSample(kStart + (30 - i) * kMs, 1, nodes.middle); // not in the order of time
    add(stream, writer);
    writer.addSample(kStart + 40 * kMs, 1, kernel);
    writer.addBlocked(kStart + 50 * kMs, 1, nodes.middle, 5 * kMs + 300);
    for (const uint32_t stack : {nowhere, unnamed, cut, 0u})
        writer.addSample(kStart + 100 * kMs, 0, stack);
    writer.addLost(kStart + 50 * kMs, stacks::LostCause::kRingFull, 4);
    writer.addCost(kStart + 50 * kMs, 3 * kMs);
    add(stream, writer);
}

void addKernelEvents(StreamText& stream, const SmallBundleOptions& options)
{
    using trace::EventKind;
    trace::SessionRecord session;
    session.pid = 42;
    session.flags = trace::SessionRecord::kUserStacks;
    trace::TraceRecordWriter writer(session);
    writer.addThread(0, {42, 42, 0, "program"});
    writer.addThread(1, {42, 43, 0, options.name.substr(0, stacks::kMaxNameBytes)});
    writer.addThread(2, {7, 7, trace::kOutsideTarget, "other"});
    const Nodes nodes(writer);
    const auto type = [&](EventKind kind, const char* name, const char* label, std::vector<std::string> values,
                          uint32_t flags = 0) {
        return writer.addType({kind, 0, name, label, flags, std::move(values)});
    };
    const uint32_t enter = type(EventKind::kCallEnter, "sys_enter", "read", {"fd", "buf", "count"});
    const uint32_t exit = type(EventKind::kCallExit, "sys_exit", "read", {"ret"});
    const uint32_t interrupt =
        type(EventKind::kInterruptEnter, "irq:irq_handler_entry", "", {"irq"}, trace::TypeRecord::kText);
    const uint32_t interruptEnd = type(EventKind::kInterruptExit, "irq:irq_handler_exit", "", {"irq", "ret"});
    const uint32_t change = type(EventKind::kSwitch, "sched:sched_switch", "", {"state", "next"});
    const uint32_t wakeup = type(EventKind::kWakeup, "sched:sched_wakeup", "", {"tid", "cpu"});
    const uint32_t fault = type(EventKind::kPageFault, "exceptions:page_fault_user", "", {"address", "ip", "code"},
                                trace::TypeRecord::kAddresses | trace::TypeRecord::kStacks);
    const auto event = [&](uint64_t ms, uint32_t of, uint32_t thread, std::vector<uint64_t> values, uint32_t stack = 0,
                           std::string_view text = {}) {
        writer.addEvent({kStart + ms * kMs, 1, of, thread, stack, values, text});
    };
    event(1, exit, 0, {uint64_t(-4)}); // its begin was before the recording
    event(2, enter, 0, {3, 0x7f0000001000, 100});
    event(3, interrupt, 0, {14}, 0, "disk");
    event(4, interruptEnd, 0, {14, 1});
    event(5, exit, 0, {100});
    event(6, fault, 1, {0xffffffffff600000, kLeaf, 4}, nodes.leaf);
    event(7, change, 1, {1, 9});
    event(8, wakeup, 2, {43, 0});
    event(9, change, 2, {0, 43});
    event(10, enter, 1, {4, 0, 1}); // its end is not in the recording
    event(11, interrupt, 1, {14}, 0, "disk");
    event(12, exit, 1, {1});
    event(13, enter, 0, {5, 0, 1});
    writer.addLost(kStart + 13 * kMs, trace::LostCause::kRingFull, 2);
    add(stream, writer);
}

void addHeap(StreamText& stream, const SmallBundleOptions&)
{
    using heap::Function;
    heap::HeapRecordWriter writer({0, 0});
    writer.addTarget(kStart, {42, 0, "program"});
    const Nodes nodes(writer);
    for (uint32_t i = 0; i < 3; ++i)
        writer.addAllocate(kStart + (1 + i) * kMs, Function::kMalloc, i, nodes.main, 100, 0x5000 + 128 * i);
    writer.addFree(kStart + 5 * kMs, Function::kMalloc, 1);
    writer.addAllocate(kStart + 6 * kMs, Function::kOperator, 3, nodes.middle, 5000, 0x9000);
    writer.addFault(kStart + 7 * kMs, {heap::Fault::kSecondFree, 0x5080, 0, nodes.main, nodes.main, nodes.leaf});
    writer.addLost(kStart + 8 * kMs, heap::LostCause::kRingFull, 1);
    add(stream, writer);
}

void addLeaks(StreamText& stream, const SmallBundleOptions&)
{
    orphans::OrphanRecordWriter writer;
    const Nodes nodes(writer);
    orphans::SearchRecord search;
    search.number = 1;
    search.pid = 42;
    search.name = "program";
    search.leaks = 2;
    search.leakedBytes = 96;
    writer.addSearch(kStart + 20 * kMs, search);
    orphans::LeakRecord leak;
    leak.isNew = true;
    leak.address = 0x5000;
    leak.sizeBytes = 64;
    leak.timeNs = kStart + kMs;
    leak.stack = nodes.leaf;
    leak.contents = "ab\xff";
    writer.addLeak(leak);
    leak.address = 0x6000;
    leak.sizeBytes = 32;
    leak.kind = orphans::Kind::kCycle;
    leak.stack = 0;
    writer.addLeak(leak);
    writer.addEnd({2, 0, 0});
    add(stream, writer);
}

void addCensus(StreamText& stream, const SmallBundleOptions& options)
{
    using census::Field;
    census::CensusRecordWriter writer({100 * kMs, 0, 2, 1000});
    const uint32_t program = writer.addProcess({42, 1, kStart - kSecondNs, 1000, 0, "program", "/opt/program"});
    census::Usage first{};
    at(first, Field::kCpuNs) = 1000;
    at(first, Field::kResidentKiB) = 500;
    at(first, Field::kThreads) = 2;
    at(first, Field::kState) = 'S';
    writer.addSweep(kStart + kMs, {2, 1000, 4000, 800});
    writer.addUsage(program, {}, first);
    const uint32_t brief =
        writer.addProcess({77, 42, kStart + 50 * kMs, 1000, 0, options.name.substr(0, census::kMaxNameBytes), ""});
    writer.addStarted(kStart + 50 * kMs, brief);
    writer.addEnded(kStart + 60 * kMs, brief, 256);
    census::Usage second = first;
    at(second, Field::kCpuNs) += 50 * static_cast<int64_t>(kMs);
    at(second, Field::kResidentKiB) = 700;
    writer.addSweep(kStart + 101 * kMs, {2, 1050, 4200, 700});
    writer.addUsage(program, first, second);
    writer.addSweep(kStart + 201 * kMs, {2, 1050, 4400, 700});
    writer.addLost(kStart + 201 * kMs, census::LostCause::kUnread, 1);
    add(stream, writer);
}

} // namespace

void makeSmallBundle(const std::string& path, const SmallBundleOptions& options)
{
    VNT_CHECK(sys::makeDirectories(path, 0700).ok());
    const std::string module = path + ".program";
    writeText(module,
              testElf<Elf64>({{"main", kTextAddress, 0x100},
                              {options.name, kTextAddress + 0x100, 0x100},
                              {"leaf", kTextAddress + 0x200, 0x100}},
                             "p"));
    const auto signatures = signaturesOf(
        {{42, processSignature(42, "program", {image(kModuleStart, kTextSize, kTextOffset, module, "70")})},
         {0, kernelSignature()}});
    const std::pair<std::string_view, std::function<void(StreamText&, const SmallBundleOptions&)>> parts[] = {
        {kStackSamplerId, addSamples}, {kKernelTracerId, addKernelEvents}, {kHeapRecorderId, addHeap},
        {kOrphanFinderId, addLeaks},   {kProcessCensusId, addCensus},
    };
    for (const auto& [identifier, addRecords] : parts) {
        const auto& wanted = options.instruments;
        if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), identifier) == wanted.end())
            continue;
        StreamText stream;
        if (options.hasRecords)
            addRecords(stream, options);
        const std::string file = path + "/" + std::string(identifier);
        if (options.hasArchives)
            writeText(file, archiveOf(signatures.get(), 42, stream.messages()));
        writeText(file + std::string(kMessageStreamSuffix), stream.text());
    }
}

} // namespace vnt::test
