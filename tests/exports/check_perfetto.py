"""Checks a Perfetto trace packet by packet."""

from check_export import check
import schemas

# InternedData: field and what its numbers are called.
TABLES = ["event_categories", "event_names", "debug_annotation_names", "function_names", "frames", "callstacks",
          "build_ids", "mapping_paths", "source_paths", "mappings", "stack_sample_task_contexts",
          "stack_sample_execution_contexts"]
BEGIN, END, INSTANT, COUNTER = 1, 2, 3, 4
RUNNING = 3


def packets(data, packet_type):
    """The packets of a trace, each framed as a field 1 of Trace, to the exact end of the file."""
    at = 0
    while at < len(data):
        if not check(data[at] == 0x0a, "no packet at byte %d" % at):
            return
        at += 1
        length = shift = 0
        while True:
            if at >= len(data):
                check(False, "the file ends within a length")
                return
            byte = data[at]
            at += 1
            length |= (byte & 0x7f) << shift
            shift += 7
            if byte < 0x80:
                break
        if not check(at + length <= len(data), "the file ends within a packet"):
            return
        yield packet_type.FromString(data[at:at + length])
        at += length


class Sequence:
    def __init__(self):
        self.tables = {name: {} for name in TABLES}
        self.last = 0
        self.defaults = None

    def define(self, data):
        for name in TABLES:
            for item in getattr(data, name):
                check(item.iid != 0 and item.iid not in self.tables[name], "%s %d is 0 or defined twice" % (name, item.iid))
                self.tables[name][item.iid] = item
        for frame in data.frames:
            check(frame.function_name_id in self.tables["function_names"], "frame without a name")
            check(not frame.mapping_id or frame.mapping_id in self.tables["mappings"], "frame in a missing mapping")
            check(not frame.mapping_id or frame.HasField("rel_pc"), "frame with a mapping but no rel_pc")
            check(not frame.source_path_iid or frame.source_path_iid in self.tables["source_paths"], "missing path")
        for mapping in data.mappings:
            check(len(mapping.path_string_ids) == 1 and mapping.path_string_ids[0] in self.tables["mapping_paths"],
                  "mapping without a path")
            check(not mapping.build_id or mapping.build_id in self.tables["build_ids"], "missing build id")
        for stack in data.callstacks:
            check(len(stack.frame_ids) > 0, "empty callstack")
            check(all(frame in self.tables["frames"] for frame in stack.frame_ids), "callstack with a missing frame")

    def used(self, table, iid):
        if not check(iid in self.tables[table], "%s %d is not defined in its sequence" % (table, iid)):
            return None
        return self.tables[table][iid]

    def stack(self, iid):
        """Function names, outermost first."""
        stack = self.used("callstacks", iid)
        return ";".join(self.tables["function_names"][self.tables["frames"][frame].function_name_id].name
                        for frame in stack.frame_ids) if stack else ""


class Trace:
    def __init__(self):
        self.sequences, self.tracks, self.open, self.running = {}, {}, {}, {}
        self.samples, self.events, self.counters, self.states, self.heap, self.attributes = {}, {}, {}, {}, {}, {}
        self.units = {}
        self.heap_continues = False

    def descriptor(self, track):
        check(track.uuid != 0, "track 0")
        if track.parent_uuid:
            check(track.parent_uuid in self.tracks, "track with a missing parent")
        if track.HasField("thread"):
            check(track.thread.pid and track.thread.tid, "thread without its numbers")
        if not track.HasField("thread") and not track.HasField("process"):
            check(track.sibling_merge_behavior == 2, "tracks of one name are merged")
        old = self.tracks.get(track.uuid)
        check(old is None or [old.thread.tid, old.process.pid] == [track.thread.tid, track.process.pid],
              "a track's number stands for two")
        self.tracks[track.uuid] = track

    def event(self, sequence, packet):
        event = packet.track_event
        if not check(event.track_uuid in self.tracks, "event on a track that was not described"):
            return
        track = self.tracks[event.track_uuid]
        where = track.thread.thread_name or track.process.process_name or track.name
        for iid in event.category_iids:
            sequence.used("event_categories", iid)
        names = [sequence.used("debug_annotation_names", item.name_iid) for item in event.debug_annotations]
        arguments = {name.name: item for name, item in zip(names, event.debug_annotations) if name}
        if event.HasField("callstack_iid"):
            sequence.stack(event.callstack_iid)
        check(event.type == COUNTER or not track.HasField("counter"), "event on a counter's track")
        depth = self.open.setdefault(event.track_uuid, [])
        if event.type == COUNTER:
            check(track.HasField("counter"), "counter on a track without one")
            value = event.double_counter_value if event.HasField("double_counter_value") else event.counter_value
            self.counters.setdefault(track.name, []).append(value)
            return
        if event.type == END:
            if check(depth, "end without begin on " + where):
                begin, key = depth.pop()
                check(packet.timestamp >= begin, "span that ends before it begins")
                self.events[key]["ns"] = self.events[key].get("ns", 0) + packet.timestamp - begin
            return
        name = sequence.used("event_names", event.name_iid)
        name = name.name if name else ""
        key = "%s: %s" % (where, name)
        if event.type == BEGIN:
            depth.append((packet.timestamp, key))
        entry = self.events.setdefault(key, {"count": 0, "weight": 0, "lost": 0})
        entry["count"] += 1
        entry["weight"] += event.callstack_weight
        if "lost" in arguments:
            entry["lost"] += arguments["lost"].uint_value

    def sample(self, sequence, packet):
        sample = packet.stack_sample
        context = sequence.used("stack_sample_task_contexts", sample.task_context_iid)
        if sample.HasField("execution_context_iid"):
            sequence.used("stack_sample_execution_contexts", sample.execution_context_iid)
        check(sample.primary_weight > 0, "sample without a weight")
        source = sequence.defaults.stack_sample_defaults.source
        entry = self.samples.setdefault(source, {"count": 0, "weight": 0, "stacks": {}})
        entry["count"] += 1
        entry["weight"] += sample.primary_weight
        key = "%d %s" % (context.tid if context else 0, sequence.stack(sample.callstack_iid))
        entry["stacks"][key] = entry["stacks"].get(key, 0) + sample.primary_weight

    def perf_sample(self, sequence, packet):
        sample = packet.perf_sample
        entry = self.samples.setdefault("perf", {"count": 0, "stacks": {}})
        entry["count"] += 1
        check(sample.timebase_count == entry["count"], "the running count does not run")
        check(sample.cpu_mode in (1, 2), "no processor mode")
        key = "%d %s" % (sample.tid, sequence.stack(sample.callstack_iid))
        entry["stacks"][key] = entry["stacks"].get(key, 0) + 1

    def state(self, packet):
        event = packet.generic_kernel_task_state_event
        check(1 <= event.state <= 8, "no state of a thread")
        check(event.state != RUNNING or self.running.get(event.tid) != RUNNING, "thread running twice")
        self.running[event.tid] = event.state
        key = "%d" % event.state
        self.states[key] = self.states.get(key, 0) + 1

    def profile(self, sequence, packet):
        profile = packet.profile_packet
        check(profile.index == self.heap.get("packets", 0), "heap profile's index has a gap")
        self.heap["packets"] = profile.index + 1
        self.heap_continues = profile.continued
        for dump in profile.process_dumps:
            for sample in dump.samples:
                check(sample.self_freed <= sample.self_allocated and sample.free_count <= sample.alloc_count,
                      "more freed than allocated")
                key = sequence.stack(sample.callstack_id)
                old = self.heap.setdefault("stacks", {}).get(key, [0, 0, 0, 0])
                new = [sample.self_allocated, sample.self_freed, sample.alloc_count, sample.free_count]
                self.heap["stacks"][key] = [a + b for a, b in zip(old, new)]

    def packet(self, packet):
        number = packet.trusted_packet_sequence_id
        if not check(number != 0, "packet of no sequence"):
            return
        is_new = number not in self.sequences
        sequence = self.sequences.setdefault(number, Sequence())
        check(packet.sequence_flags == (3 if is_new else 2), "sequence flags %d" % packet.sequence_flags)
        if is_new:
            check(packet.trace_packet_defaults.timestamp_clock_id == 3, "the sequence's clock is not MONOTONIC")
            sequence.defaults = packet.trace_packet_defaults
        check(packet.timestamp >= sequence.last, "times fall within sequence %d" % number)
        sequence.last = packet.timestamp
        sequence.define(packet.interned_data)
        kinds = {"track_descriptor": lambda: self.descriptor(packet.track_descriptor),
                 "track_event": lambda: self.event(sequence, packet),
                 "stack_sample": lambda: self.sample(sequence, packet),
                 "perf_sample": lambda: self.perf_sample(sequence, packet),
                 "generic_kernel_task_state_event": lambda: self.state(packet),
                 "profile_packet": lambda: self.profile(sequence, packet),
                 "trace_attributes": lambda: self.attributes.update(
                     {item.key: item.long_value for item in packet.trace_attributes.attribute})}
        present = [kind for kind in kinds if packet.HasField(kind)]
        if check(len(present) == 1, "packet of %d kinds" % len(present)):
            kinds[present[0]]()


def check_perfetto(data):
    trace, first = Trace(), True
    for packet in packets(data, schemas.messages(schemas.PERFETTO, "perfetto")["TracePacket"]):
        check(not schemas.unknown_fields(packet), "fields nobody knows: %s" % schemas.unknown_fields(packet))
        if first:
            clocks = {clock.clock_id for clock in packet.clock_snapshot.clocks}
            check(clocks == {1, 3, 4, 6} and packet.clock_snapshot.primary_trace_clock == 3,
                  "the first packet is no snapshot of the clocks")
        else:
            trace.packet(packet)
        first = False
    check(not first, "empty trace")
    check(all(not depth for depth in trace.open.values()), "spans that never end")
    check(not trace.heap_continues, "the heap profile's last part says that it goes on")
    names = [track.thread.thread_name or track.process.process_name or track.name for track in trace.tracks.values()]
    return {"samples": trace.samples, "events": trace.events, "counters": {
        name: {"count": len(values), "last": values[-1], "max": max(values)} for name, values in trace.counters.items()},
            "states": trace.states, "heap": trace.heap, "attributes": trace.attributes, "tracks": sorted(names)}
