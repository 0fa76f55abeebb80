#include "bundle/collectSymbols.h"

#include <unordered_set>

#include "bundle/RecordReading.h"

namespace vnt {
namespace {

/// Stacks remembered as done; some 50 bytes each. Forgetting them costs time only.
constexpr size_t kMaxDone = 1u << 20;

struct StackOfProcess {
    uint32_t pid = 0;
    uint64_t key = 0;
    bool operator==(const StackOfProcess&) const = default;
};
struct StackHash {
    size_t operator()(const StackOfProcess& stack) const
    {
        return static_cast<size_t>((stack.key ^ uint64_t{stack.pid} << 40) * 0x9e3779b97f4a7c15ULL >> 7);
    }
};

/// A stack is looked at again after so much recorded time: a module can have been mapped elsewhere meanwhile.
constexpr uint64_t kForgetAfterNs = 1'000'000'000;

/// A leak's stack is that of its allocation, when other modules may have been mapped.
uint64_t timeOfStack(const Record& record)
{
    for (const Record::Value& value : record.values) {
        if (record.kind == RecordKind::kLeak && value.name == "allocated_ns")
            return static_cast<uint64_t>(value.value);
    }
    return record.timeNs;
}

/// Of live blocks, or of a leak.
void collectClass(const Record& record, Symbolizer& symbolizer)
{
    if (record.kind != RecordKind::kClass && record.kind != RecordKind::kLeak)
        return;
    uint64_t table = 0;
    uint64_t code = 0;
    for (const Record::Value& value : record.values) {
        if (value.name == "table")
            table = static_cast<uint64_t>(value.value);
        else if (value.name == "code")
            code = static_cast<uint64_t>(value.value);
    }
    if (table != 0)
        (void)symbolizer.className(record.pid, table, code, record.timeNs);
}

} // namespace

void collectSymbols(Bundle& bundle, StoredSymbolsWriter& writer,
                    const std::function<void(const std::string& identifier)>& progress)
{
    bundle.setCollector(&writer);
    for (const std::string& identifier : bundle.instruments()) {
        if (progress)
            progress(identifier);
        const InstrumentData data = bundle.instrument(identifier);
        const auto symbolizer = bundle.symbolizer(data);
        std::unordered_set<StackOfProcess, StackHash> done;
        uint64_t forgotNs = 0;
        readRecords(bundle, data, [&](const Record& record) {
            if (record.kind == RecordKind::kFork && !record.values.empty())
                symbolizer->noteFork(record.pid, static_cast<uint32_t>(record.values[0].value));
            if (done.size() >= kMaxDone || record.timeNs > forgotNs + kForgetAfterNs) {
                done.clear();
                forgotNs = record.timeNs;
            }
            const bool isNew = done.insert({record.pid, record.stackKey}).second;
            collectClass(record, *symbolizer);
            if (record.stack.empty() || (!isNew && record.kind != RecordKind::kLeak))
                return true;
            const uint64_t timeNs = timeOfStack(record);
            for (size_t i = 0; i < record.stack.size(); ++i)
                (void)symbolizer->resolve(record.pid, record.stack[i], timeNs, record.role(i));
            return true;
        });
    }
    bundle.setCollector(nullptr);
}

} // namespace vnt
