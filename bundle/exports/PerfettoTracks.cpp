#include "bundle/exports/PerfettoTracks.h"

#include "bundle/exports/utf8.h"

namespace vnt {

using protozero::pbf_writer;

namespace {

// Track numbers: what kind in the highest bits, then what tells tracks of the kind apart. None is 0.
constexpr uint64_t kProcessTrack = uint64_t{1} << 56;
constexpr uint64_t kThreadTrack = uint64_t{2} << 56;
constexpr uint64_t kCounterTrack = uint64_t{3} << 56;
constexpr uint64_t kPlainTrack = uint64_t{4} << 56;

constexpr uint32_t kIdleTrack = 255; ///< among the tracks of no process

// TrackDescriptor.
enum : uint32_t {
    kUuid = 1,
    kName = 2,
    kProcess = 3,
    kThread = 4,
    kParent = 5,
    kCounter = 8,
    kMergeBehavior = 15,
};
constexpr uint32_t kNeverMerge = 2;

// TrackEvent.
enum : uint32_t {
    kCategoryIids = 3,
    kAnnotations = 4,
    kType = 9,
    kNameIid = 10,
    kTrackUuid = 11,
    kCounterValue = 30,
    kDoubleCounterValue = 44,
    kCallstackIid = 56,
    kCallstackWeight = 57,
};

// DebugAnnotation.
enum : uint32_t {
    kAnnotationNameIid = 1,
    kUintValue = 3,
    kIntValue = 4,
    kStringValue = 6,
    kPointerValue = 7,
};

} // namespace

void PerfettoTracks::describe(const std::string& message)
{
    _sequence.write(_source.startNs(), perfetto::packet::kTrackDescriptor, message);
}

uint64_t PerfettoTracks::process(uint32_t pid, std::string_view name, std::string_view executable)
{
    const uint64_t uuid = kProcessTrack | pid;
    std::string valid = validUtf8(name);
    const auto [known, isNew] = _processes.try_emplace(pid);
    if (!isNew && known->second == valid)
        return uuid;
    std::string text;
    {
        pbf_writer track(text);
        track.add_uint64(kUuid, uuid);
        pbf_writer process(track, kProcess);
        process.add_int32(1, static_cast<int32_t>(pid));
        if (!executable.empty())
            process.add_string(2, validUtf8(executable));
        process.add_string(6, valid);
    }
    describe(text);
    known->second = std::move(valid);
    return uuid;
}

uint64_t PerfettoTracks::processNumber(uint32_t number)
{
    const ExportProcess& process = _source.threads().processes()[number];
    const auto known = _processes.find(process.pid);
    // The census knows names that are newer; the first one stays.
    if (known != _processes.end())
        return kProcessTrack | process.pid;
    return this->process(process.pid, process.name, process.executable);
}

uint64_t PerfettoTracks::thread(uint32_t number)
{
    const ExportThread& thread = _source.threads().threads()[number];
    // Each processor has an idle thread of this number.
    if (thread.tid == 0)
        return plain(0, kIdleTrack, thread.name);
    const uint64_t uuid = kThreadTrack | number;
    const auto [known, isNew] = _threads.try_emplace(number);
    if (!isNew && known->second == thread.name)
        return uuid;
    (void)processNumber(thread.process);
    std::string text;
    {
        pbf_writer track(text);
        track.add_uint64(kUuid, uuid);
        pbf_writer message(track, kThread);
        message.add_int32(1, static_cast<int32_t>(thread.pid));
        message.add_int32(2, static_cast<int32_t>(thread.tid));
        message.add_string(5, thread.name);
    }
    describe(text);
    known->second = thread.name;
    return uuid;
}

uint64_t PerfettoTracks::counter(uint32_t pid, uint32_t kind, std::string_view name, Unit unit)
{
    const uint64_t uuid = kCounterTrack | uint64_t{pid} << 8 | kind;
    if (!_others.insert(uuid).second)
        return uuid;
    std::string text;
    {
        pbf_writer track(text);
        track.add_uint64(kUuid, uuid);
        track.add_string(kName, validUtf8(name));
        if (pid != 0)
            track.add_uint64(kParent, kProcessTrack | pid);
        track.add_uint32(kMergeBehavior, kNeverMerge);
        pbf_writer message(track, kCounter);
        if (unit == Unit::kPercent)
            message.add_string(6, "%");
        else if (unit == Unit::kPerSecond)
            message.add_string(6, "1/s");
        else if (unit == Unit::kBytesPerSecond)
            message.add_string(6, "bytes/s");
        else
            message.add_uint32(3, static_cast<uint32_t>(unit));
    }
    describe(text);
    return uuid;
}

uint64_t PerfettoTracks::plain(uint32_t pid, uint32_t kind, std::string_view name)
{
    const uint64_t uuid = kPlainTrack | uint64_t{pid} << 8 | kind;
    if (!_others.insert(uuid).second)
        return uuid;
    std::string text;
    pbf_writer track(text);
    track.add_uint64(kUuid, uuid);
    track.add_string(kName, validUtf8(name));
    if (pid != 0)
        track.add_uint64(kParent, kProcessTrack | pid);
    track.add_uint32(kMergeBehavior, kNeverMerge);
    describe(text);
    return uuid;
}

PerfettoEvent::PerfettoEvent(PerfettoSequence& sequence, Type type, uint64_t track) : _sequence(sequence)
{
    _event.add_uint32(kType, type);
    _event.add_uint64(kTrackUuid, track);
}

PerfettoEvent& PerfettoEvent::name(std::string_view name, std::string_view category)
{
    _event.add_uint64(kNameIid, _sequence.eventName(name));
    _event.add_uint64(kCategoryIids, _sequence.category(category));
    return *this;
}

PerfettoEvent& PerfettoEvent::stack(uint32_t stack)
{
    if (stack != 0)
        _event.add_uint64(kCallstackIid, _sequence.callstack(stack));
    return *this;
}

PerfettoEvent& PerfettoEvent::weight(double weight)
{
    _event.add_double(kCallstackWeight, weight);
    return *this;
}

PerfettoEvent& PerfettoEvent::number(std::string_view name, uint64_t value)
{
    const uint64_t iid = _sequence.annotationName(name);
    pbf_writer annotation(_event, kAnnotations);
    annotation.add_uint64(kAnnotationNameIid, iid);
    annotation.add_uint64(kUintValue, value);
    return *this;
}

PerfettoEvent& PerfettoEvent::signedNumber(std::string_view name, int64_t value)
{
    const uint64_t iid = _sequence.annotationName(name);
    pbf_writer annotation(_event, kAnnotations);
    annotation.add_uint64(kAnnotationNameIid, iid);
    annotation.add_int64(kIntValue, value);
    return *this;
}

PerfettoEvent& PerfettoEvent::pointer(std::string_view name, uint64_t value)
{
    const uint64_t iid = _sequence.annotationName(name);
    pbf_writer annotation(_event, kAnnotations);
    annotation.add_uint64(kAnnotationNameIid, iid);
    annotation.add_uint64(kPointerValue, value);
    return *this;
}

PerfettoEvent& PerfettoEvent::text(std::string_view name, std::string_view value)
{
    const uint64_t iid = _sequence.annotationName(name);
    pbf_writer annotation(_event, kAnnotations);
    annotation.add_uint64(kAnnotationNameIid, iid);
    annotation.add_string(kStringValue, validUtf8(value));
    return *this;
}

PerfettoEvent& PerfettoEvent::value(int64_t value)
{
    _event.add_int64(kCounterValue, value);
    return *this;
}

PerfettoEvent& PerfettoEvent::value(double value)
{
    _event.add_double(kDoubleCounterValue, value);
    return *this;
}

void PerfettoEvent::write(uint64_t timeNs) { _sequence.write(timeNs, perfetto::packet::kTrackEvent, _text); }

} // namespace vnt
