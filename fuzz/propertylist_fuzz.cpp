#include "fuzz/fuzz.h"
#include "platform/foundation/PropertyList.h"

/// What is read can be written, and reads the same again.
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vnt;
    const auto read = readPropertyList(fuzz::bytesOf(data, size));
    if (!read.ok())
        return 0;
    const auto written = writePropertyList(*read.value(), PropertyListFormat::kBinary);
    if (!written.ok())
        return 0; // past a limit of the form
    const auto again = readPropertyList(written.value());
    fuzz::require(again.ok());
    const auto twice = writePropertyList(*again.value(), PropertyListFormat::kBinary);
    fuzz::require(twice.ok() && twice.value() == written.value());
    return 0;
}
