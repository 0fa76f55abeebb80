#include <algorithm>

#include "platform/foundation/KeyedArchive.h"
#include "platform/foundation/ObjectGraph.h"
#include "platform/foundation/archive_names.h"
#include "platform/foundation/plist_codecs.h"

namespace vnt {
namespace {

using namespace archive;

enum class Class { kUnknown, kArray, kDictionary, kSet, kUrl, kDate, kNull, kString, kData };

Class classNamed(std::string_view name)
{
    constexpr std::pair<std::string_view, Class> kClasses[] = {
        {"NSArray", Class::kArray},
        {"NSMutableArray", Class::kArray},
        {"NSDictionary", Class::kDictionary},
        {"NSMutableDictionary", Class::kDictionary},
        {"NSSet", Class::kSet},
        {"NSMutableSet", Class::kSet},
        {"NSURL", Class::kUrl},
        {"NSDate", Class::kDate},
        {"NSNull", Class::kNull},
        {"NSString", Class::kString},
        {"NSMutableString", Class::kString},
        {"NSData", Class::kData},
        {"NSMutableData", Class::kData},
    };
    for (const auto& [known, meaning] : kClasses) {
        if (name == known)
            return meaning;
    }
    return Class::kUnknown;
}

/// Turns entries of the object table into objects, each once, with a stack of open collections. An entry that cannot be
/// resolved fails every object that holds it, and nothing else.
class Resolver {
public:
    Resolver(const Array& table, size_t inputBytes, const PropertyListLimits& limits)
        : _table(table),
          _entries(table.count()),
          _limits(limits),
          _heldBudget(limits.maxObjects),
          _keyBudget(inputBytes * plist::kKeyBytesPerInputByte)
    {
    }

    /// Null when the entry stands for null or is damaged.
    Ref<Object> resolve(uint64_t uid)
    {
        begin(uid);
        while (!_open.empty())
            step();
        return uid < _entries.size() ? _entries[static_cast<size_t>(uid)].object : nullptr;
    }

private:
    enum class State : uint8_t { kUnknown, kBeingRead, kReady, kDamaged };
    struct Entry {
        State state = State::kUnknown;
        uint32_t height = 1;
        Ref<Object> object;
    };
    struct OpenCollection {
        size_t entry;
        Class kind;
        Ref<Array> keys; // dictionaries only
        Ref<Array> items;
        size_t next = 0;
    };

    void set(size_t index, Ref<Object> object, uint32_t height = 1)
    {
        Entry& entry = _entries[index];
        entry.state = object ? State::kReady : State::kDamaged;
        entry.height = height;
        entry.object = std::move(object);
    }

    void begin(uint64_t uid)
    {
        if (uid == 0 || uid >= _entries.size() || _entries[static_cast<size_t>(uid)].state != State::kUnknown)
            return;
        const auto index = static_cast<size_t>(uid);
        const Ref<Object>& raw = _table.at(index);
        const Ref<Dictionary> entry = as<Dictionary>(raw);
        if (!entry) {
            const bool isValue = !isCollection(*raw) && raw->typeId() != TypeId::kUid;
            set(index, isValue ? raw : nullptr);
            return;
        }
        const Class kind = classOf(*entry);
        if (kind != Class::kArray && kind != Class::kDictionary && kind != Class::kSet)
            set(index, valueOf(*entry, kind));
        else
            beginCollection(index, *entry, kind);
    }

    /// The entry that a UID names, when it is one.
    [[nodiscard]] Ref<Object> rawAt(const Ref<Object>& reference) const
    {
        const auto* uid = as<Uid>(static_cast<const Object*>(reference.get()));
        return uid && uid->value() < _table.count() ? _table.at(static_cast<size_t>(uid->value())) : nullptr;
    }

    [[nodiscard]] Class classOf(const Dictionary& entry) const
    {
        const Ref<Dictionary> description = as<Dictionary>(rawAt(entry.get(kClassKey)));
        const Ref<String> name = description ? description->get<String>(kClassNameKey) : nullptr;
        return name ? classNamed(name->str()) : Class::kUnknown;
    }

    [[nodiscard]] Ref<Object> valueOf(const Dictionary& entry, Class kind) const
    {
        switch (kind) {
        case Class::kNull:
            return Null::create();
        case Class::kDate: {
            const Ref<Number> seconds = entry.get<Number>(kTimeKey);
            return seconds ? Date::withSecondsSince2001(seconds->doubleValue()) : nullptr;
        }
        case Class::kString:
            return entry.get<String>(kTextKey);
        case Class::kData:
            return entry.get<Data>(kDataKey);
        case Class::kUrl: {
            // A relative URL has no meaning without its base, and no writer of ours makes one.
            const auto* base = as<Uid>(entry.get(kBaseKey).get());
            const Ref<String> text = as<String>(rawAt(entry.get(kRelativeKey)));
            return text && (!base || base->value() == 0) ? Url::withString(text->str()) : nullptr;
        }
        default:
            return nullptr;
        }
    }

    void beginCollection(size_t index, const Dictionary& entry, Class kind)
    {
        OpenCollection open{
            .entry = index, .kind = kind, .keys = entry.get<Array>(kKeysKey), .items = entry.get<Array>(kItemsKey)};
        if (kind != Class::kDictionary)
            open.keys = Array::create();
        // Arrays of references may be shared in the file: what all collections hold together is limited too.
        const bool sound = open.keys && open.items && _open.size() < _limits.maxDepth
            && (kind != Class::kDictionary || open.keys->count() == open.items->count())
            && open.items->count() <= _heldBudget && open.keys->count() <= _heldBudget - open.items->count();
        if (!sound) {
            set(index, nullptr);
            return;
        }
        _heldBudget -= open.keys->count() + open.items->count();
        _entries[index].state = State::kBeingRead;
        _open.push_back(std::move(open));
    }

    /// Number of what the innermost collection holds at `index`: keys first, then items. 0 when it is no reference to a
    /// table entry.
    [[nodiscard]] static uint64_t heldAt(const OpenCollection& open, size_t index)
    {
        const size_t keys = open.keys->count();
        const Ref<Object>& reference = index < keys ? open.keys->at(index) : open.items->at(index - keys);
        const auto* uid = as<Uid>(static_cast<const Object*>(reference.get()));
        return uid ? uid->value() : 0;
    }

    void step()
    {
        OpenCollection& open = _open.back();
        const size_t count = open.keys->count() + open.items->count();
        for (; open.next < count; ++open.next) {
            const uint64_t uid = heldAt(open, open.next);
            const size_t depth = _open.size();
            begin(uid);
            if (_open.size() != depth)
                return; // `open` may have moved
            if (uid == 0 || uid >= _entries.size() || _entries[static_cast<size_t>(uid)].state != State::kReady) {
                fail();
                return;
            }
        }
        finish();
    }

    void fail()
    {
        set(_open.back().entry, nullptr);
        _open.pop_back();
    }

    [[nodiscard]] const Entry& heldEntry(const OpenCollection& open, size_t index) const
    {
        return _entries[static_cast<size_t>(heldAt(open, index))];
    }

    /// Charges a key or a set's member for its hashing; collections are refused as either.
    bool mayHash(const Object& object)
    {
        const size_t bytes = plist::keyBytes(object);
        if (isCollection(object) || bytes > _keyBudget)
            return false;
        _keyBudget -= bytes;
        return true;
    }

    void finish()
    {
        const OpenCollection open = std::move(_open.back());
        _open.pop_back();
        const size_t keys = open.keys->count();
        const size_t items = open.items->count();
        uint32_t height = 1;
        for (size_t i = 0; i < keys + items; ++i) {
            const Entry& entry = heldEntry(open, i);
            height = std::max(height, entry.height + 1);
            const bool hashed = i < keys || open.kind == Class::kSet;
            if (hashed && !mayHash(*entry.object)) {
                set(open.entry, nullptr);
                return;
            }
        }
        if (height > _limits.maxDepth + 1)
            set(open.entry, nullptr);
        else
            set(open.entry, build(open, keys, items), height);
    }

    [[nodiscard]] Ref<Object> build(const OpenCollection& open, size_t keys, size_t items) const
    {
        if (open.kind == Class::kDictionary) {
            std::vector<Dictionary::Entry> entries;
            entries.reserve(keys);
            for (size_t i = 0; i < keys; ++i)
                entries.emplace_back(heldEntry(open, i).object, heldEntry(open, keys + i).object);
            return Dictionary::create(entries);
        }
        std::vector<Ref<Object>> objects;
        objects.reserve(items);
        for (size_t i = 0; i < items; ++i)
            objects.push_back(heldEntry(open, i).object);
        if (open.kind == Class::kSet)
            return Set::create(objects);
        return Array::create(std::move(objects));
    }

    const Array& _table;
    std::vector<Entry> _entries;
    const PropertyListLimits& _limits;
    size_t _heldBudget;
    uint64_t _keyBudget;
    std::vector<OpenCollection> _open;
};

Status notAnArchive(const char* what) { return Status(Code::kInvalid, std::string("archive: ") + what); }

} // namespace

Result<KeyedUnarchiver> KeyedUnarchiver::open(std::span<const std::byte> bytes, const PropertyListLimits& limits)
{
    ASSIGN_OR_RETURN(const Ref<Object> list, readPropertyList(bytes, limits));
    const Ref<Dictionary> root = as<Dictionary>(list);
    if (!root)
        return notAnArchive("not a dictionary");
    const Ref<String> archiver = root->get<String>(kArchiverKey);
    const Ref<Number> version = root->get<Number>(kVersionKey);
    if (!archiver || archiver->str() != kArchiver || !version || version->int64Value() != kVersion)
        return notAnArchive("other archiver or version");
    const Ref<Dictionary> top = root->get<Dictionary>(kTopKey);
    const Ref<Array> table = root->get<Array>(kObjectsKey);
    if (!top || !table)
        return notAnArchive("no top or no object table");
    Resolver resolver(*table, bytes.size(), limits);
    const Ref<MutableDictionary> resolved = MutableDictionary::create();
    for (const auto& [key, value] : top->entries()) {
        const auto* uid = as<Uid>(static_cast<const Object*>(value.get()));
        const Ref<Object> object = uid ? resolver.resolve(uid->value()) : nullptr;
        if (uid && !object)
            resolved->set(key, Uid::create(0)); // null or damaged: present without an object
        else
            resolved->set(key, uid ? object : value);
    }
    return KeyedUnarchiver(resolved);
}

std::vector<std::string> KeyedUnarchiver::keys() const
{
    std::vector<std::string> names;
    for (const auto& entry : _top->entries())
        names.push_back(entry.first->description());
    return names;
}

bool KeyedUnarchiver::has(std::string_view key) const { return static_cast<bool>(_top->get(key)); }

int64_t KeyedUnarchiver::decodeInt64(std::string_view key, int64_t fallback) const
{
    const Ref<Number> number = _top->get<Number>(key);
    return number ? number->int64Value() : fallback;
}

bool KeyedUnarchiver::decodeBool(std::string_view key, bool fallback) const
{
    const Ref<Number> number = _top->get<Number>(key);
    return number ? number->boolValue() : fallback;
}

Ref<Object> KeyedUnarchiver::decodeObject(std::string_view key) const
{
    Ref<Object> object = _top->get(key);
    return object && object->typeId() != TypeId::kUid ? object : nullptr;
}

} // namespace vnt
