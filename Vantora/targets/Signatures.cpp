#include "Vantora/Vantora.h"

namespace vnt {

/// The kernel's signature is always asked for, whatever the target. A pid without a signature is left out.
Ref<MutableDictionary> Vantora::getCurrentSymbolicatorSignatures(int32_t targetPid, const String* methodName)
{
    if (targetPid < 0 && targetPid != kAllProcessesPid)
        return nullptr;
    const auto pids = Set::create({Number::withInt(kKernelPid)});
    if (targetPid == kAllProcessesPid) {
        const auto processes = as<Array>(_deviceInfoService->dispatch("runningProcesses"));
        for (const Ref<Object>& item : processes ? processes->items() : std::vector<Ref<Object>>()) {
            const auto* record = as<Dictionary>(item.get());
            if (const auto pid = record ? record->get<Number>("pid") : nullptr)
                pids->add(pid);
        }
    } else {
        pids->add(Number::withInt(targetPid));
    }
    auto signatures = MutableDictionary::create();
    const Ref<Object> method =
        methodName ? Ref<Object>(String::create(methodName->str())) : Ref<Object>(Null::create());
    for (const Ref<Object>& pid : pids->items()) {
        const auto signature =
            _deviceInfoService->dispatch("symbolicatorSignatureForPid:trackingSelector:", {pid, method});
        if (signature)
            signatures->set(pid, signature);
    }
    return signatures;
}

} // namespace vnt
