#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "platform/foundation/Values.h"

namespace vnt {

/// Ordered list. Elements are never null (use Null).
class Array : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kArray;
    [[nodiscard]] static Ref<Array> create(std::vector<Ref<Object>> items = {});

    [[nodiscard]] size_t count() const { return _items.size(); }
    [[nodiscard]] const Ref<Object>& at(size_t index) const { return _items.at(index); }
    [[nodiscard]] const std::vector<Ref<Object>>& items() const { return _items; }
    [[nodiscard]] bool contains(const Object& object) const;
    [[nodiscard]] bool isEqual(const Object& other) const override;
    [[nodiscard]] size_t hash() const override { return _items.size(); }
    [[nodiscard]] std::string description() const override;

protected:
    VNT_MAKE_REF_FRIEND;
    explicit Array(std::vector<Ref<Object>> items) : Object(kTypeId), _items(std::move(items)) { }
    std::vector<Ref<Object>> _items;
};

class MutableArray final : public Array {
public:
    [[nodiscard]] static Ref<MutableArray> create();
    void append(Ref<Object> object);

private:
    VNT_MAKE_REF_FRIEND;
    MutableArray() : Array({}) { }
};

/// Keys to objects; insertion order is the enumeration order. Setting a key that is present keeps its place.
/// Keys are compared by value. Up to eight entries a look-up compares keys one by one (about 3 ns each); above that it
/// is one hash (about 20 ns). Adding is O(1); removing keeps the order of the rest and is O(count).
class Dictionary : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kDictionary;
    using Entry = std::pair<Ref<Object>, Ref<Object>>;
    /// Later duplicates of a key replace the value.
    [[nodiscard]] static Ref<Dictionary> create(const std::vector<Entry>& entries = {});

    [[nodiscard]] size_t count() const { return _entries.size(); }
    [[nodiscard]] const std::vector<Entry>& entries() const { return _entries; }
    /// Null when absent.
    [[nodiscard]] Ref<Object> get(const Object& key) const;
    [[nodiscard]] Ref<Object> get(std::string_view key) const;
    template <typename T> [[nodiscard]] Ref<T> get(std::string_view key) const { return as<T>(get(key)); }
    [[nodiscard]] bool isEqual(const Object& other) const override;
    [[nodiscard]] size_t hash() const override { return _entries.size(); }
    [[nodiscard]] std::string description() const override;

protected:
    VNT_MAKE_REF_FRIEND;
    Dictionary() : Object(kTypeId) { }
    /// Stops the process when `key` or `value` is null.
    void assign(Ref<Object> key, Ref<Object> value);
    /// Index into _entries, or kNotFound.
    [[nodiscard]] size_t find(const Object& key) const;
    [[nodiscard]] size_t find(std::string_view key) const;
    void removeAt(size_t index);
    void clear();

    static constexpr size_t kNotFound = SIZE_MAX;

private:
    template <typename Matches> [[nodiscard]] size_t findHashed(size_t hash, Matches matches) const;
    void insertSlot(size_t hash, size_t index);
    void rebuildIndex();

protected:
    std::vector<Entry> _entries;

private:
    // Empty while the dictionary is small. Open addressing: slot -> index into _entries plus one, 0 when free.
    std::vector<uint32_t> _slots;
    std::vector<size_t> _hashes; // of the key of each entry
};

class MutableDictionary final : public Dictionary {
public:
    [[nodiscard]] static Ref<MutableDictionary> create();
    [[nodiscard]] static Ref<MutableDictionary> copyOf(const Dictionary& other);
    void set(Ref<Object> key, Ref<Object> value) { assign(std::move(key), std::move(value)); }
    void set(std::string_view key, Ref<Object> value) { assign(String::create(key), std::move(value)); }
    /// Sets every entry of `other`, replacing values of keys already present.
    void merge(const Dictionary& other);
    void remove(const Object& key) { removeAt(find(key)); }
    void remove(std::string_view key) { removeAt(find(key)); }
    void removeAll() { clear(); }

private:
    VNT_MAKE_REF_FRIEND;
    MutableDictionary() = default;
};

/// Distinct objects in insertion order.
class Set final : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kSet;
    [[nodiscard]] static Ref<Set> create(const std::vector<Ref<Object>>& items = {});
    void add(const Ref<Object>& object);
    [[nodiscard]] bool contains(const Object& object) const { return static_cast<bool>(_members->get(object)); }
    [[nodiscard]] std::vector<Ref<Object>> items() const;
    [[nodiscard]] size_t count() const { return _members->count(); }
    [[nodiscard]] bool isEqual(const Object& other) const override;
    [[nodiscard]] size_t hash() const override { return count(); }
    [[nodiscard]] std::string description() const override;

private:
    VNT_MAKE_REF_FRIEND;
    Set() : Object(kTypeId), _members(MutableDictionary::create()) { }
    const Ref<MutableDictionary> _members;
};

} // namespace vnt
