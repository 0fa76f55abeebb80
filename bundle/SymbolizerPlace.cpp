#include "bundle/Symbolizer.h"

namespace vnt {

Symbolizer::Place Symbolizer::place(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role)
{
    Place place;
    if (address >> 63 != 0) { // x86 kernel addresses are the upper half of the address space
        place.isKernel = true;
        return place;
    }
    const ProcessImages* images = process(pid);
    const uint64_t back = role == FrameRole::kReturn && address != 0 ? 1 : 0;
    const ProcessImages::Location location =
        images ? images->locate(address - back, timeNs) : ProcessImages::Location();
    if (!location.known)
        return place;
    place.isKnown = true;
    place.module = location.module;
    place.fileOffset = location.fileOffset;
    place.linkedAddress =
        _modules.loaded(location.module).loadMap.linkedAddress(location.fileOffset).value_or(location.fileOffset);
    place.imageStart = location.imageStart;
    place.imageBytes = location.imageBytes;
    place.imageOffset = location.imageOffset;
    return place;
}

} // namespace vnt
