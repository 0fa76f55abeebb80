"""Messages of the formats that are protocol buffers, by the field numbers that their projects publish."""

from google.protobuf import descriptor_pb2, descriptor_pool, message_factory

PPROF = """
ValueType: type=1 int64, unit=2 int64
Sample: location_id*=1 uint64, value*=2 int64, label*=3 Label
Label: key=1 int64, str=2 int64, num=3 int64, num_unit=4 int64
Mapping: id=1 uint64, memory_start=2 uint64, memory_limit=3 uint64, file_offset=4 uint64, filename=5 int64, build_id=6 int64, has_functions=7 bool, has_filenames=8 bool, has_line_numbers=9 bool, has_inline_frames=10 bool
Line: function_id=1 uint64, line=2 int64, column=3 int64
Location: id=1 uint64, mapping_id=2 uint64, address=3 uint64, line*=4 Line, is_folded=5 bool
Function: id=1 uint64, name=2 int64, system_name=3 int64, filename=4 int64, start_line=5 int64
Profile: sample_type*=1 ValueType, sample*=2 Sample, mapping*=3 Mapping, location*=4 Location, function*=5 Function, string_table*=6 string, drop_frames=7 int64, keep_frames=8 int64, time_nanos=9 int64, duration_nanos=10 int64, period_type=11 ValueType, period=12 int64, comment*=13 int64, default_sample_type=14 int64
"""

PERFETTO = """
Clock: clock_id=1 uint32, timestamp=2 uint64
ClockSnapshot: clocks*=1 Clock, primary_trace_clock=2 uint32
ProcessDescriptor: pid=1 int32, cmdline*=2 string, process_name=6 string
ThreadDescriptor: pid=1 int32, tid=2 int32, thread_name=5 string
CounterDescriptor: unit=3 uint32, unit_name=6 string, unit_multiplier=4 int64
TrackDescriptor: uuid=1 uint64, name=2 string, process=3 ProcessDescriptor, thread=4 ThreadDescriptor, parent_uuid=5 uint64, counter=8 CounterDescriptor, sibling_merge_behavior=15 uint32
DebugAnnotation: name_iid=1 uint64, name=10 string, bool_value=2 bool, uint_value=3 uint64, int_value=4 int64, double_value=5 double, string_value=6 string, pointer_value=7 uint64
TrackEvent: type=9 uint32, track_uuid=11 uint64, category_iids*=3 uint64, name_iid=10 uint64, counter_value=30 int64, double_counter_value=44 double, debug_annotations*=4 DebugAnnotation, callstack_iid=56 uint64, callstack_weight=57 double
Named: iid=1 uint64, name=2 string
Bytes: iid=1 uint64, str=2 bytes
IMapping: iid=1 uint64, build_id=2 uint64, start_offset=3 uint64, start=4 uint64, end=5 uint64, load_bias=6 uint64, path_string_ids*=7 uint64, exact_offset=8 uint64
Frame: iid=1 uint64, function_name_id=2 uint64, mapping_id=3 uint64, rel_pc=4 uint64, source_path_iid=5 uint64, line_number=6 uint32, kind=7 uint32
Callstack: iid=1 uint64, frame_ids*=2 uint64
TaskContext: iid=1 uint64, pid=2 uint32, tid=3 uint32
ExecutionContext: iid=1 uint64, cpu=2 uint32, mode=3 uint32
InternedData: event_categories*=1 Named, event_names*=2 Named, debug_annotation_names*=3 Named, function_names*=5 Named, frames*=6 Frame, callstacks*=7 Callstack, build_ids*=16 Bytes, mapping_paths*=17 Named, source_paths*=18 Named, mappings*=19 IMapping, stack_sample_task_contexts*=48 TaskContext, stack_sample_execution_contexts*=49 ExecutionContext
CounterUnit: iid=1 uint64, name=2 string, unit=3 uint32
StackSampleDefaults: source=1 string, primary_descriptor=2 CounterUnit
Timebase: frequency=2 uint64
PerfSampleDefaults: timebase=1 Timebase
Defaults: timestamp_clock_id=58 uint32, perf_sample_defaults=12 PerfSampleDefaults, stack_sample_defaults=100 StackSampleDefaults
StackSample: task_context_iid=2 uint64, execution_context_iid=4 uint64, callstack_iid=6 uint64, primary_weight=11 uint64
PerfSample: cpu=1 uint32, pid=2 uint32, tid=3 uint32, callstack_iid=4 uint64, cpu_mode=5 uint32, timebase_count=6 uint64
HeapSample: callstack_id=1 uint64, self_allocated=2 uint64, self_freed=3 uint64, alloc_count=5 uint64, free_count=6 uint64
HeapDump: pid=1 uint64, samples*=2 HeapSample, from_startup=3 bool, timestamp=9 uint64, heap_name=11 string, sampling_interval_bytes=12 uint64
ProfilePacket: process_dumps*=5 HeapDump, continued=6 bool, index=7 uint64
TaskState: cpu=1 int32, comm=2 string, tid=3 int64, state=4 uint32, prio=5 int32
Attribute: key=1 string, long_value=2 int64, string_value=3 string
TraceAttributes: attribute*=1 Attribute
TracePacket: timestamp=8 uint64, timestamp_clock_id=58 uint32, trusted_packet_sequence_id=10 uint32, sequence_flags=13 uint32, interned_data=12 InternedData, trace_packet_defaults=59 Defaults, clock_snapshot=6 ClockSnapshot, track_event=11 TrackEvent, track_descriptor=60 TrackDescriptor, stack_sample=135 StackSample, generic_kernel_task_state_event=117 TaskState, perf_sample=66 PerfSample, profile_packet=37 ProfilePacket, trace_attributes=126 TraceAttributes
"""

# proto2, as these are in the originals, so that presence is told; lists of numbers are packed where the original's are.
UNPACKED = {"frame_ids", "path_string_ids", "category_iids"}


def messages(text, package):
    """Message classes by name, made from lines of "Message: field[*]=number type, ..."."""
    pool = descriptor_pool.DescriptorPool()
    file = descriptor_pb2.FileDescriptorProto(name=package + ".proto", package=package, syntax="proto2")
    names = []
    Field = descriptor_pb2.FieldDescriptorProto
    for line in text.strip().splitlines():
        name, fields = line.split(":", 1)
        names.append(name)
        message = file.message_type.add(name=name)
        for item in fields.split(","):
            left, kind = item.strip().rsplit(" ", 1)
            key, number = left.split("=")
            repeated = key.endswith("*")
            field = message.field.add(name=key.rstrip("*"), number=int(number),
                                      label=Field.LABEL_REPEATED if repeated else Field.LABEL_OPTIONAL)
            scalar = getattr(Field, "TYPE_" + kind.upper(), None) if kind[0].islower() else None
            if scalar is None:
                field.type = Field.TYPE_MESSAGE
                field.type_name = "." + package + "." + kind
            else:
                field.type = scalar
                if repeated and kind != "string" and field.name not in UNPACKED:
                    field.options.packed = True
    pool.Add(file)
    factory = message_factory.MessageFactory(pool)
    return {name: factory.GetPrototype(pool.FindMessageTypeByName(package + "." + name)) for name in names}


def unknown_fields(message, path=""):
    """Where fields stand that the schema lacks: writers invent none. Empty when all is known."""
    found = [path or message.DESCRIPTOR.name] if len(message.UnknownFields()) else []
    for field, value in message.ListFields():
        if field.type != field.TYPE_MESSAGE:
            continue
        for part in value if field.label == field.LABEL_REPEATED else [value]:
            found += unknown_fields(part, path + "." + field.name)
    return found
