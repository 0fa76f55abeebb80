#include "bundle/RustDemangle.h"
#include "fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view name(reinterpret_cast<const char*>(data), size);
    const auto text = vnt::rustDemangled(name);
    vnt::fuzz::require(!text || text->size() <= vnt::kMaxRustText);
    return 0;
}
