#include "fuzz/fuzz.h"
#include "records/CensusRecordReader.h"
#include "records/HeapRecordReader.h"
#include "records/OrphanRecordReader.h"
#include "records/StackRecordReader.h"
#include "records/TraceRecordReader.h"

namespace {

/// Looks at every stack, as a report does.
class Stacks final : public vnt::stacks::StackRecordHandler {
public:
    explicit Stacks(const vnt::stacks::StackRecordReader& reader) : _reader(reader) { }
    void onSample(const vnt::stacks::SampleRecord& sample) override
    {
        vnt::fuzz::require(sample.thread != nullptr);
        (void)_reader.frames(sample.stack, _frames);
        vnt::fuzz::require(_frames.size() <= vnt::stacks::kMaxDepth);
    }

private:
    const vnt::stacks::StackRecordReader& _reader;
    std::vector<uint64_t> _frames;
};

/// Looks up what an event refers to, as a report does.
class Events final : public vnt::trace::TraceRecordHandler {
public:
    void onGeneration(const std::shared_ptr<const vnt::trace::Definitions>& definitions) override
    {
        _definitions = definitions;
    }
    void onEvent(const vnt::trace::EventRecord& event) override
    {
        vnt::fuzz::require(event.type < _definitions->typeCount());
        (void)_definitions->type(event.type);
        (void)_definitions->thread(event.thread).name.size();
        (void)_definitions->frames(event.stack, _frames);
    }

private:
    std::shared_ptr<const vnt::trace::Definitions> _definitions;
    std::vector<uint64_t> _frames;
};

class Heap final : public vnt::heap::HeapRecordHandler {
public:
    explicit Heap(const vnt::heap::HeapRecordReader& reader) : _reader(reader) { }
    void onAllocate(const vnt::heap::AllocateRecord& allocation) override
    {
        vnt::fuzz::require(allocation.stack == 0
                           || (allocation.stack <= _reader.nodeCount() && _reader.node(allocation.stack).known));
    }

private:
    const vnt::heap::HeapRecordReader& _reader;
};

class Leaks final : public vnt::orphans::OrphanRecordHandler {
public:
    explicit Leaks(const vnt::orphans::OrphanRecordReader& reader) : _reader(reader) { }
    void onSearch(uint64_t, const vnt::orphans::SearchRecord&) override { _told = 0; }
    void onLeak(const vnt::orphans::LeakRecord& leak) override
    {
        vnt::fuzz::require(leak.holder <= _told++);
        vnt::fuzz::require(leak.stack == 0 || (leak.stack <= _reader.nodeCount() && _reader.node(leak.stack).known));
    }

private:
    const vnt::orphans::OrphanRecordReader& _reader;
    uint64_t _told = 0;
};

} // namespace

/// The same message twice: tables of the first reading meet the second.
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vnt;
    const auto bytes = fuzz::bytesOf(data, size);
    stacks::StackRecordReader stackReader;
    Stacks stacks(stackReader);
    census::CensusRecordReader censusReader;
    census::CensusRecordHandler census;
    trace::TraceRecordReader traceReader;
    Events events;
    heap::HeapRecordReader heapReader;
    Heap heap(heapReader);
    orphans::OrphanRecordReader leakReader;
    Leaks leaks(leakReader);
    for (int i = 0; i < 2; ++i) {
        (void)traceReader.read(bytes, events);
        (void)heapReader.read(bytes, heap);
        (void)leakReader.read(bytes, leaks);
        (void)stackReader.read(bytes, stacks);
        (void)censusReader.read(bytes, census);
    }
    return 0;
}
