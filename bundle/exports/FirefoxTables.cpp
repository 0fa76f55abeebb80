#include "bundle/exports/FirefoxTables.h"

#include <algorithm>
#include <map>

namespace vnt {

namespace {

template <typename Value> void writeColumn(JsonWriter& json, const char* name, size_t length, const Value& value)
{
    json.newLine().key(name).beginArray();
    for (size_t i = 0; i < length; ++i)
        value(i);
    json.endArray();
}

/// The build id as this format's readers compare it: 32 digits with the first three fields in the other byte order, and
/// an age of 0.
std::string breakpadId(const std::string& buildId)
{
    std::string digits = buildId.substr(0, 32);
    digits.resize(32, '0');
    std::transform(digits.begin(), digits.end(), digits.begin(),
                   [](char c) { return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c; });
    static constexpr size_t kOrder[] = {3, 2, 1, 0, 5, 4, 7, 6};
    std::string id;
    for (const size_t byte : kOrder)
        id += digits.substr(byte * 2, 2);
    return id + digits.substr(16) + "0";
}

} // namespace

uint32_t FirefoxTables::rowOf(uint32_t stack)
{
    while (_rows.size() <= stack) {
        const ExportStack& next = table().stacks()[_rows.size()];
        _rows.push_back(_rows.back() + table().locations()[next.location].lineCount);
    }
    return _rows[stack] - 1;
}

uint32_t FirefoxTables::waitRowOf(uint32_t stack) const
{
    return _rows.back() + static_cast<uint32_t>(std::distance(_waits.begin(), _waits.find(stack)));
}

void FirefoxTables::writeLibraries(JsonWriter& json)
{
    json.newLine().key("libs").beginArray();
    for (const ExportModule& module : table().modules()) {
        const std::string& path = table().text(module.path);
        const std::string& name = table().text(module.name);
        json.newLine().beginObject().member("arch", "x86_64").member("name", name).member("path", path);
        json.member("debugName", name).member("debugPath", path).member("breakpadId", breakpadId(module.buildId));
        json.key("codeId");
        if (module.buildId.empty())
            json.null();
        else
            json.value(module.buildId);
        json.endObject();
    }
    json.endArray();
}

void FirefoxTables::writeShared(JsonWriter& json)
{
    (void)rowOf(static_cast<uint32_t>(table().stacks().size() - 1));
    findSources();
    const uint32_t wait = _source.stacks().strings().add("[off-cpu]"); // the last function's name
    json.newLine().key("shared").beginObject();
    writeStacks(json);
    writeFrames(json);
    writeFunctions(json);
    writeResources(json);
    json.newLine().key("stringArray").beginArray();
    for (uint32_t i = 0; i < table().strings().count(); ++i)
        json.newLine().value(table().text(i));
    json.endArray().endObject();
    VNT_CHECK(wait < table().strings().count());
}

void FirefoxTables::findSources()
{
    _sourceOf.assign(table().functions().size(), -1);
    std::map<uint32_t, int64_t> numbers;
    for (const ExportLocation& location : table().locations()) {
        for (uint32_t i = 0; i < location.lineCount; ++i) {
            const ExportLine& line = table().line(location.firstLine + i);
            if (line.file == 0 || _sourceOf[line.function] >= 0)
                continue;
            const auto [known, isNew] = numbers.try_emplace(line.file, static_cast<int64_t>(_sources.size()));
            if (isNew)
                _sources.push_back(line.file);
            _sourceOf[line.function] = known->second;
        }
    }
}

/// A row a function: a location's outermost first, then what was inlined into it. Behind all, the waits.
void FirefoxTables::writeStacks(JsonWriter& json)
{
    const std::vector<ExportStack>& stacks = table().stacks();
    uint32_t frames = 0; // frames are numbered as the lines of locations
    for (const ExportLocation& location : table().locations())
        frames += location.lineCount;
    json.key("stackTable").beginObject().member("length", _rows.back() + _waits.size());
    json.newLine().key("frame").beginArray();
    for (size_t stack = 1; stack < stacks.size(); ++stack) {
        const ExportLocation& location = table().locations()[stacks[stack].location];
        for (uint32_t i = location.lineCount; i-- > 0;)
            json.value(location.firstLine + i);
    }
    for (size_t i = 0; i < _waits.size(); ++i)
        json.value(frames);
    json.endArray().newLine().key("prefix").beginArray();
    for (size_t stack = 1; stack < stacks.size(); ++stack) {
        const uint32_t lines = table().locations()[stacks[stack].location].lineCount;
        if (stacks[stack].caller == 0)
            json.null();
        else
            json.value(rowOf(stacks[stack].caller));
        for (uint32_t i = 1; i < lines; ++i)
            json.value(_rows[stack] - lines + i - 1);
    }
    for (const uint32_t stack : _waits)
        json.value(rowOf(stack));
    json.endArray().endObject();
}

void FirefoxTables::writeFrames(JsonWriter& json)
{
    struct Frame {
        const ExportLocation* location = nullptr;
        const ExportLine* line = nullptr;
        uint32_t depth = 0;
    };
    std::vector<Frame> frames;
    for (const ExportLocation& location : table().locations()) {
        for (uint32_t i = 0; i < location.lineCount; ++i)
            frames.push_back({&location, &table().line(location.firstLine + i), location.lineCount - 1 - i});
    }
    const size_t waits = frames.size(); // the row behind: no location
    const size_t length = waits + 1;
    json.newLine().key("frameTable").beginObject().member("length", length);
    const auto column = [&](const char* name, auto value, int64_t ofWaits) {
        writeColumn(json, name, length, [&](size_t i) {
            if (i < waits)
                json.value(value(frames[i]));
            else
                json.value(ofWaits);
        });
    };
    const auto nulls = [&](const char* name) { writeColumn(json, name, length, [&](size_t) { json.null(); }); };
    column(
        "address",
        [](const Frame& frame) {
            const bool fits = frame.location->address < uint64_t{1} << 53;
            return frame.location->module == kNoModule || !fits ? int64_t{-1}
                                                                : static_cast<int64_t>(frame.location->address);
        },
        -1);
    column(
        "inlineDepth", [](const Frame& frame) { return frame.depth; }, 0);
    column(
        "category",
        [this](const Frame& frame) {
            if (frame.location->isKernel)
                return static_cast<uint32_t>(FirefoxCategory::kKernel);
            const bool isCode = frame.location->module != kNoModule;
            return static_cast<uint32_t>(isCode ? FirefoxCategory::kUser : FirefoxCategory::kOther);
        },
        static_cast<int64_t>(FirefoxCategory::kOffProcessor));
    column(
        "subcategory", [](const Frame&) { return 0; }, 0);
    column(
        "func", [](const Frame& frame) { return frame.line->function; },
        static_cast<int64_t>(table().functions().size()));
    nulls("nativeSymbol");
    nulls("innerWindowID");
    writeColumn(json, "line", length, [&](size_t i) {
        if (i < waits && frames[i].line->line != 0)
            json.value(frames[i].line->line);
        else
            json.null();
    });
    nulls("column");
    json.endObject();
}

void FirefoxTables::writeFunctions(JsonWriter& json)
{
    const std::vector<ExportFunction>& functions = table().functions();
    const size_t waits = functions.size();
    const size_t length = waits + 1;
    const uint32_t waitName = _source.stacks().strings().add("[off-cpu]");
    json.newLine().key("funcTable").beginObject().member("length", length);
    writeColumn(json, "name", length, [&](size_t i) { json.value(i < waits ? functions[i].name : waitName); });
    writeColumn(json, "isJS", length, [&](size_t) { json.value(false); });
    writeColumn(json, "relevantForJS", length, [&](size_t) { json.value(false); });
    writeColumn(json, "resource", length, [&](size_t i) {
        if (i < waits && functions[i].module != kNoModule)
            json.value(functions[i].module);
        else
            json.value(-1);
    });
    writeColumn(json, "source", length, [&](size_t i) {
        if (i < waits && _sourceOf[i] >= 0)
            json.value(_sourceOf[i]);
        else
            json.null();
    });
    writeColumn(json, "lineNumber", length, [&](size_t) { json.null(); });
    writeColumn(json, "columnNumber", length, [&](size_t) { json.null(); });
    json.endObject();
}

/// Resources are the libraries, one to one; native symbols are not told apart from functions.
void FirefoxTables::writeResources(JsonWriter& json)
{
    const std::vector<ExportModule>& modules = table().modules();
    json.newLine().key("resourceTable").beginObject().member("length", modules.size());
    constexpr int kLibrary = 1;
    writeColumn(json, "type", modules.size(), [&](size_t) { json.value(kLibrary); });
    writeColumn(json, "lib", modules.size(), [&](size_t i) { json.value(i); });
    writeColumn(json, "name", modules.size(), [&](size_t i) { json.value(modules[i].name); });
    writeColumn(json, "host", modules.size(), [&](size_t) { json.null(); });
    json.endObject().newLine().key("nativeSymbols").beginObject().member("length", 0);
    for (const char* name : {"libIndex", "address", "name", "functionSize"})
        json.key(name).beginArray().endArray();
    json.endObject().newLine().key("sources").beginObject().member("length", _sources.size());
    writeColumn(json, "id", _sources.size(), [&](size_t) { json.null(); });
    writeColumn(json, "filename", _sources.size(), [&](size_t i) { json.value(_sources[i]); });
    json.endObject();
}

} // namespace vnt
