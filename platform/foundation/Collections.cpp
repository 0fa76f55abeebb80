#include "platform/foundation/Collections.h"

#include "platform/base/Check.h"
#include "platform/foundation/deep.h"

namespace vnt {

Ref<Array> Array::create(std::vector<Ref<Object>> items)
{
    for (const Ref<Object>& item : items)
        VNT_CHECK(item);
    return makeRef<Array>(std::move(items));
}

bool Array::contains(const Object& object) const
{
    for (const Ref<Object>& item : _items) {
        if (item.get() == &object || item->isEqual(object))
            return true;
    }
    return false;
}

bool Array::isEqual(const Object& other) const { return deepEqual(*this, other); }
std::string Array::description() const { return deepDescription(*this); }

Ref<MutableArray> MutableArray::create() { return makeRef<MutableArray>(); }

void MutableArray::append(Ref<Object> object)
{
    VNT_CHECK(object);
    _items.push_back(std::move(object));
}

Ref<Set> Set::create(const std::vector<Ref<Object>>& items)
{
    Ref<Set> set = makeRef<Set>();
    for (const Ref<Object>& item : items)
        set->add(item);
    return set;
}

void Set::add(const Ref<Object>& object)
{
    VNT_CHECK(object);
    if (!contains(*object))
        _members->set(object, object);
}

std::vector<Ref<Object>> Set::items() const
{
    std::vector<Ref<Object>> result;
    result.reserve(count());
    for (const auto& entry : _members->entries())
        result.push_back(entry.first);
    return result;
}

bool Set::isEqual(const Object& other) const { return deepEqual(*this, other); }
std::string Set::description() const { return deepDescription(*this); }

} // namespace vnt
