#include "collectors/common/family.h"

#include <charconv>
#include <cstdio>
#include <map>
#include <set>

#include "platform/base/sys.h"

namespace vnt {
namespace {

std::vector<pid_t> numbersIn(const std::string& directory)
{
    std::vector<pid_t> numbers;
    const auto names = sys::listDirectory(directory);
    if (!names.ok())
        return numbers;
    for (const std::string& name : names.value()) {
        pid_t number = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), number).ec == std::errc())
            numbers.push_back(number);
    }
    return numbers;
}

pid_t parentOf(pid_t pid)
{
    const auto text = sys::readFile("/proc/" + std::to_string(pid) + "/stat", 4096);
    const size_t nameEnd = text.ok() ? text.value().rfind(')') : std::string::npos;
    pid_t parent = 0;
    if (nameEnd == std::string::npos || std::sscanf(text.value().c_str() + nameEnd, ") %*c %d", &parent) != 1)
        return 0;
    return parent;
}

} // namespace

std::vector<pid_t> threadsOfProcess(pid_t pid) { return numbersIn("/proc/" + std::to_string(pid) + "/task"); }

std::vector<pid_t> processesOfFamily(pid_t pid)
{
    if (threadsOfProcess(pid).empty())
        return {};
    std::map<pid_t, std::vector<pid_t>> children;
    for (const pid_t process : numbersIn("/proc"))
        children[parentOf(process)].push_back(process);
    std::vector<pid_t> family{pid};
    std::set<pid_t> known{pid};
    for (size_t i = 0; i < family.size(); ++i) {
        for (const pid_t child : children[family[i]]) {
            if (known.insert(child).second)
                family.push_back(child);
        }
    }
    return family;
}

} // namespace vnt
