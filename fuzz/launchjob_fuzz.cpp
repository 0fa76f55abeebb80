#include "fuzz/fuzz.h"
#include "services/tsec/LaunchJob.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vnt;
    const auto job = LaunchJob::parse(fuzz::bytesOf(data, size));
    if (job.ok())
        fuzz::require(!job.value().name.empty() && !job.value().program.empty());
    return 0;
}
