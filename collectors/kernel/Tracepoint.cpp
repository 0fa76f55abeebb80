#include "collectors/kernel/Tracepoint.h"

#include <algorithm>
#include <cstdio>

namespace vnt {
namespace {

ValueSlot slotOf(const TracepointFormat& format, const char* name)
{
    const TracepointFormat::Field* field = name ? format.field(name) : nullptr;
    if (!field || field->isLocated)
        return {};
    const uint32_t size = field->sizeBytes;
    if (size != 1 && size != 2 && size != 4 && size != 8)
        return {};
    return {field->offset, size, field->isSigned};
}

} // namespace

Tracepoint Tracepoint::create(const TracepointPlan& plan, TracepointFormat format)
{
    Tracepoint tracepoint;
    tracepoint.plan = &plan;
    for (const char* name : plan.values) {
        if (name)
            tracepoint.values.push_back(slotOf(format, name));
    }
    if (plan.kind == trace::EventKind::kCallEnter) {
        const TracepointFormat::Field* arguments = format.field("args");
        for (uint32_t i = 0; i < 6; ++i) {
            if (arguments && arguments->sizeBytes >= 8 * (i + 1))
                tracepoint.values.push_back({arguments->offset + 8 * i, 8, false});
            else
                tracepoint.values.emplace_back();
        }
    }
    tracepoint.about = slotOf(format, plan.about);
    tracepoint.call = slotOf(format, "id");
    tracepoint.format = std::move(format);
    return tracepoint;
}

std::string_view Tracepoint::textIn(std::span<const std::byte> record) const
{
    const TracepointFormat::Field* field = plan->text ? format.field(plan->text) : nullptr;
    if (!field)
        return {};
    size_t offset = field->offset;
    size_t size = field->sizeBytes;
    if (field->isLocated) {
        const uint64_t place = ValueSlot{field->offset, 4, false}.in(record);
        offset = place & 0xffff;
        size = place >> 16;
    }
    if (offset >= record.size())
        return {};
    const auto bytes = record.subspan(offset, std::min(size, record.size() - offset));
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return text.substr(0, text.find('\0'));
}

Result<std::vector<Tracepoint>> loadTracepoints(const TraceFs& files, std::span<const uint32_t> codes)
{
    for (const uint32_t code : codes) {
        const auto classes = eventClasses();
        if (std::none_of(classes.begin(), classes.end(), [&](const EventClass& c) { return c.code == code; })) {
            char text[16];
            std::snprintf(text, sizeof text, "0x%08x", code);
            return Status(Code::kInvalid, std::string("kernel event filter ") + text + " is no known class");
        }
    }
    std::vector<Tracepoint> tracepoints;
    for (const TracepointPlan& plan : tracepointPlans()) {
        if (std::find(codes.begin(), codes.end(), plan.code) == codes.end())
            continue;
        auto text = files.read(std::string("events/") + plan.system + "/" + plan.name + "/format");
        if (!text.ok() && text.code() == Code::kNotFound)
            continue;
        RETURN_IF_ERROR(text.status());
        ASSIGN_OR_RETURN(TracepointFormat format, TracepointFormat::parse(text.value()));
        tracepoints.push_back(Tracepoint::create(plan, std::move(format)));
    }
    if (tracepoints.empty())
        return Status(Code::kUnsupported, "the kernel has none of the events asked for");
    return tracepoints;
}

} // namespace vnt
