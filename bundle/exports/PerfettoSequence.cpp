#include "bundle/exports/PerfettoSequence.h"

#include <algorithm>

namespace vnt {

using protozero::pbf_writer;
namespace packet = perfetto::packet;
namespace interned = perfetto::interned;

namespace {

// Bits of TracePacket::sequence_flags.
constexpr uint32_t kIncrementalStateCleared = 1;
constexpr uint32_t kNeedsIncrementalState = 2;
// Frame::kind.
constexpr uint32_t kNativeFrame = 1;
constexpr uint32_t kKernelFrame = 2;

std::string bytesOfHex(std::string_view hex)
{
    std::string bytes;
    const auto digit = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<char>(digit(hex[i]) << 4 | digit(hex[i + 1])));
    return bytes;
}

} // namespace

PerfettoSequence::PerfettoSequence(uint32_t id, ExportSource& source, OutputSink& out, std::string defaults)
    : _id(id),
      _source(source),
      _out(out)
{
    pbf_writer writer(_defaults);
    writer.add_uint32(packet::kClockId, perfetto::kMonotonicClock);
    _defaults += defaults;
}

/// Marks `number` as defined; false when it was before.
bool PerfettoSequence::isNew(Sent& sent, uint64_t number)
{
    if (number >= sent.size())
        sent.resize(std::max<size_t>(number + 1, sent.size() * 2));
    if (sent[number])
        return false;
    sent[number] = true;
    return true;
}

uint64_t PerfettoSequence::text(uint32_t field, Sent& sent, uint32_t text)
{
    const uint64_t iid = uint64_t{text} + 1;
    if (isNew(sent, iid)) {
        pbf_writer definitions(_definitions);
        pbf_writer message(definitions, field);
        message.add_uint64(1, iid);
        message.add_string(2, _source.stacks().text(text));
    }
    return iid;
}

uint64_t PerfettoSequence::eventName(std::string_view name)
{
    return text(interned::kEventNames, _eventNames, _source.stacks().strings().add(name));
}

uint64_t PerfettoSequence::category(std::string_view name)
{
    return text(interned::kCategories, _categories, _source.stacks().strings().add(name));
}

uint64_t PerfettoSequence::annotationName(std::string_view name)
{
    return text(interned::kAnnotationNames, _annotationNames, _source.stacks().strings().add(name));
}

uint64_t PerfettoSequence::taskContext(uint32_t thread)
{
    const uint64_t iid = uint64_t{thread} + 1;
    if (isNew(_threads, iid)) {
        const ExportThread& known = _source.threads().threads()[thread];
        pbf_writer definitions(_definitions);
        pbf_writer message(definitions, interned::kTaskContexts);
        message.add_uint64(1, iid);
        message.add_uint32(2, known.pid);
        message.add_uint32(3, known.tid);
    }
    return iid;
}

uint64_t PerfettoSequence::executionContext(bool isKernel)
{
    const uint64_t iid = isKernel ? 2 : 1; // also the values of ExecutionContext::mode
    if (isNew(_modes, iid)) {
        pbf_writer definitions(_definitions);
        pbf_writer message(definitions, interned::kExecutionContexts);
        message.add_uint64(1, iid);
        message.add_uint64(3, iid);
    }
    return iid;
}

uint64_t PerfettoSequence::mapping(uint32_t module)
{
    const uint64_t iid = uint64_t{module} + 1;
    if (!isNew(_modules, iid))
        return iid;
    const ExportModule& known = _source.stacks().modules()[module];
    // Of this name and without addresses it is taken for the kernel.
    const uint32_t pathText = known.isKernel ? _source.stacks().strings().add("kernel") : known.path;
    const uint64_t path = text(interned::kMappingPaths, _mappingPaths, pathText);
    pbf_writer definitions(_definitions);
    if (!known.buildId.empty()) {
        pbf_writer buildId(definitions, interned::kBuildIds);
        buildId.add_uint64(1, iid);
        buildId.add_bytes(2, bytesOfHex(known.buildId));
    }
    pbf_writer message(definitions, interned::kMappings);
    message.add_uint64(1, iid);
    if (!known.buildId.empty())
        message.add_uint64(2, iid);
    if (!known.isKernel) {
        message.add_uint64(3, known.fileOffset);
        message.add_uint64(4, known.start);
        message.add_uint64(5, known.start + known.sizeBytes);
        message.add_uint64(6, static_cast<uint64_t>(std::max<int64_t>(known.loadBias, 0)));
        message.add_uint64(8, known.fileOffset);
    }
    message.add_uint64(7, path);
    return iid;
}

uint64_t PerfettoSequence::frame(const ExportLocation& location, uint32_t number)
{
    const uint64_t iid = uint64_t{number} + 1;
    if (!isNew(_frames, iid))
        return iid;
    const StackTable& table = _source.stacks();
    const ExportLine& line = table.line(number);
    const uint64_t name = text(interned::kFunctionNames, _functionNames, table.functions()[line.function].name);
    const uint64_t module = location.module == kNoModule ? 0 : mapping(location.module);
    const uint64_t file = line.file == 0 ? 0 : text(interned::kSourcePaths, _sourcePaths, line.file);
    pbf_writer definitions(_definitions);
    pbf_writer message(definitions, interned::kFrames);
    message.add_uint64(1, iid);
    message.add_uint64(2, name);
    if (module != 0) {
        message.add_uint64(3, module);
        message.add_uint64(4, location.address);
    }
    if (file != 0)
        message.add_uint64(5, file);
    if (line.line != 0)
        message.add_uint32(6, line.line);
    message.add_uint32(7, location.isKernel ? kKernelFrame : kNativeFrame);
    return iid;
}

uint64_t PerfettoSequence::callstack(uint32_t stack)
{
    if (!isNew(_stacks, stack))
        return stack;
    const StackTable& table = _source.stacks();
    table.pathOf(stack, _path);
    std::vector<uint64_t> frames;
    for (const uint32_t number : _path) {
        const ExportLocation& location = table.locations()[number];
        for (uint32_t i = location.lineCount; i-- > 0;)
            frames.push_back(frame(location, location.firstLine + i));
    }
    pbf_writer definitions(_definitions);
    pbf_writer message(definitions, interned::kCallstacks);
    message.add_uint64(1, stack);
    for (const uint64_t iid : frames)
        message.add_uint64(2, iid);
    return stack;
}

void PerfettoSequence::write(uint64_t timeNs, uint32_t field, const std::string& message)
{
    _packet.clear();
    {
        pbf_writer trace(_packet);
        pbf_writer one(trace, 1);
        one.add_uint64(packet::kTimestamp, timeNs);
        one.add_uint32(packet::kSequenceId, _id);
        one.add_uint32(packet::kSequenceFlags, kNeedsIncrementalState | (_hasBegun ? 0 : kIncrementalStateCleared));
        if (!_hasBegun)
            one.add_message(packet::kDefaults, _defaults);
        if (!_definitions.empty())
            one.add_message(packet::kInternedData, _definitions);
        one.add_message(field, message);
    }
    _hasBegun = true;
    _definitions.clear();
    _out.write(_packet);
}

} // namespace vnt
