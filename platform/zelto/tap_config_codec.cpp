// The tap configuration as the dictionary that travels, and back.
#include <limits>

#include "platform/zelto/KxZelto.h"

namespace vnt {
namespace {

constexpr std::string_view kBufferMode = "bufferMode";
constexpr std::string_view kWindow = "windowSize";
constexpr std::string_view kTriggers = "triggers";
constexpr std::string_view kKind = "kind";
constexpr std::string_view kAllProcesses = "allProcesses";
constexpr std::string_view kPids = "pids";
constexpr std::string_view kInterval = "sampleInterval";
constexpr std::string_view kThreadStates = "threadStates";
constexpr std::string_view kActions = "actions";
constexpr std::string_view kFilter = "kdebugFilter";
constexpr std::string_view kFrameDepth = "callstackFrameDepth";

// Limits of what a tap accepts: far above what the library sends, small enough to walk at every start.
constexpr size_t kMaxTriggers = 16;
constexpr size_t kMaxPids = 4096;
constexpr size_t kMaxThreadStates = 64;
constexpr size_t kMaxActions = 64;
constexpr size_t kMaxActionArguments = 16;
constexpr size_t kMaxFilterCodes = 4096;
constexpr int64_t kMaxCode = 255; // kinds, buffer modes and action codes
constexpr int64_t kMaxFrameDepth = 1024;
constexpr int64_t kMaxInt32 = std::numeric_limits<int32_t>::max();
constexpr int64_t kMinInt32 = std::numeric_limits<int32_t>::min();
constexpr int64_t kMaxUint32 = std::numeric_limits<uint32_t>::max();

template <typename T> Ref<Array> numbers(const std::vector<T>& values)
{
    auto array = MutableArray::create();
    for (const T value : values)
        array->append(Number::withInt64(value));
    return array;
}

Ref<Dictionary> encodedTrigger(const KxZeltoTriggerConfig& trigger)
{
    auto actions = MutableArray::create();
    for (const KxZeltoTriggerConfig::Action& action : trigger.actions()) {
        std::vector<int32_t> values{action.code};
        values.insert(values.end(), action.arguments.begin(), action.arguments.end());
        actions->append(numbers(values));
    }
    auto result = MutableDictionary::create();
    result->set(kKind, Number::withInt(trigger.kind()));
    result->set(kAllProcesses, Number::withBool(trigger.isAllProcesses()));
    result->set(kPids, numbers(trigger.pids()));
    result->set(kInterval, Number::withUint64(trigger.sampleInterval().packed()));
    result->set(kThreadStates, numbers(trigger.threadStates()));
    result->set(kActions, actions);
    if (trigger.kdebugFilter())
        result->set(kFilter, trigger.kdebugFilter());
    result->set(kFrameDepth, Number::withInt(trigger.frameDepth()));
    return result;
}

/// Reads the entries of one dictionary; the first that is wrong decides the status, later reads give zeros.
class Fields {
public:
    explicit Fields(const Dictionary& dictionary) : _dictionary(dictionary) { }

    int64_t integer(std::string_view key, int64_t least, int64_t most)
    {
        return checked(key, _dictionary.get(key).get(), least, most);
    }

    bool boolean(std::string_view key)
    {
        const auto number = _dictionary.get<Number>(key);
        if (!number || !number->isBool())
            refuse(key, "is no boolean");
        return number && number->boolValue();
    }

    KxZeltoTime time(std::string_view key)
    {
        const auto number = _dictionary.get<Number>(key);
        if (!isInteger(number.get()))
            refuse(key, "is no time");
        return KxZeltoTime::unpacked(number ? number->uint64Value() : 0);
    }

    /// The array under `key`, or an empty one after a failure.
    std::vector<Ref<Object>> array(std::string_view key, size_t limit)
    {
        const auto items = _dictionary.get<Array>(key);
        if (items && items->count() <= limit)
            return items->items();
        refuse(key, items ? "has too many elements" : "is no array");
        return {};
    }

    template <typename T> std::vector<T> integers(std::string_view key, size_t limit, int64_t least, int64_t most)
    {
        std::vector<T> values;
        for (const Ref<Object>& item : array(key, limit))
            values.push_back(static_cast<T>(checked(key, item.get(), least, most)));
        return values;
    }

    int64_t checked(std::string_view key, const Object* object, int64_t least, int64_t most)
    {
        const auto* number = as<Number>(object);
        if (!isInteger(number))
            refuse(key, "is no integer");
        else if (number->kind() == Number::Kind::kUint64 && number->uint64Value() > static_cast<uint64_t>(most))
            refuse(key, "is out of range");
        else if (number->int64Value() < least || number->int64Value() > most)
            refuse(key, "is out of range");
        else
            return number->int64Value();
        return 0;
    }

    [[nodiscard]] bool has(std::string_view key) const { return static_cast<bool>(_dictionary.get(key)); }
    [[nodiscard]] const Status& status() const { return _status; }
    void refuse(std::string_view key, const char* why)
    {
        if (_status.ok())
            _status = Status(Code::kInvalid, "tap configuration: " + std::string(key) + " " + why);
    }

private:
    static bool isInteger(const Number* number)
    {
        return number && !number->isBool() && number->kind() != Number::Kind::kDouble;
    }

    const Dictionary& _dictionary;
    Status _status;
};

Status decodeActions(Fields& fields, KxZeltoTriggerConfig& trigger)
{
    for (const Ref<Object>& item : fields.array(kActions, kMaxActions)) {
        const auto action = as<Array>(item);
        if (!action || action->count() == 0 || action->count() > 1 + kMaxActionArguments) {
            fields.refuse(kActions, "holds something that is no action");
            break;
        }
        std::vector<int32_t> values;
        for (const Ref<Object>& value : action->items())
            values.push_back(static_cast<int32_t>(fields.checked(kActions, value.get(), kMinInt32, kMaxInt32)));
        if (values[0] < 0 || values[0] > kMaxCode)
            fields.refuse(kActions, "holds an unknown code");
        trigger.addAction(values[0], std::vector<int32_t>(values.begin() + 1, values.end()));
    }
    return fields.status();
}

Result<Ref<KxZeltoTriggerConfig>> decodedTrigger(const Dictionary& dictionary)
{
    Fields fields(dictionary);
    auto trigger = KxZeltoTriggerConfig::create();
    trigger->setKind(static_cast<int32_t>(fields.integer(kKind, 0, kMaxCode)));
    trigger->setIsAllProcesses(fields.boolean(kAllProcesses));
    for (const int32_t pid : fields.integers<int32_t>(kPids, kMaxPids, 0, kMaxInt32))
        trigger->includePID(pid);
    trigger->setSampleInterval(fields.time(kInterval));
    for (const uint32_t mask : fields.integers<uint32_t>(kThreadStates, kMaxThreadStates, 0, kMaxUint32))
        trigger->includeThreadState(mask);
    RETURN_IF_ERROR(decodeActions(fields, *trigger));
    if (fields.has(kFilter))
        trigger->setKdebugFilter(numbers(fields.integers<uint32_t>(kFilter, kMaxFilterCodes, 0, kMaxUint32)));
    trigger->setCallstackFrameDepth(static_cast<int32_t>(fields.integer(kFrameDepth, 0, kMaxFrameDepth)));
    if (trigger->isAllProcesses() == !trigger->pids().empty())
        fields.refuse(kPids, "must name processes, or all be asked for, not both");
    RETURN_IF_ERROR(fields.status());
    return trigger;
}

} // namespace

Ref<Dictionary> KxZeltoTapConfig::encoded() const
{
    auto triggers = MutableArray::create();
    for (const Ref<KxZeltoTriggerConfig>& trigger : _triggers)
        triggers->append(encodedTrigger(*trigger));
    auto result = MutableDictionary::create();
    result->set(kBufferMode, Number::withInt(_bufferMode));
    result->set(kWindow, Number::withUint64(_window.packed()));
    result->set(kTriggers, triggers);
    return result;
}

Result<Ref<KxZeltoTapConfig>> KxZeltoTapConfig::decoded(const Dictionary& dictionary)
{
    Fields fields(dictionary);
    auto config = KxZeltoTapConfig::create();
    config->setBufferMode(static_cast<int32_t>(fields.integer(kBufferMode, 0, kMaxCode)));
    config->setWindowSize(fields.time(kWindow));
    for (const Ref<Object>& item : fields.array(kTriggers, kMaxTriggers)) {
        const auto trigger = as<Dictionary>(item);
        if (!trigger)
            return Status(Code::kInvalid, "tap configuration: a trigger is no dictionary");
        ASSIGN_OR_RETURN(auto decodedOne, decodedTrigger(*trigger));
        config->addTriggerConfig(std::move(decodedOne));
    }
    if (config->_triggers.empty())
        fields.refuse(kTriggers, "is empty");
    RETURN_IF_ERROR(fields.status());
    return config;
}

} // namespace vnt
