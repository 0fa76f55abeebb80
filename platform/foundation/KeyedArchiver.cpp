#include "platform/foundation/KeyedArchive.h"
#include "platform/foundation/ObjectGraph.h"
#include "platform/foundation/archive_names.h"
#include "platform/foundation/plist_codecs.h"

namespace vnt {
namespace {

using namespace archive;

Status accepts(const Object& object)
{
    const auto holdsCollection = [](const auto& items, const auto& of) {
        for (const auto& item : items) {
            if (isCollection(*of(item)))
                return true;
        }
        return false;
    };
    switch (object.typeId()) {
    case TypeId::kError:
    case TypeId::kUid:
    case TypeId::kOther:
        return Status(Code::kUnsupported, "archive: " + object.description() + " is of no class that can be archived");
    case TypeId::kSet:
        // Telling collections apart in a set would let a hostile archive cost its reader any amount of work.
        if (holdsCollection(static_cast<const Set&>(object).items(), [](const auto& item) { return item; }))
            return Status(Code::kUnsupported, "archive: a set holds a collection");
        return {};
    case TypeId::kDictionary:
        if (holdsCollection(static_cast<const Dictionary&>(object).entries(), [](const auto& e) { return e.first; }))
            return Status(Code::kUnsupported, "archive: a key is a collection");
        return {};
    default:
        return {};
    }
}

std::string_view classOf(const Object& object)
{
    switch (object.typeId()) {
    case TypeId::kNull:
        return "NSNull";
    case TypeId::kDate:
        return "NSDate";
    case TypeId::kArray:
        return "NSArray";
    case TypeId::kDictionary:
        return "NSDictionary";
    case TypeId::kSet:
        return "NSSet";
    case TypeId::kUrl:
        return "NSURL";
    default:
        return {}; // stands directly in the table
    }
}

} // namespace

struct KeyedArchiver::State {
    explicit State(size_t capacity) : capacityBytes(capacity) { }

    void record(const Status& result)
    {
        if (status.ok())
            status = result;
    }

    /// Number 0 of the table is "$null"; the graph's objects follow in their order, then what only the archive has.
    static Ref<Uid> uidOf(size_t number) { return Uid::create(number + 1); }
    Ref<Uid> append(Ref<Object> entry)
    {
        extra.push_back(std::move(entry));
        return uidOf(graph.count() + extra.size() - 1);
    }

    Ref<Object> classUid(std::string_view name)
    {
        const Ref<String> key = String::create(name);
        if (Ref<Object> known = classes->get(*key))
            return known;
        const Ref<Array> ancestry = Array::create({key, String::create("NSObject")});
        Ref<Uid> uid =
            append(Dictionary::create({{String::create(kClassesKey), ancestry}, {String::create(kClassNameKey), key}}));
        classes->set(key, uid);
        return uid;
    }

    Ref<Array> uidsOf(std::span<const uint32_t> numbers)
    {
        std::vector<Ref<Object>> uids;
        uids.reserve(numbers.size());
        for (const uint32_t number : numbers)
            uids.push_back(uidOf(number));
        return Array::create(std::move(uids));
    }

    Ref<Object> entryFor(size_t number)
    {
        const Object& object = graph.at(number);
        const std::string_view className = classOf(object);
        if (className.empty())
            return Ref<Object>(const_cast<Object*>(&object));
        const Ref<MutableDictionary> entry = MutableDictionary::create();
        const auto held = graph.held(number);
        if (const auto* date = as<Date>(&object)) {
            entry->set(kTimeKey, Number::withDouble(date->secondsSince2001()));
        } else if (const auto* url = as<Url>(&object)) {
            entry->set(kBaseKey, Uid::create(0));
            entry->set(kRelativeKey, append(String::create(url->str())));
        } else if (object.typeId() == TypeId::kDictionary) {
            entry->set(kKeysKey, uidsOf(held.first(held.size() / 2)));
            entry->set(kItemsKey, uidsOf(held.subspan(held.size() / 2)));
        } else if (isCollection(object)) {
            entry->set(kItemsKey, uidsOf(held));
        }
        entry->set(kClassKey, classUid(className));
        return entry;
    }

    const size_t capacityBytes;
    Status status;
    ObjectGraph graph{accepts};
    std::vector<Ref<const Object>> roots; // keeps what the graph points to
    std::vector<Ref<Object>> extra;
    Ref<MutableDictionary> classes = MutableDictionary::create();
    Ref<MutableDictionary> top = MutableDictionary::create();
};

KeyedArchiver::KeyedArchiver(size_t initialCapacityBytes) : _state(std::make_unique<State>(initialCapacityBytes)) { }
KeyedArchiver::~KeyedArchiver() = default;

void KeyedArchiver::encodeInt64(int64_t value, std::string_view key)
{
    _state->top->set(key, Number::withInt64(value));
}
void KeyedArchiver::encodeInt32(int32_t value, std::string_view key) { _state->top->set(key, Number::withInt(value)); }
void KeyedArchiver::encodeBool(bool value, std::string_view key) { _state->top->set(key, Number::withBool(value)); }

void KeyedArchiver::encodeObject(const Object* object, std::string_view key)
{
    if (!object) {
        _state->top->set(key, Uid::create(0));
        return;
    }
    _state->roots.emplace_back(object);
    uint32_t number = 0;
    _state->record(_state->graph.add(*object, number));
    _state->top->set(key, State::uidOf(number));
}

Result<std::vector<std::byte>> KeyedArchiver::finish()
{
    State& state = *_state;
    RETURN_IF_ERROR(state.status);
    std::vector<Ref<Object>> table{String::create(kNullEntry)};
    for (size_t i = 0; i < state.graph.count(); ++i)
        table.push_back(state.entryFor(i));
    table.insert(table.end(), state.extra.begin(), state.extra.end());
    const Ref<Dictionary> archive =
        Dictionary::create({{String::create(kVersionKey), Number::withInt(kVersion)},
                            {String::create(kArchiverKey), String::create(kArchiver)},
                            {String::create(kTopKey), state.top},
                            {String::create(kObjectsKey), Array::create(std::move(table))}});
    return plist::writeBinary(*archive, state.capacityBytes);
}

} // namespace vnt
