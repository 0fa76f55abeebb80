#include "platform/base/Check.h"
#include "platform/foundation/Collections.h"
#include "platform/foundation/deep.h"
#include "platform/foundation/hashing.h"

namespace vnt {
namespace {

constexpr size_t kLinearEntries = 8;

bool isText(const Object& key, std::string_view text)
{
    return key.typeId() == TypeId::kString && static_cast<const String&>(key).str() == text;
}

} // namespace

Ref<Dictionary> Dictionary::create(const std::vector<Entry>& entries)
{
    Ref<Dictionary> result = makeRef<Dictionary>();
    result->_entries.reserve(entries.size());
    for (const auto& [key, value] : entries)
        result->assign(key, value);
    return result;
}

template <typename Matches> size_t Dictionary::findHashed(size_t hash, Matches matches) const
{
    const size_t mask = _slots.size() - 1;
    for (size_t slot = hash & mask; _slots[slot] != 0; slot = (slot + 1) & mask) {
        const size_t index = _slots[slot] - 1;
        if (_hashes[index] == hash && matches(*_entries[index].first))
            return index;
    }
    return kNotFound;
}

size_t Dictionary::find(const Object& key) const
{
    if (const auto* string = as<String>(&key))
        return find(std::string_view(string->str()));
    if (!_slots.empty())
        return findHashed(key.hash(), [&](const Object& candidate) { return candidate.isEqual(key); });
    for (size_t i = 0; i < _entries.size(); ++i) {
        if (_entries[i].first->isEqual(key))
            return i;
    }
    return kNotFound;
}

size_t Dictionary::find(std::string_view key) const
{
    if (!_slots.empty())
        return findHashed(hashBytes(key), [&](const Object& candidate) { return isText(candidate, key); });
    for (size_t i = 0; i < _entries.size(); ++i) {
        if (isText(*_entries[i].first, key))
            return i;
    }
    return kNotFound;
}

Ref<Object> Dictionary::get(const Object& key) const
{
    const size_t index = find(key);
    return index == kNotFound ? nullptr : _entries[index].second;
}

Ref<Object> Dictionary::get(std::string_view key) const
{
    const size_t index = find(key);
    return index == kNotFound ? nullptr : _entries[index].second;
}

void Dictionary::insertSlot(size_t hash, size_t index)
{
    const size_t mask = _slots.size() - 1;
    size_t slot = hash & mask;
    while (_slots[slot] != 0)
        slot = (slot + 1) & mask;
    _slots[slot] = static_cast<uint32_t>(index + 1);
}

void Dictionary::rebuildIndex()
{
    if (_entries.size() <= kLinearEntries) {
        _slots.clear();
        _hashes.clear();
        return;
    }
    for (size_t i = _hashes.size(); i < _entries.size(); ++i)
        _hashes.push_back(_entries[i].first->hash());
    size_t slots = 32;
    while (slots < _entries.size() * 2)
        slots *= 2;
    _slots.assign(slots, 0);
    for (size_t i = 0; i < _hashes.size(); ++i)
        insertSlot(_hashes[i], i);
}

void Dictionary::assign(Ref<Object> key, Ref<Object> value)
{
    VNT_CHECK(key && value);
    const size_t index = find(*key);
    if (index != kNotFound) {
        _entries[index].second = std::move(value);
        return;
    }
    VNT_CHECK(_entries.size() < UINT32_MAX - 1);
    _entries.emplace_back(std::move(key), std::move(value));
    if (_entries.size() <= kLinearEntries)
        return;
    if (_slots.empty() || _entries.size() * 4 > _slots.size() * 3) {
        rebuildIndex();
        return;
    }
    _hashes.push_back(_entries.back().first->hash());
    insertSlot(_hashes.back(), _entries.size() - 1);
}

void Dictionary::removeAt(size_t index)
{
    if (index == kNotFound)
        return;
    const Entry removed = std::move(_entries[index]); // released last: its destructor must not see us half changed
    _entries.erase(_entries.begin() + static_cast<ptrdiff_t>(index));
    if (!_hashes.empty())
        _hashes.erase(_hashes.begin() + static_cast<ptrdiff_t>(index));
    rebuildIndex();
}

void Dictionary::clear()
{
    const std::vector<Entry> removed = std::exchange(_entries, {});
    _slots.clear();
    _hashes.clear();
}

bool Dictionary::isEqual(const Object& other) const { return deepEqual(*this, other); }
std::string Dictionary::description() const { return deepDescription(*this); }

Ref<MutableDictionary> MutableDictionary::create() { return makeRef<MutableDictionary>(); }

Ref<MutableDictionary> MutableDictionary::copyOf(const Dictionary& other)
{
    Ref<MutableDictionary> copy = create();
    copy->_entries.reserve(other.count());
    copy->merge(other);
    return copy;
}

void MutableDictionary::merge(const Dictionary& other)
{
    if (&other == this)
        return;
    for (const auto& [key, value] : other.entries())
        assign(key, value);
}

} // namespace vnt
