#include "services/authority/RightsDatabase.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "platform/base/sys.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/Values.h"
#include "services/authority/Configuration.h"

namespace vnt {
namespace {

constexpr size_t kMaxRights = 256;
constexpr size_t kMaxFileBytes = size_t{16} << 20;

Ref<Dictionary> userRight(int32_t timeoutSec)
{
    return Dictionary::create({{String::create("timeout"), Number::withInt(timeoutSec)},
                               {String::create("class"), String::create("user")},
                               {String::create("group"), String::create("admin")},
                               {String::create("comment"), String::create("Rights for Quillon")},
                               {String::create("shared"), Number::withBool(true)},
                               {String::create("allow-root"), Number::withBool(true)}});
}

/// Absent is fine, another type is not.
template <typename T> bool isAbsentOr(const Dictionary& definition, std::string_view key)
{
    const Ref<Object> value = definition.get(key);
    return !value || as<T>(value);
}

Status sync(const std::string& path)
{
    ASSIGN_OR_RETURN(const UniqueFd file, sys::openFile(path, O_RDONLY | O_NOFOLLOW));
    return ::fsync(file.get()) == 0 ? Status() : Status::fromErrno(errno, "fsync " + path);
}

/// After a power cut there is the old file or the new one, whole: with a damaged one the service would not start.
Status replaceDurably(const std::string& path, std::span<const std::byte> bytes)
{
    const std::string next = path + ".new";
    RETURN_IF_ERROR(sys::writeFileAtomically(next, bytes, 0600));
    RETURN_IF_ERROR(sync(next));
    if (::rename(next.c_str(), path.c_str()) != 0)
        return Status::fromErrno(errno, path);
    return sync(path.substr(0, path.rfind('/')));
}

} // namespace

RightsDatabase::RightsDatabase()
{
    _definitions[kAnalysisRight] = userRight(36000);
    _definitions[kKillRight] = userRight(5);
    _definitions[kTaskPortRight] = userRight(36000);
}

Status RightsDatabase::check(const Dictionary& definition)
{
    // A class that is not understood might say the opposite of what is done here.
    const auto kind = definition.get<String>("class");
    if (!kind || kind->str() != "user")
        return Status(Code::kInvalid, "a right's definition needs the class \"user\"");
    for (const std::string_view key : {"timeout", "shared", "allow-root"}) {
        if (!isAbsentOr<Number>(definition, key))
            return Status(Code::kInvalid, std::string(key) + ": not a number");
    }
    if (!isAbsentOr<String>(definition, "group") || !isAbsentOr<String>(definition, "comment"))
        return Status(Code::kInvalid, "group or comment: not a text");
    return {};
}

RightsDatabase RightsDatabase::inMemory() { return {}; }

Result<RightsDatabase> RightsDatabase::inDirectory(const std::string& directory)
{
    RightsDatabase database;
    database._path = directory + "/rights.plist";
    const Status owned = checkOwnOnly(directory);
    if (owned.code() == Code::kNotFound)
        return database; // made when there is something to keep
    RETURN_IF_ERROR(owned);
    RETURN_IF_ERROR(database.load());
    return database;
}

Status RightsDatabase::load()
{
    const auto text = sys::readFile(_path, kMaxFileBytes);
    if (text.code() == Code::kNotFound)
        return {};
    RETURN_IF_ERROR(text.status());
    RETURN_IF_ERROR(checkOwnOnly(_path));
    ASSIGN_OR_RETURN(const Ref<Object> root, readPropertyList(std::as_bytes(std::span(text.value()))));
    const Ref<Dictionary> rights = as<Dictionary>(root);
    if (!rights)
        return Status(Code::kInvalid, _path + ": not a dictionary of rights");
    for (const auto& [key, value] : rights->entries()) {
        const Ref<String> name = as<String>(key);
        const Ref<Dictionary> right = as<Dictionary>(value);
        if (!name || !right || !check(*right).ok())
            return Status(Code::kInvalid, _path + ": holds what is no right");
        _definitions[name->str()] = right;
    }
    return {};
}

Status RightsDatabase::store(const Definitions& definitions) const
{
    if (_path.empty())
        return {};
    const std::string directory = _path.substr(0, _path.rfind('/'));
    RETURN_IF_ERROR(sys::makeDirectories(directory, 0755));
    RETURN_IF_ERROR(checkOwnOnly(directory));
    const Ref<MutableDictionary> root = MutableDictionary::create();
    for (const auto& [name, right] : definitions)
        root->set(name, right);
    ASSIGN_OR_RETURN(const std::vector<std::byte> bytes, writePropertyList(*root, PropertyListFormat::kXml));
    return replaceDurably(_path, bytes);
}

Ref<Dictionary> RightsDatabase::definition(std::string_view right) const
{
    const auto found = _definitions.find(right);
    return found == _definitions.end() ? nullptr : found->second;
}

std::optional<RightRule> RightsDatabase::rule(std::string_view right) const
{
    const Ref<Dictionary> found = definition(right);
    if (!found)
        return std::nullopt;
    RightRule rule;
    if (const auto timeout = found->get<Number>("timeout")) {
        // A negative or absurd time cannot be meant; a day less than for ever is the most that is kept.
        constexpr int64_t kLongest = int64_t{10} * 365 * 86400;
        rule.timeout = std::chrono::seconds(std::clamp<int64_t>(timeout->int64Value(), 0, kLongest));
    }
    if (const auto group = found->get<String>("group"))
        rule.group = group->str();
    const auto isTrue = [&](std::string_view key) {
        const auto value = found->get<Number>(key);
        return value && value->boolValue();
    };
    rule.shared = isTrue("shared");
    rule.allowRoot = isTrue("allow-root");
    return rule;
}

Status RightsDatabase::set(const std::string& right, Ref<Dictionary> definition)
{
    RETURN_IF_ERROR(check(*definition));
    Definitions changed = _definitions;
    changed[right] = std::move(definition);
    if (changed.size() > kMaxRights)
        return Status(Code::kTooLarge, "too many rights are defined");
    RETURN_IF_ERROR(store(changed));
    _definitions = std::move(changed);
    return {};
}

} // namespace vnt
