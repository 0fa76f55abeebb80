#include "services/authority/Configuration.h"

#include <unistd.h>

#include <charconv>
#include <sstream>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kMaxFileBytes = 64 * 1024;
constexpr size_t kMaxGroups = 32;

std::string trimmed(const std::string& text)
{
    constexpr const char* kBlanks = " \t\r";
    const size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

Status readLine(const std::string& line, AuthorityConfiguration& configuration)
{
    const std::string text = trimmed(line.substr(0, line.find('#')));
    if (text.empty())
        return {};
    const size_t equals = text.find('=');
    const std::string key = trimmed(text.substr(0, equals));
    const std::string value = equals == std::string::npos ? "" : trimmed(text.substr(equals + 1));
    if (key == "admin-groups") {
        std::istringstream words(value);
        configuration.adminGroups.clear(); // none: nobody but root
        for (std::string group; words >> group;)
            configuration.adminGroups.push_back(group);
        if (configuration.adminGroups.size() > kMaxGroups || equals == std::string::npos)
            return Status(Code::kInvalid, "admin-groups: names of at most 32 groups are expected");
        return {};
    }
    if (key == "pinentry" && (value == "none" || value[0] == '/')) {
        configuration.pinentry = value == "none" ? "" : value;
        return {};
    }
    return Status(Code::kInvalid, "not understood: " + text);
}

bool takeValue(const std::string& argument, std::string_view option, std::string& value)
{
    if (argument.rfind(option, 0) != 0 || argument.size() == option.size())
        return false;
    value = argument.substr(option.size());
    return true;
}

bool takeSeconds(const std::string& argument, std::string_view option, std::chrono::seconds& value)
{
    constexpr int kMost = 86400;
    std::string text;
    int number = 0;
    if (!takeValue(argument, option, text)
        || std::from_chars(text.data(), text.data() + text.size(), number).ptr != text.data() + text.size()
        || number < 0 || number > kMost)
        return false;
    value = std::chrono::seconds(number);
    return true;
}

} // namespace

Status checkOwnOnly(const std::string& path)
{
    ASSIGN_OR_RETURN(const struct stat info, sys::statLink(path));
    if (info.st_uid != ::geteuid() || (info.st_mode & 022) != 0 || S_ISLNK(info.st_mode))
        return Status(Code::kDenied, path + ": others could change it");
    return {};
}

Result<AuthorityConfiguration> AuthorityConfiguration::load(const std::string& path)
{
    AuthorityConfiguration configuration;
    const Status owned = checkOwnOnly(path);
    if (owned.code() == Code::kNotFound)
        return configuration;
    RETURN_IF_ERROR(owned);
    ASSIGN_OR_RETURN(const std::string text, sys::readFile(path, kMaxFileBytes));
    std::istringstream lines(text);
    size_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        const Status status = readLine(line, configuration);
        if (!status.ok())
            return Status(Code::kInvalid, path + ":" + std::to_string(number) + ": " + status.message());
    }
    return configuration;
}

std::vector<std::string> AuthorityConfiguration::groupsFor(const std::string& group) const
{
    if (group == "admin")
        return adminGroups;
    return group.empty() ? std::vector<std::string>() : std::vector<std::string>{group};
}

Result<AuthorityArguments> AuthorityArguments::parse(int argc, char** argv)
{
    AuthorityArguments result;
    std::vector<char*> others{argv[0]};
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const bool taken = takeValue(argument, "--state=", result.stateDirectory)
            || takeValue(argument, "--config=", result.configurationFile)
            || takeValue(argument, "--pam-config=", result.pamDirectory)
            || takeValue(argument, "--log=", result.logFile)
            || takeSeconds(argument, "--form-lifetime=", result.formLifetime)
            || takeSeconds(argument, "--idle-exit=", result.idleExit);
        if (taken && sys::isSecureExecution())
            return Status(Code::kDenied, argument + ": not with privilege that the caller lacks");
        if (!taken)
            others.push_back(argv[i]);
    }
    ASSIGN_OR_RETURN(result.service, ServiceArguments::parse(static_cast<int>(others.size()), others.data()));
    return result;
}

} // namespace vnt
