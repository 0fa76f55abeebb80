#include "services/quillon/DeviceInfoService.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "platform/base/sys.h"
#include "services/common/ProcFs.h"
#include "services/quillon/Arguments.h"

namespace vnt {
namespace {

constexpr size_t kMaxInfoFileBytes = 4u << 20;

/// Value of "key<separator>value" in a text of lines; empty when absent. Surrounding blanks, tabs and quotes go.
std::string lineValue(const std::string& text, std::string_view key, char separator)
{
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        const std::string_view line = std::string_view(text).substr(start, end - start);
        start = end + 1;
        const size_t at = line.find(separator);
        if (at == std::string_view::npos || !line.starts_with(key))
            continue;
        if (line.substr(key.size(), at - key.size()).find_first_not_of(" \t") != std::string_view::npos)
            continue;
        std::string_view value = line.substr(at + 1);
        const size_t first = value.find_first_not_of(" \t\"");
        const size_t last = value.find_last_not_of(" \t\"");
        return first == std::string_view::npos ? std::string() : std::string(value.substr(first, last - first + 1));
    }
    return {};
}

/// Cores of all packages; processors of one core count once. 1 where /proc/cpuinfo does not tell.
int32_t physicalCores(const std::string& processors)
{
    std::set<std::pair<std::string, std::string>> cores;
    for (size_t start = 0; start < processors.size();) { // a paragraph for each processor
        const size_t end = std::min(processors.find("\n\n", start), processors.size());
        const std::string one = processors.substr(start, end - start);
        start = end + 2;
        const std::string core = lineValue(one, "core id", ':');
        if (!core.empty())
            cores.emplace(lineValue(one, "physical id", ':'), core);
    }
    return std::max<int32_t>(1, static_cast<int32_t>(cores.size()));
}

std::string fileText(const std::string& path)
{
    auto text = sys::readFile(path, kMaxInfoFileBytes);
    return text.ok() ? text.take() : std::string();
}

} // namespace

Ref<Dictionary> hardwareInformation()
{
    auto info = MutableDictionary::create();
    const std::string processors = fileText("/proc/cpuinfo");
    info->set("processorModel", String::create(lineValue(processors, "model name", ':')));
    info->set("processorVendor", String::create(lineValue(processors, "vendor_id", ':')));
    info->set("processorMHz", String::create(lineValue(processors, "cpu MHz", ':')));
    info->set("cacheSize", String::create(lineValue(processors, "cache size", ':')));
    info->set("physicalCores", Number::withInt(physicalCores(processors)));
    info->set(
        "isVirtual",
        Number::withBool((" " + lineValue(processors, "flags", ':') + " ").find(" hypervisor ") != std::string::npos));
    info->set("numberOfProcessors", Number::withInt(static_cast<int32_t>(::sysconf(_SC_NPROCESSORS_CONF))));
    info->set("activeProcessors", Number::withInt(static_cast<int32_t>(::sysconf(_SC_NPROCESSORS_ONLN))));
    struct sysinfo memory { };
    if (::sysinfo(&memory) == 0) {
        info->set("memoryBytes", Number::withUint64(uint64_t{memory.totalram} * memory.mem_unit));
        info->set("swapBytes", Number::withUint64(uint64_t{memory.totalswap} * memory.mem_unit));
    }
    info->set("pageSize", Number::withInt(static_cast<int32_t>(::sysconf(_SC_PAGESIZE))));
    const std::string product = fileText("/sys/class/dmi/id/product_name");
    if (!product.empty())
        info->set("machineModel", String::create(product.substr(0, product.find('\n'))));
    return info;
}

Ref<Dictionary> systemInformation()
{
    auto info = MutableDictionary::create();
    utsname names{};
    if (::uname(&names) == 0) {
        info->set("kernelName", String::create(names.sysname));
        info->set("kernelRelease", String::create(names.release));
        info->set("kernelVersion", String::create(names.version));
        info->set("architecture", String::create(names.machine));
        info->set("hostName", String::create(names.nodename));
    }
    info->set("distribution", String::create(lineValue(fileText("/etc/os-release"), "PRETTY_NAME", '=')));
    info->set("bootID", String::create(fileText("/proc/sys/kernel/random/boot_id").substr(0, 36)));
    // Every instant of a recording is on this clock; wall clock minus it lets a reader date them.
    info->set("clock", String::create("CLOCK_MONOTONIC"));
    const double wall = sys::realtimeSec();
    info->set("clockOffsetSec", Number::withDouble(wall - static_cast<double>(sys::monotonicNs()) * 1e-9));
    info->set("clockTicksPerSecond", Number::withInt(static_cast<int32_t>(::sysconf(_SC_CLK_TCK))));
    return info;
}

Ref<Array> runningProcesses()
{
    auto processes = MutableArray::create();
    const auto pids = procfs::runningPids();
    if (!pids.ok())
        throw Exception("VntSystemError", pids.status().message());
    for (const pid_t pid : pids.value()) {
        const auto name = procfs::executableName(pid);
        if (!name.ok())
            continue; // ended while we looked
        processes->append(Dictionary::create(
            {{String::create("name"), String::create(name.value())}, {String::create("pid"), Number::withInt(pid)}}));
    }
    return processes;
}

Ref<Object> DeviceInfoService::onCall(const std::string& selector, const Ref<Array>& arguments)
{
    if (selector == "runningProcesses")
        return runningProcesses();
    if (selector == "isRunningPid:")
        return Number::withBool(procfs::isRunning(pidArgument(*arguments, 0)));
    if (selector == "execnameForPid:") {
        const auto name = procfs::executableName(pidArgument(*arguments, 0));
        return name.ok() ? String::create(name.value()) : nullptr;
    }
    if (selector == "symbolicatorSignatureForPid:trackingSelector:") {
        const pid_t pid = pidArgument(*arguments, 0);
        // Where code lies in another user's process is not everybody's business; the kernel's names are harmless.
        return pid <= 0 || _guard.mayLookAt(pid) ? _signatures.signatureOf(pid) : nullptr;
    }
    if (selector == "symbolicatorSignaturesForExpiredPids")
        return _signatures.expiredSignatures();
    if (selector == "hardwareInformation")
        return hardwareInformation();
    if (selector == "systemInformation")
        return systemInformation();
    throwUnknownSelector(selector);
}

} // namespace vnt
