#!/usr/bin/python3
"""Checks an exported file as its format's readers would, and prints what it says as JSON.

    check_export.py FORMAT FILE...

Exit status 1 and one line for each fault when a file is not what the format demands.
"""

import gzip
import json
import re
import sys

FAULTS = []


def check(condition, fault):
    if not condition:
        FAULTS.append(fault)
    return condition


def content(path):
    with open(path, "rb") as file:
        data = file.read()
    return gzip.decompress(data) if data[:2] == b"\x1f\x8b" else data


def check_folded(data):
    total, stacks = 0, {}
    text = data.decode("utf-8")
    check(text == "" or text.endswith("\n"), "the last line does not end")
    lines = text.split("\n")[:-1]
    for line in lines:
        if check(re.fullmatch(r"[^;]+(;[^;]+)+ [1-9][0-9]*", line), "not a stack and a count: %r" % line[:200]):
            stack, count = line.rsplit(" ", 1)
            check(stack not in stacks, "a stack stands twice: %r" % stack[:200])
            stacks[stack] = int(count)
            total += int(count)
    check(lines == sorted(lines, key=lambda line: line.rsplit(" ", 1)[0].encode()), "not sorted")
    return {"total": total, "stacks": stacks, "graph": flame_graph(stacks)}


def flame_graph(stacks):
    """The boxes that a flame graph shows: path to width. What readers of folded stacks do."""
    boxes = {}
    for stack, count in stacks.items():
        frames = stack.split(";")
        for depth in range(1, len(frames) + 1):
            path = ";".join(frames[:depth])
            boxes[path] = boxes.get(path, 0) + count
    return boxes


def check_unique(items, what):
    ids = [item.id for item in items]
    check(0 not in ids, what + " has id 0")
    check(len(ids) == len(set(ids)), what + " ids stand twice")
    check(all(number < 2**31 for number in ids), what + " ids pass 31 bits")
    return {item.id: item for item in items}


def check_pprof(data):
    import schemas
    profile = schemas.messages(schemas.PPROF, "pprof")["Profile"].FromString(data)
    check(not schemas.unknown_fields(profile), "fields nobody knows")
    strings = list(profile.string_table)
    if not check(strings and strings[0] == "", "string 0 is not the empty one"):
        return {}
    check(len(set(strings)) == len(strings), "a string stands twice")

    def text(index):
        return strings[index] if check(0 <= index < len(strings), "string index out of range") else ""

    types = [(text(kind.type), text(kind.unit)) for kind in profile.sample_type]
    check(len(types) > 0 and len(set(types)) == len(types), "no sample types, or twice the same")
    check(text(profile.default_sample_type) in [kind for kind, _ in types], "default type is none of the types")
    text(profile.period_type.type)
    comments = [text(index) for index in profile.comment]
    mappings = check_unique(profile.mapping, "mapping")
    functions = check_unique(profile.function, "function")
    locations = check_unique(profile.location, "location")
    for mapping in profile.mapping:
        text(mapping.filename)
        check(re.fullmatch("[0-9a-f]*", text(mapping.build_id)), "build id is not hexadecimal")
        check(mapping.memory_start < mapping.memory_limit, "empty mapping")
    for function in profile.function:
        check(text(function.name) != "" and text(function.system_name) != "", "function without a name")
        text(function.filename)
    for location in profile.location:
        check(len(location.line) > 0, "location without lines")
        for line in location.line:
            check(line.function_id in functions, "line of a missing function")
        if location.mapping_id:
            if check(location.mapping_id in mappings, "location in a missing mapping"):
                mapping = mappings[location.mapping_id]
                check(mapping.memory_start <= location.address < mapping.memory_limit, "address outside its mapping")
                check(mapping.has_functions or all("+0x" in text(functions[line.function_id].name)
                                                   for line in location.line), "names, but has_functions is not set")
                check(len(location.line) == 1 or mapping.has_inline_frames, "inlined, but has_inline_frames is not set")
    totals, stacks, seen = [0] * len(types), {}, set()
    for sample in profile.sample:
        if not check(len(sample.value) == len(types), "values are not as many as types"):
            continue
        check(len(sample.location_id) > 0, "sample without a stack")
        check(all(number in locations for number in sample.location_id), "sample with a missing location")
        labels = {}
        for label in sample.label:
            key = text(label.key)
            check(key not in labels and key != "" and not key.startswith("pprof::"), "label key %r" % key)
            check(bool(label.str) != bool(label.num_unit), "label %r vanishes or is two things" % key)
            labels[key] = text(label.str) if label.str else "%d %s" % (label.num, text(label.num_unit))
        key = (tuple(sample.location_id), tuple(sorted(labels.items())))
        check(key not in seen, "a stack with the same labels stands twice")
        seen.add(key)
        totals = [total + value for total, value in zip(totals, sample.value)]
        names = [text(functions[line.function_id].name) for number in sample.location_id if number in locations
                 for line in locations[number].line]
        row = ";".join(names) + "".join(" %s=%s" % item for item in sorted(labels.items()) if item[0] != "tid")
        stacks[row] = [old + new for old, new in zip(stacks.get(row, [0] * len(types)), sample.value)]
    used = {line.function_id for location in profile.location for line in location.line}
    check(used == set(functions), "functions that nothing uses")
    return {"types": types, "default": text(profile.default_sample_type), "totals": totals, "stacks": stacks,
            "comments": comments, "time_nanos": profile.time_nanos, "duration_nanos": profile.duration_nanos,
            "period": profile.period, "files": sorted({text(function.filename) for function in profile.function}),
            "mappings": [[text(mapping.filename), text(mapping.build_id)] for mapping in profile.mapping]}


def main():
    import check_perfetto
    import check_viewers
    checks = {"folded": check_folded, "pprof": check_pprof, "perfetto": check_perfetto.check_perfetto,
              "speedscope": check_viewers.check_speedscope, "firefox": check_viewers.check_firefox,
              "csv": check_viewers.check_csv, "json": check_viewers.check_json}
    for path in sys.argv[2:]:
        before = len(FAULTS)
        result = checks[sys.argv[1]](content(path))
        for fault in sorted(set(FAULTS[before:]))[:20]:
            print("fault: %s: %s" % (path, fault))
    if FAULTS:
        return 1
    json.dump(result, sys.stdout, indent=1, sort_keys=True, ensure_ascii=False)
    print()
    return 0


if __name__ == "__main__":
    sys.modules["check_export"] = sys.modules["__main__"]
    sys.stdout.reconfigure(encoding="utf-8")
    sys.exit(main())
