#include "services/tsec/LaunchJob.h"

#include "platform/foundation/PropertyList.h"

namespace vnt {
namespace {

/// Two short texts: far less than this.
constexpr PropertyListLimits kJobLimits{size_t{64} * 1024, 256, 8};

} // namespace

Result<LaunchJob> LaunchJob::parse(std::span<const std::byte> payload)
{
    if (payload.size() > kJobLimits.maxBytes)
        return Status(Code::kTooLarge, "the job is too large");
    ASSIGN_OR_RETURN(const Ref<Object> list, readPropertyList(payload, kJobLimits));
    const Ref<Dictionary> job = as<Dictionary>(list);
    if (!job)
        return Status(Code::kInvalid, "the job is no dictionary");
    const auto name = job->get<String>("name");
    const auto program = job->get<String>("program");
    if (!name || !program)
        return Status(Code::kInvalid, "the job needs \"name\" and \"program\"");
    // Whatever it asks for beside, it would not get.
    if (job->count() != 2)
        return Status(Code::kInvalid, "the job has other entries than \"name\" and \"program\"");
    return LaunchJob{name->str(), program->str()};
}

} // namespace vnt
