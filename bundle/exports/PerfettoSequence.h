#pragma once

#include <protozero/pbf_writer.hpp>
#include <string>
#include <vector>

#include "bundle/exports/ExportSource.h"
#include "bundle/exports/OutputSink.h"

namespace vnt {

/// Field numbers of github.com/google/perfetto, protos/perfetto/trace.
namespace perfetto {

namespace packet { // TracePacket
enum : uint32_t {
    kClockSnapshot = 6,
    kTimestamp = 8,
    kSequenceId = 10,
    kTrackEvent = 11,
    kInternedData = 12,
    kSequenceFlags = 13,
    kProfilePacket = 37,
    kClockId = 58,
    kDefaults = 59,
    kTrackDescriptor = 60,
    kPerfSample = 66,
    kTaskState = 117,
    kTraceAttributes = 126,
    kStackSample = 135,
};
} // namespace packet

namespace interned { // InternedData
enum : uint32_t {
    kCategories = 1,
    kEventNames = 2,
    kAnnotationNames = 3,
    kFunctionNames = 5,
    kFrames = 6,
    kCallstacks = 7,
    kBuildIds = 16,
    kMappingPaths = 17,
    kSourcePaths = 18,
    kMappings = 19,
    kTaskContexts = 48,
    kExecutionContexts = 49,
};
} // namespace interned

inline constexpr uint32_t kMonotonicClock = 3; ///< builtin_clock.proto

} // namespace perfetto

/// One sequence of a Perfetto trace: packets that share what was interned. Numbers of interned things are those of the
/// source's tables, plus one where these begin at 0; each is defined in the packet that first uses it. One thread.
class PerfettoSequence {
public:
    /// `id`: unique in the trace, not 0. `defaults`: fields of TracePacketDefaults beside the clock, encoded. The
    /// references outlive this.
    PerfettoSequence(uint32_t id, ExportSource& source, OutputSink& out, std::string defaults = {});

    // Each answers the number that stands for the thing in the next packet.
    uint64_t callstack(uint32_t stack);
    uint64_t eventName(std::string_view text);
    uint64_t category(std::string_view text);
    uint64_t annotationName(std::string_view text);
    uint64_t taskContext(uint32_t thread);
    uint64_t executionContext(bool isKernel);

    /// Writes a packet with one encoded message in the field `field`.
    void write(uint64_t timeNs, uint32_t field, const std::string& message);

private:
    using Sent = std::vector<bool>;

    static bool isNew(Sent& sent, uint64_t number);
    uint64_t text(uint32_t field, Sent& sent, uint32_t text);
    uint64_t frame(const ExportLocation& location, uint32_t line);
    uint64_t mapping(uint32_t module);

    uint32_t _id;
    ExportSource& _source;
    OutputSink& _out;
    std::string _defaults;
    bool _hasBegun = false;
    std::string _definitions; ///< InternedData of the next packet
    std::string _packet;
    Sent _stacks;
    Sent _frames;
    Sent _modules;
    Sent _functionNames;
    Sent _mappingPaths;
    Sent _sourcePaths;
    Sent _eventNames;
    Sent _categories;
    Sent _annotationNames;
    Sent _threads;
    Sent _modes;
    std::vector<uint32_t> _path;
};

} // namespace vnt
