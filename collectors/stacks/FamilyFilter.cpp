#include "collectors/stacks/FamilyFilter.h"

#include <algorithm>
#include <memory>
#include <system_error>
#include <thread>

#include "collectors/common/BpfCode.h"
#include "collectors/common/TraceFs.h"
#include "collectors/common/TracepointFormat.h"
#include "collectors/common/bpf.h"
#include "collectors/common/family.h"
#include "collectors/common/perf.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr uint32_t kMostProcesses = 65536; // and threads, which stand in the table as well; twice the default pid_max
constexpr int kKeyAt = -8; // on the program's stack
constexpr int kValueAt = -16;

/// R0 becomes the table's entry for the 32-bit number at kKeyAt.
void callWithKey(BpfCode& code, int table, int32_t helper)
{
    code.loadMap(BPF_REG_1, table);
    code.move(BPF_REG_2, BPF_REG_10);
    code.add(BPF_REG_2, kKeyAt);
    code.call(helper);
}

/// R0 becomes the entry of the process that runs.
void lookUpCurrent(BpfCode& code, int table)
{
    code.call(BPF_FUNC_get_current_pid_tgid);
    code.shiftRight(BPF_REG_0, 32);
    code.store(BPF_REG_10, kKeyAt, BPF_REG_0, 4);
    callWithKey(code, table, BPF_FUNC_map_lookup_elem);
}

std::vector<bpf_insn> decidingProgram(int table)
{
    BpfCode code;
    const auto out = code.newLabel();
    lookUpCurrent(code, table);
    code.jumpIfEqual(BPF_REG_0, 0, out);
    code.set(BPF_REG_0, 1);
    code.place(out);
    code.exit();
    return code.take();
}

/// For sched_process_fork, which runs in the parent. A new thread is entered as well, which does no harm: the number is
/// taken out before it can be another process's.
std::vector<bpf_insn> forkProgram(int table, int childAt)
{
    BpfCode code;
    const auto out = code.newLabel();
    code.move(BPF_REG_6, BPF_REG_1);
    lookUpCurrent(code, table);
    code.jumpIfEqual(BPF_REG_0, 0, out);
    code.load(BPF_REG_1, BPF_REG_6, childAt, 4);
    code.store(BPF_REG_10, kKeyAt, BPF_REG_1, 4);
    code.storeValue(BPF_REG_10, kValueAt, 1, 4);
    code.move(BPF_REG_3, BPF_REG_10);
    code.add(BPF_REG_3, kValueAt);
    code.set(BPF_REG_4, BPF_ANY);
    callWithKey(code, table, BPF_FUNC_map_update_elem);
    code.place(out);
    code.set(BPF_REG_0, 1);
    code.exit();
    return code.take();
}

/// For sched_process_free, when a number becomes free for others.
std::vector<bpf_insn> freeProgram(int table, int taskAt)
{
    BpfCode code;
    code.load(BPF_REG_1, BPF_REG_1, taskAt, 4);
    code.store(BPF_REG_10, kKeyAt, BPF_REG_1, 4);
    callWithKey(code, table, BPF_FUNC_map_delete_elem);
    code.set(BPF_REG_0, 1);
    code.exit();
    return code.take();
}

} // namespace

Result<FamilyFilter> FamilyFilter::create(pid_t pid, int traceFiles)
{
    if (!perf::seesKernelProcessIds())
        return Status(Code::kUnsupported, "the kernel's process ids are not visible in this namespace");
    FamilyFilter filter;
    bpf::MapShape shape;
    shape.type = BPF_MAP_TYPE_HASH;
    shape.keyBytes = shape.valueBytes = sizeof(uint32_t);
    // Not more than there can be: the kernel makes room for all of them at once.
    shape.entries = static_cast<uint32_t>(
        std::clamp<int64_t>(perf::kernelSetting("pid_max", kMostProcesses), 1024, int64_t{kMostProcesses}));
    ASSIGN_OR_RETURN(filter._processes, bpf::createMap(shape));
    ASSIGN_OR_RETURN(filter._program,
                     bpf::loadProgram(BPF_PROG_TYPE_PERF_EVENT, decidingProgram(filter._processes.get())));
    RETURN_IF_ERROR(filter.follow(traceFiles));
    RETURN_IF_ERROR(filter.addFamily(pid).status());
    return filter;
}

FamilyFilter::~FamilyFilter()
{
    if (_attached.empty())
        return;
    const sys::SignalBlock block;
    auto attached = std::make_shared<std::vector<UniqueFd>>(std::move(_attached));
    try {
        std::thread([attached] { attached->clear(); }).detach();
    } catch (const std::system_error&) { // then here
        attached->clear();
    }
}

Status FamilyFilter::follow(int traceFiles)
{
    ASSIGN_OR_RETURN(const TraceFs files, TraceFs::open(traceFiles));
    ASSIGN_OR_RETURN(const std::vector<int> processors, perf::onlineProcessors());
    const auto attach = [&](const char* name, const char* field, auto makeProgram) -> Status {
        ASSIGN_OR_RETURN(const std::string text, files.read(std::string("events/sched/") + name + "/format"));
        ASSIGN_OR_RETURN(const TracepointFormat format, TracepointFormat::parse(text));
        const auto* number = format.field(field);
        if (!number || number->sizeBytes != 4)
            return Status(Code::kUnsupported, "this kernel's process events are laid out in another way");
        ASSIGN_OR_RETURN(UniqueFd program,
                         bpf::loadProgram(BPF_PROG_TYPE_TRACEPOINT,
                                          makeProgram(_processes.get(), static_cast<int>(number->offset))));
        perf_event_attr attributes{};
        attributes.size = sizeof attributes;
        attributes.type = PERF_TYPE_TRACEPOINT;
        attributes.config = format.id;
        attributes.sample_period = 1;
        attributes.disabled = 1; // nothing for a perf ring; the program runs on every processor all the same
        ASSIGN_OR_RETURN(UniqueFd event, perf::openEvent(attributes, -1, processors.front()));
        RETURN_IF_ERROR(perf::setProgram(event.get(), program.get()));
        _attached.push_back(std::move(program));
        _attached.push_back(std::move(event));
        return {};
    };
    RETURN_IF_ERROR(attach("sched_process_free", "pid", freeProgram));
    return attach("sched_process_fork", "child_pid", forkProgram);
}

Result<std::vector<pid_t>> FamilyFilter::addFamily(pid_t pid)
{
    std::vector<pid_t> family = processesOfFamily(pid);
    for (const pid_t process : family) {
        const auto key = static_cast<uint32_t>(process);
        const uint32_t one = 1;
        RETURN_IF_ERROR(bpf::updateElement(_processes.get(), &key, &one));
    }
    return family;
}

} // namespace vnt
