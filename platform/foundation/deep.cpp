#include "platform/foundation/deep.h"

#include <unordered_set>
#include <vector>

#include "platform/foundation/ObjectGraph.h"

namespace vnt {
namespace {

using Pair = std::pair<const Object*, const Object*>;

struct PairHash {
    size_t operator()(const Pair& pair) const
    {
        return std::hash<const void*>()(pair.first) * 31 + std::hash<const void*>()(pair.second);
    }
};

class Comparison {
public:
    bool run(const Object& a, const Object& b)
    {
        if (!add(a, b))
            return false;
        while (!_open.empty()) {
            const Pair pair = _open.back();
            _open.pop_back();
            if (!expand(*pair.first, *pair.second))
                return false;
        }
        return true;
    }

private:
    /// Compares values at once and puts collections on the list; false when they differ for certain.
    bool add(const Object& a, const Object& b)
    {
        if (&a == &b)
            return true;
        if (a.typeId() != b.typeId())
            return false;
        if (!isCollection(a))
            return a.isEqual(b);
        if (_seen.insert({&a, &b}).second)
            _open.emplace_back(&a, &b);
        return true;
    }

    bool expand(const Object& a, const Object& b)
    {
        if (const auto* left = as<Array>(&a)) {
            const auto& right = static_cast<const Array&>(b);
            if (left->count() != right.count())
                return false;
            for (size_t i = 0; i < left->count(); ++i) {
                if (!add(*left->items()[i], *right.items()[i]))
                    return false;
            }
            return true;
        }
        if (const auto* left = as<Dictionary>(&a)) {
            const auto& right = static_cast<const Dictionary&>(b);
            if (left->count() != right.count())
                return false;
            for (const auto& [key, value] : left->entries()) {
                const Ref<Object> other = right.get(*key);
                if (!other || !add(*value, *other))
                    return false;
            }
            return true;
        }
        const auto& left = static_cast<const Set&>(a);
        const auto& right = static_cast<const Set&>(b);
        if (left.count() != right.count())
            return false;
        for (const Ref<Object>& item : left.items()) {
            if (!right.contains(*item))
                return false;
        }
        return true;
    }

    std::vector<Pair> _open;
    std::unordered_set<Pair, PairHash> _seen;
};

constexpr size_t kDescriptionBytes = 1'000'000;
constexpr int kDescriptionLevels = 100;

void describe(const Object& object, int level, std::string& text);

void describeItems(const std::vector<Ref<Object>>& items, int level, std::string& text)
{
    const char* separator = "";
    for (const Ref<Object>& item : items) {
        if (text.size() > kDescriptionBytes)
            return;
        text += std::exchange(separator, ", ");
        describe(*item, level + 1, text);
    }
}

void describe(const Object& object, int level, std::string& text)
{
    if (!isCollection(object)) {
        text += object.description();
        return;
    }
    if (level > kDescriptionLevels) {
        text += "…";
        return;
    }
    if (const auto* dictionary = as<Dictionary>(&object)) {
        text += "{";
        for (const auto& [key, value] : dictionary->entries()) {
            if (text.size() > kDescriptionBytes)
                break;
            describe(*key, level + 1, text);
            text += " = ";
            describe(*value, level + 1, text);
            text += "; ";
        }
        text += "}";
        return;
    }
    const auto* set = as<Set>(&object);
    text += set ? "{(" : "(";
    describeItems(set ? set->items() : static_cast<const Array&>(object).items(), level, text);
    text += set ? ")}" : ")";
}

} // namespace

bool deepEqual(const Object& a, const Object& b) { return Comparison().run(a, b); }

std::string deepDescription(const Object& object)
{
    std::string text;
    describe(object, 0, text);
    if (text.size() > kDescriptionBytes)
        text += "…";
    return text;
}

} // namespace vnt
