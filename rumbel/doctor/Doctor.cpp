#include "rumbel/doctor/Doctor.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

#include "bundle/Instruments.h"
#include "platform/base/sys.h"
#include "rumbel/report/printable.h"
#include "rumbel/terminal/Terminal.h"

namespace vnt {
namespace {

using Json = nlohmann::ordered_json;

struct InstrumentHelp {
    std::string_view identifier;
    const char* tells;
    const char* options;
};
constexpr InstrumentHelp kInstruments[] = {
    {kStackSamplerId, "where processor time goes", "--interval, --stacks"},
    {kKernelTracerId, "system calls, switches, interrupts", "--window"},
    {kHeapRecorderId, "who allocates what", ""},
    {kOrphanFinderId, "what is lost, and who allocated it", "--contents, --no-backtraces"},
    {kProcessCensusId, "what every process uses", "--census-interval"},
};

std::string_view shortName(std::string_view identifier) { return identifier.substr(identifier.rfind('.') + 1); }

std::string_view displayName(std::string_view identifier)
{
    for (const InstrumentKind& kind : kInstrumentKinds) {
        if (kind.identifier == identifier)
            return kind.displayName;
    }
    return identifier;
}

int listInstruments(bool json, std::ostream& out)
{
    Json list = Json::array();
    for (const InstrumentHelp& help : kInstruments) {
        if (json) {
            list.push_back({{"name", shortName(help.identifier)},
                            {"identifier", help.identifier},
                            {"tells", help.tells},
                            {"options", help.options}});
            continue;
        }
        out << std::left << std::setw(15) << shortName(help.identifier) << std::setw(16) << displayName(help.identifier)
            << std::setw(36) << help.tells << help.options << "\n";
    }
    if (json)
        out << list.dump(1) << "\n";
    return 0;
}

std::string userName(uid_t uid)
{
    const passwd* entry = ::getpwuid(uid);
    return entry ? entry->pw_name : std::to_string(uid);
}

int listProcesses(bool json, std::ostream& out)
{
    const auto names = sys::listDirectory("/proc");
    if (!names.ok())
        return 1;
    std::vector<int> pids;
    for (const std::string& name : names.value()) {
        int pid = 0;
        const auto parsed = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (parsed.ec == std::errc() && parsed.ptr == name.data() + name.size())
            pids.push_back(pid);
    }
    std::sort(pids.begin(), pids.end());
    Json list = Json::array();
    for (const int pid : pids) {
        const std::string directory = "/proc/" + std::to_string(pid);
        const auto owner = sys::statFile(directory);
        auto name = sys::readFile(directory + "/comm", 64);
        if (!owner.ok() || !name.ok())
            continue; // ended while we looked
        std::string text = name.take();
        text = printable(text.substr(0, text.find('\n')));
        if (json)
            list.push_back({{"pid", pid}, {"user", userName(owner.value().st_uid)}, {"name", text}});
        else
            out << std::right << std::setw(8) << pid << "  " << std::left << std::setw(16)
                << userName(owner.value().st_uid) << text << "\n";
    }
    if (json)
        out << list.dump(1, ' ', false, Json::error_handler_t::replace) << "\n";
    return 0;
}

bool isTheUsersOwn(const Finding& finding)
{
    return finding.what.starts_with("own processes") || finding.what.starts_with("programs");
}

} // namespace

int runDoctor(bool json, std::ostream& out)
{
    const std::vector<Finding> findings = examineMachine();
    const bool coloured = terminal::wantsColour(STDOUT_FILENO);
    int status = 0;
    Json list = Json::array();
    for (const Finding& finding : findings) {
        if (!finding.possible && isTheUsersOwn(finding))
            status = 1;
        if (json) {
            list.push_back({{"instrument", finding.instrument},
                            {"what", finding.what},
                            {"possible", finding.possible},
                            {"reason", finding.reason}});
            continue;
        }
        out << (finding.possible ? terminal::painted("yes  ", terminal::Colour::kGreen, coloured)
                                 : terminal::painted("no   ", terminal::Colour::kRed, coloured))
            << std::left << std::setw(15) << finding.instrument << finding.what << "\n";
        if (!finding.possible)
            out << "                    " << printable(finding.reason) << "\n";
    }
    utsname system{};
    (void)::uname(&system);
    if (json)
        out << Json{{"kernel", system.release}, {"uid", ::geteuid()}, {"findings", list}}.dump(1) << "\n";
    else
        out << "Linux " << printable(system.release) << ", user " << printable(userName(::geteuid())) << "\n";
    return status;
}

int runList(const std::string& what, bool json, std::ostream& out)
{
    return what == "processes" ? listProcesses(json, out) : listInstruments(json, out);
}

} // namespace vnt
