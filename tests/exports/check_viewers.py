"""Checks speedscope, Firefox Profiler, CSV and JSON files."""

import csv
import io
import json

from check_export import check


def no_constants(text):
    check(False, "%s is no JSON" % text)


def parse(data):
    return json.loads(data.decode("utf-8"), parse_constant=no_constants)


def check_speedscope(data):
    file = parse(data)
    check(file["$schema"] == "https://www.speedscope.app/file-format-schema.json", "$schema")
    frames = file["shared"]["frames"]
    check(len({(frame["name"], frame.get("file")) for frame in frames}) == len(frames), "a frame stands twice")
    check(all(isinstance(frame["name"], str) and frame["name"] for frame in frames), "frame without a name")
    check(0 <= file["activeProfileIndex"] < len(file["profiles"]), "active profile out of range")
    profiles = {}
    for profile in file["profiles"]:
        check(profile["type"] == "sampled", "type")
        check(profile["unit"] in ("none", "nanoseconds", "bytes"), "unit")
        samples, weights = profile["samples"], profile["weights"]
        check(len(samples) == len(weights), "as many weights as samples")
        check(all(isinstance(weight, int) and weight > 0 for weight in weights), "weight that is not positive")
        check(all(0 <= frame < len(frames) for sample in samples for frame in sample), "frame out of range")
        check(sum(weights) == profile["endValue"] - profile["startValue"], "weights do not sum to the whole")
        check(profile["name"] not in profiles, "two profiles of one name")
        stacks = {}
        for sample, weight in zip(samples, weights):
            key = ";".join(frames[frame]["name"] for frame in sample)
            stacks[key] = stacks.get(key, 0) + weight
        profiles[profile["name"]] = stacks
    return {"profiles": profiles, "active": file["profiles"][file["activeProfileIndex"]]["name"]}


def check_table(table, what, columns):
    for column in columns:
        if check(column in table, "%s has no %s" % (what, column)):
            check(len(table[column]) == table["length"], "%s.%s is not as long as it says" % (what, column))
    check(set(table) - set(columns) <= {"length", "weightType"}, "%s has unknown columns" % what)


def within(values, length, what, null=False):
    check(all((null and value is None) or (isinstance(value, int) and 0 <= value < length) for value in values),
          what + " out of range")


def rises(values, what):
    check(all(a <= b for a, b in zip(values, values[1:])), what + " is not in order of time")


def check_shared(file):
    shared, categories = file["shared"], file["meta"]["categories"]
    strings = len(shared["stringArray"])
    check(all(isinstance(text, str) for text in shared["stringArray"]), "string table")
    tables = {"stackTable": ["frame", "prefix"],
              "frameTable": ["address", "inlineDepth", "category", "subcategory", "func", "nativeSymbol",
                             "innerWindowID", "line", "column"],
              "funcTable": ["name", "isJS", "relevantForJS", "resource", "source", "lineNumber", "columnNumber"],
              "resourceTable": ["type", "lib", "name", "host"],
              "nativeSymbols": ["libIndex", "address", "name", "functionSize"],
              "sources": ["id", "filename"]}
    for name, columns in tables.items():
        check_table(shared[name], name, columns)
    stacks, frames, functions = shared["stackTable"], shared["frameTable"], shared["funcTable"]
    within(stacks["frame"], frames["length"], "frame of a stack")
    check(all(prefix is None or 0 <= prefix < i for i, prefix in enumerate(stacks["prefix"])), "parent behind its child")
    within(frames["func"], functions["length"], "function of a frame")
    within(frames["category"], len(categories), "category", null=True)
    check(all(-1 <= address < 2**53 for address in frames["address"]), "address past 53 bits")
    within(functions["name"], strings, "name of a function")
    within(functions["source"], shared["sources"]["length"], "source of a function", null=True)
    check(all(-1 <= number < shared["resourceTable"]["length"] for number in functions["resource"]), "resource")
    within(shared["resourceTable"]["lib"], len(file["libs"]), "library of a resource")
    within(shared["resourceTable"]["name"], strings, "name of a resource")
    within(shared["sources"]["filename"], strings, "name of a source")
    for i, frame in enumerate(stacks["frame"]):
        depth, prefix = frames["inlineDepth"][frame], stacks["prefix"][i]
        if depth:
            check(prefix is not None and frames["inlineDepth"][stacks["frame"][prefix]] == depth - 1
                  and frames["address"][stacks["frame"][prefix]] == frames["address"][frame], "inlined into nothing")


def stack_text(shared, stack):
    names = []
    while stack is not None:
        function = shared["frameTable"]["func"][shared["stackTable"]["frame"][stack]]
        names.append(shared["stringArray"][shared["funcTable"]["name"][function]])
        stack = shared["stackTable"]["prefix"][stack]
    return ";".join(reversed(names))


def check_firefox(data):
    check(data.startswith(b'{"meta"'), "does not begin with meta")
    file = parse(data)
    meta, shared = file["meta"], file["shared"]
    check(meta["preprocessedProfileVersion"] == 60 and meta["interval"] > 0, "version or interval")
    check(any(category["color"] == "grey" for category in meta["categories"]), "no grey category")
    check(all(category["subcategories"][0] == "Other" for category in meta["categories"]), "subcategories")
    check_shared(file)
    stacks, strings = shared["stackTable"]["length"], shared["stringArray"]
    schemas = {schema["name"] for schema in meta["markerSchema"]}
    check(all(len(lib["breakpadId"]) == 33 for lib in file["libs"]), "breakpadId")
    result, mains = {}, {}
    for thread in file["threads"]:
        check(isinstance(thread["pid"], str), "pid is not text")
        mains[thread["pid"]] = mains.get(thread["pid"], 0) + bool(thread["isMainThread"])
        samples, markers = thread["samples"], thread["markers"]
        columns = ["stack", "time"] + [name for name in ("weight", "threadCPUDelta") if samples.get(name) is not None]
        check_table({key: value for key, value in samples.items() if value is not None}, "samples", columns)
        check(samples["length"] > 0, "thread without a sample")
        within(samples["stack"], stacks, "stack of a sample", null=True)
        rises(samples["time"], "samples")
        check_table(markers, "markers", ["name", "startTime", "endTime", "phase", "category", "data"])
        within(markers["name"], len(strings), "name of a marker")
        within(markers["category"], len(meta["categories"]), "category of a marker")
        rises(markers["startTime"], "markers")
        check(all(isinstance(time, (int, float)) for time in markers["startTime"] + markers["endTime"]), "marker's time")
        check(all(begin <= end for begin, end in zip(markers["startTime"], markers["endTime"])), "marker ends early")
        for marker in markers["data"]:
            check(marker["type"] in schemas, "marker of no schema")
            if "cause" in marker:
                within([marker["cause"]["stack"]], stacks, "cause of a marker")
        weights = samples["weight"] or [1] * samples["length"]
        entry = result.setdefault("%s %s %s" % (thread["pid"], thread["tid"], thread["name"]), {
            "samples": sum(stack is not None for stack in samples["stack"]), "weightType": samples["weightType"],
            "weight": round(sum(w for w, stack in zip(weights, samples["stack"]) if stack is not None), 6),
            "cpu": sum(samples.get("threadCPUDelta", [])), "stacks": {}, "markers": {}})
        for stack, weight in zip(samples["stack"], weights):
            if stack is not None:
                key = stack_text(shared, stack)
                entry["stacks"][key] = round(entry["stacks"].get(key, 0) + weight, 6)
        for name in markers["name"]:
            entry["markers"][strings[name]] = entry["markers"].get(strings[name], 0) + 1
        if "nativeAllocations" in thread:
            heap = thread["nativeAllocations"]
            check_table(heap, "nativeAllocations", ["time", "weight", "stack", "memoryAddress", "threadId"])
            rises(heap["time"], "allocations")
            within(heap["stack"], stacks, "stack of an allocation")
            entry["live_bytes"] = sum(heap["weight"])
            entry["allocated_bytes"] = sum(weight for weight in heap["weight"] if weight > 0)
    check(all(count == 1 for count in mains.values()), "a process has not just one main thread")
    counters = {}
    for counter in file.get("counters", []):
        check_table(counter["samples"], "counter", ["time", "count"])
        within([counter["mainThreadIndex"]], len(file["threads"]), "thread of a counter")
        rises(counter["samples"]["time"], "counter")
        check(counter["samples"]["count"][0] == 0, "the first row of a counter is lost")
        counters["%s %s" % (counter["pid"], counter["name"])] = sum(counter["samples"]["count"])
    return {"threads": result, "counters": counters}


def check_csv(data):
    text = data.decode("utf-8")
    check(text.endswith("\r\n"), "the last line does not end")
    rows = list(csv.reader(io.StringIO(text, newline=""), strict=True))
    check(all(len(row) == len(rows[0]) for row in rows), "rows of different length")
    check(len(set(rows[0])) == len(rows[0]), "columns of one name")
    return {"columns": rows[0], "rows": rows[1:]}


def check_json(data):
    file = parse(data)
    check(file["version"] == 1, "version")
    threads, stacks = len(file["threads"]), len(file["stacks"])
    within([row[1] for row in file.get("samples", [])], threads, "thread of a sample")
    within([row[2] for row in file.get("samples", [])], stacks, "stack of a sample")
    within([event["thread"] for event in file.get("kernel_events", [])], threads, "thread of an event")
    within([event.get("stack", 0) for event in file.get("kernel_events", [])], stacks, "stack of an event")
    within([row[2] for row in file.get("heap", [])], len(file["processes"]), "process of an allocation")
    within([leak.get("stack", 0) for leak in file.get("leaks", [])], stacks, "stack of a leak")
    check(all(caller < max(number, 1) for number, (caller, _) in enumerate(file["stacks"])), "caller behind its callee")
    within([location for _, location in file["stacks"]], len(file["locations"]), "location")
    within([number for row in file["locations"] for number in row[1::3]], len(file["functions"]), "function")
    within([function.get("module", 0) for function in file["functions"] if "module" in function], len(file["modules"]),
           "module")
    within([thread["process"] for thread in file["threads"]], len(file["processes"]), "process of a thread")
    return {"samples": len(file.get("samples", [])), "weight": sum(row[3] for row in file.get("samples", [])),
            "kernel_events": len(file.get("kernel_events", [])), "heap": len(file.get("heap", [])),
            "leaks": len(file.get("leaks", [])), "census": len(file.get("census", [])), "lost": file["lost"],
            "instruments": [instrument["name"] for instrument in file["instruments"]]}
