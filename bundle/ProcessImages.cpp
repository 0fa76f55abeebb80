#include "bundle/ProcessImages.h"

#include <algorithm>

#include "records/Signature.h"

namespace vnt {

namespace {

/// A process can hold 65,530 mappings (vm.max_map_count), of which few are executable; more would make every look-up
/// of a forged bundle slow.
constexpr size_t kMaxImages = 16384;

uint64_t numberOr(const Dictionary& dictionary, std::string_view key, uint64_t fallback)
{
    const auto number = dictionary.get<Number>(key);
    return number ? number->uint64Value() : fallback;
}

std::string textOf(const Dictionary& dictionary, std::string_view key)
{
    const auto text = dictionary.get<String>(key);
    return text ? text->str() : std::string();
}

} // namespace

ProcessImages ProcessImages::read(const Dictionary& signature, Modules& modules, Remarks& remarks)
{
    ProcessImages process;
    process._name = textOf(signature, signature::kName);
    process._executable = textOf(signature, signature::kExecutable);
    process._programs.emplace_back();
    if (const auto map = signature.get<Data>(signature::kPerfMap))
        process._jit = JitSymbols({reinterpret_cast<const char*>(map->bytes().data()), map->bytes().size()});
    const auto is64Bit = signature.get<Number>(signature::kIs64Bit);
    const auto images = signature.get<Array>(signature::kImages);
    if (!images)
        return process;
    size_t count = 0;
    for (const Ref<Object>& item : images->items()) {
        const auto* image = as<const Dictionary>(static_cast<const Object*>(item.get()));
        if (!image)
            continue;
        if (++count > kMaxImages) {
            remarks.add("process " + process._name + " has too many mappings; the later ones are left out");
            break;
        }
        process.addImage(*image, !is64Bit || is64Bit->boolValue(), modules);
    }
    return process;
}

void ProcessImages::addImage(const Dictionary& image, bool is64Bit, Modules& modules)
{
    const uint64_t execNs = numberOr(image, signature::kImageExec, 0);
    if (execNs != 0) {
        if (execNs <= _programs.back().span.fromNs) // two execs at one instant, or a forged order
            return;
        _programs.back().span.untilNs = execNs;
        _programs.push_back({{execNs, std::numeric_limits<uint64_t>::max()}, {}});
        return;
    }
    const uint64_t start = numberOr(image, signature::kImageStart, 0);
    const uint64_t size = numberOr(image, signature::kImageSize, 0);
    if (size == 0 || size > ~start)
        return;
    const uint32_t module =
        modules.add(textOf(image, signature::kImagePath), textOf(image, signature::kImageBuildId), is64Bit);
    _programs.back().images.push_back(
        {start, size, numberOr(image, signature::kImageOffset, 0), numberOr(image, signature::kImageTime, 0), module});
}

ProcessImages::Location ProcessImages::locate(uint64_t address, uint64_t timeNs) const
{
    const auto next =
        std::upper_bound(_programs.begin(), _programs.end(), timeNs,
                         [](uint64_t time, const Program& program) { return time < program.span.fromNs; });
    const Program& program = *(next - 1); // the first begins at 0
    Location location;
    location.valid = program.span;
    for (auto image = program.images.rbegin(); image != program.images.rend(); ++image) {
        if (address < image->start || address - image->start >= image->size)
            continue;
        if (image->timeNs > timeNs) {
            location.valid.untilNs = std::min(location.valid.untilNs, image->timeNs);
            continue;
        }
        location.known = true;
        location.module = image->module;
        location.fileOffset = image->fileOffset + (address - image->start);
        location.imageStart = image->start;
        location.imageBytes = image->size;
        location.imageOffset = image->fileOffset;
        location.valid.fromNs = std::max(location.valid.fromNs, image->timeNs);
        break;
    }
    return location;
}

} // namespace vnt
