#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unordered_set>

#include "bundle/Instruments.h"
#include "bundle/RecordReading.h"
#include <Vantora/Bundle.h>

/// What the C interface's handle stands for.
struct vnt_bundle {
    /// One instrument, opened when first asked for.
    struct Instrument {
        explicit Instrument(vnt::InstrumentData opened) : data(std::move(opened)) { }
        vnt::InstrumentData data;
        std::unique_ptr<vnt::Symbolizer> symbolizer;
    };

    explicit vnt_bundle(vnt::Bundle opened) : bundle(std::move(opened)), instruments(bundle.instruments().size()) { }

    Instrument* instrument(size_t number)
    {
        if (number >= instruments.size())
            return nullptr;
        if (!instruments[number])
            instruments[number] = std::make_unique<Instrument>(bundle.instrument(bundle.instruments()[number]));
        return instruments[number].get();
    }
    vnt::Symbolizer& symbolizer(Instrument& instrument)
    {
        if (!instrument.symbolizer)
            instrument.symbolizer = bundle.symbolizer(instrument.data);
        return *instrument.symbolizer;
    }
    /// A copy that ends with a zero and stays.
    const char* kept(std::string_view text) { return texts.emplace(text).first->c_str(); }

    vnt::Bundle bundle;
    std::vector<std::unique_ptr<Instrument>> instruments; // behind the bundle, whose remarks they tell
    std::unordered_set<std::string> texts;
};

namespace {

using vnt::RecordKind;

static_assert(VNT_BUNDLE_SAMPLE == static_cast<int>(RecordKind::kSample)
              && VNT_BUNDLE_HEAP_TARGET == static_cast<int>(RecordKind::kHeapTarget)
              && VNT_BUNDLE_EVENT == static_cast<int>(RecordKind::kEvent)
              && VNT_BUNDLE_PROCESS_ENDED == static_cast<int>(RecordKind::kProcessEnded)
              && VNT_BUNDLE_LEAK == static_cast<int>(RecordKind::kLeak)
              && VNT_BUNDLE_CLASS == static_cast<int>(RecordKind::kClass));

/// The one place where exceptions (no memory, in effect) end.
template <typename Body, typename Answer> Answer guarded(Answer otherwise, Body body) noexcept
{
    try {
        return body();
    } catch (...) {
        return otherwise;
    }
}

/// Into a struct of the caller's version.
template <typename Struct> void fill(Struct* target, Struct source)
{
    source.size = target->size;
    std::memcpy(target, &source, std::min<size_t>(target->size, sizeof source));
}

/// A record in the shape of C. Its memory is used again for each record.
class RecordView {
public:
    const vnt_bundle_record& of(const vnt::Record& record)
    {
        _texts.clear();
        for (const std::string_view text : {record.thread, record.name, record.text})
            _texts.append(text).push_back('\0');
        _values.clear();
        for (const vnt::Record::Value& value : record.values)
            _values.push_back({value.name.data(), value.value}); // constants and strings: they end with a zero
        const char* text = _texts.data();
        _record.size = sizeof _record;
        _record.kind = static_cast<uint32_t>(record.kind);
        _record.time_ns = record.timeNs;
        _record.duration_ns = record.durationNs;
        _record.pid = record.pid;
        _record.tid = record.tid;
        _record.cpu = record.cpu;
        _record.flags = (record.isStackWhole ? 0 : VNT_BUNDLE_STACK_CUT)
            | (record.innermost == vnt::FrameRole::kReturn ? VNT_BUNDLE_INNERMOST_IS_RETURN : 0);
        _record.thread = text;
        _record.name = text + record.thread.size() + 1;
        _record.text = _record.name + record.name.size() + 1;
        _record.stack = record.stack.data();
        _record.stack_count = record.stack.size();
        _record.values = _values.data();
        _record.value_count = _values.size();
        _record.stack_key = record.stackKey;
        return _record;
    }

private:
    vnt_bundle_record _record{};
    std::string _texts;
    std::vector<vnt_bundle_value> _values;
};

std::string_view displayName(std::string_view identifier)
{
    for (const vnt::InstrumentKind& kind : vnt::kInstrumentKinds) {
        if (kind.identifier == identifier)
            return kind.displayName;
    }
    return identifier;
}

void writeError(char* error, size_t size, const char* text)
{
    if (error && size != 0)
        std::snprintf(error, size, "%s", text);
}

} // namespace

extern "C" {

const char* vnt_bundle_version(void) { return "1.0.0"; }

vnt_bundle* vnt_bundle_open(const char* path, char* error, size_t error_size)
{
    writeError(error, error_size, "no memory");
    return guarded(static_cast<vnt_bundle*>(nullptr), [&]() -> vnt_bundle* {
        if (!path) {
            writeError(error, error_size, "no path");
            return nullptr;
        }
        auto opened = vnt::Bundle::open(path);
        if (!opened.ok()) {
            writeError(error, error_size, opened.status().message().c_str());
            return nullptr;
        }
        auto bundle = std::make_unique<vnt_bundle>(opened.take());
        writeError(error, error_size, "");
        return bundle.release();
    });
}

void vnt_bundle_close(vnt_bundle* bundle) { delete bundle; }

size_t vnt_bundle_instrument_count(const vnt_bundle* bundle) { return bundle ? bundle->instruments.size() : 0; }

int vnt_bundle_instrument_info(vnt_bundle* bundle, size_t instrument, vnt_bundle_info* info)
{
    return guarded(-1, [&] {
        auto* known = bundle && info ? bundle->instrument(instrument) : nullptr;
        if (!known)
            return -1;
        vnt_bundle_info filled{};
        filled.pid = known->data.pid().value_or(-1);
        filled.identifier = bundle->kept(known->data.identifier());
        filled.name = bundle->kept(displayName(known->data.identifier()));
        filled.start_seconds = known->data.startSeconds();
        filled.stop_seconds = known->data.stopSeconds();
        filled.start_ns = known->data.startNs();
        filled.stop_ns = known->data.stopNs();
        fill(info, filled);
        return 0;
    });
}

int vnt_bundle_read(vnt_bundle* bundle, size_t instrument, vnt_bundle_callback callback, void* context,
                    vnt_bundle_totals* totals)
{
    return guarded(-1, [&] {
        auto* known = bundle && callback ? bundle->instrument(instrument) : nullptr;
        if (!known)
            return -1;
        vnt::Symbolizer& symbolizer = bundle->symbolizer(*known);
        RecordView view;
        const vnt::RecordTotals read = readRecords(bundle->bundle, known->data, [&](const vnt::Record& record) {
            if (record.kind == RecordKind::kFork && !record.values.empty())
                symbolizer.noteFork(record.pid, static_cast<uint32_t>(record.values[0].value));
            return callback(&view.of(record), context) != 0;
        });
        if (totals) {
            vnt_bundle_totals filled{};
            filled.complete = read.isComplete ? 1 : 0;
            filled.records = read.records;
            filled.unordered = read.unordered;
            filled.orphans = read.orphans;
            filled.messages = read.messages.messages;
            filled.missing_messages = std::max(read.missingMessages, read.messages.dropped);
            filled.damaged_messages = read.damagedMessages;
            fill(totals, filled);
        }
        return 0;
    });
}

int vnt_bundle_is_return(const vnt_bundle_record* record, size_t index)
{
    if (!record || index >= record->stack_count)
        return 0;
    vnt::Record stack;
    stack.stack = {record->stack, record->stack_count};
    stack.innermost =
        (record->flags & VNT_BUNDLE_INNERMOST_IS_RETURN) != 0 ? vnt::FrameRole::kReturn : vnt::FrameRole::kExact;
    return stack.role(index) == vnt::FrameRole::kReturn ? 1 : 0;
}

size_t vnt_bundle_symbolize(vnt_bundle* bundle, size_t instrument, uint32_t pid, uint64_t address, uint64_t time_ns,
                            int is_return, vnt_bundle_frame* frames, size_t capacity)
{
    return guarded(size_t{0}, [&]() -> size_t {
        auto* known = bundle ? bundle->instrument(instrument) : nullptr;
        if (!known)
            return 0;
        vnt::Symbolizer& symbolizer = bundle->symbolizer(*known);
        const auto role = is_return != 0 ? vnt::FrameRole::kReturn : vnt::FrameRole::kExact;
        const auto found = symbolizer.frames(pid, address, time_ns, role);
        for (size_t i = 0; frames && i < std::min(capacity, found.size()); ++i) {
            const vnt::Symbol& symbol = symbolizer.symbol(found[i].symbol);
            frames[i] = {bundle->kept(symbol.function), bundle->kept(symbol.module), bundle->kept(found[i].file),
                         found[i].line, found[i].inlined ? 1u : 0u};
        }
        return found.size();
    });
}

size_t vnt_bundle_remark_count(const vnt_bundle* bundle)
{
    return bundle ? bundle->bundle.remarks().texts().size() : 0;
}

const char* vnt_bundle_remark(const vnt_bundle* bundle, size_t index)
{
    return index < vnt_bundle_remark_count(bundle) ? bundle->bundle.remarks().texts()[index].c_str() : "";
}

} // extern "C"
