#include "bundle/RecordSorter.h"

#include <algorithm>

namespace vnt {

size_t RecordSorter::waitingBytes() const
{
    return _waiting.size() * sizeof(Waiting) + _words.size() * sizeof(uint64_t) + _texts.size()
        + _values.size() * sizeof(Record::Value);
}

bool RecordSorter::add(const Record& record)
{
    if (!_totals.isComplete)
        return false;
    Waiting waiting{record, static_cast<uint32_t>(_words.size()), static_cast<uint32_t>(_texts.size()),
                    static_cast<uint32_t>(_values.size())};
    _words.insert(_words.end(), record.stack.begin(), record.stack.end());
    _texts.append(record.thread).append(record.name).append(record.text);
    _values.insert(_values.end(), record.values.begin(), record.values.end());
    _waiting.push_back(waiting);
    _newestNs = std::max(_newestNs, record.timeNs);
    // Half a window at a time, so that each record is moved a few times at most.
    if (_newestNs > kWindowNs && _newestNs - kWindowNs > _releasedNs + kWindowNs / 2) {
        release(_newestNs - kWindowNs);
    } else if (waitingBytes() > kMaxBytes) {
        std::vector<uint64_t> times;
        for (const Waiting& each : _waiting)
            times.push_back(each.record.timeNs);
        const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
        std::nth_element(times.begin(), middle, times.end());
        release(*middle + 1);
    }
    return _totals.isComplete;
}

/// Delivers what is older than `untilNs`, in the order of time, and of equal times in that of the recording.
void RecordSorter::release(uint64_t untilNs)
{
    const auto kept = std::stable_partition(_waiting.begin(), _waiting.end(),
                                            [=](const Waiting& waiting) { return waiting.record.timeNs < untilNs; });
    std::vector<const Waiting*> ready;
    for (auto each = _waiting.begin(); each != kept; ++each)
        ready.push_back(&*each);
    std::stable_sort(ready.begin(), ready.end(),
                     [](const Waiting* a, const Waiting* b) { return a->record.timeNs < b->record.timeNs; });
    for (const Waiting* waiting : ready)
        deliver(*waiting);
    compact({kept, _waiting.end()});
    _releasedNs = std::max(_releasedNs, untilNs);
}

void RecordSorter::compact(std::vector<Waiting> kept)
{
    std::vector<uint64_t> words;
    std::string texts;
    std::vector<Record::Value> values;
    for (Waiting& waiting : kept) {
        const auto stack = _words.begin() + waiting.stackAt;
        waiting.stackAt = static_cast<uint32_t>(words.size());
        words.insert(words.end(), stack, stack + static_cast<std::ptrdiff_t>(waiting.record.stack.size()));
        const size_t textAt = waiting.textAt;
        waiting.textAt = static_cast<uint32_t>(texts.size());
        texts.append(_texts, textAt,
                     waiting.record.thread.size() + waiting.record.name.size() + waiting.record.text.size());
        const auto from = _values.begin() + waiting.valuesAt;
        waiting.valuesAt = static_cast<uint32_t>(values.size());
        values.insert(values.end(), from, from + static_cast<std::ptrdiff_t>(waiting.record.values.size()));
    }
    _waiting = std::move(kept);
    _words = std::move(words);
    _texts = std::move(texts);
    _values = std::move(values);
}

void RecordSorter::deliver(const Waiting& waiting)
{
    if (!_totals.isComplete)
        return;
    Record record = waiting.record;
    record.stack = std::span(_words).subspan(waiting.stackAt, record.stack.size());
    std::string_view texts = std::string_view(_texts).substr(waiting.textAt);
    for (std::string_view* text : {&record.thread, &record.name, &record.text}) {
        *text = texts.substr(0, text->size());
        texts.remove_prefix(text->size());
    }
    record.values = std::span(_values).subspan(waiting.valuesAt, record.values.size());
    ++_totals.records;
    _totals.unordered += record.timeNs < _deliveredNs;
    _deliveredNs = std::max(_deliveredNs, record.timeNs);
    _totals.isComplete = _sink(record);
}

} // namespace vnt
