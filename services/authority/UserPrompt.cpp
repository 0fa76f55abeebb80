#include "services/authority/UserPrompt.h"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>

#include "platform/base/sys.h"
#include "services/authority/HelperProcess.h"
#include "services/authority/LoginSession.h"
#include "services/authority/PasswordCheck.h"
#include "services/authority/Pinentry.h"

namespace vnt {
namespace {

constexpr size_t kMaxEnvironmentBytes = size_t{2} << 20; // what execve(2) takes at most, by default

/// The asking process's own variables that tell where and in which language to ask.
constexpr std::string_view kKeptVariables[] = {"DISPLAY=",
                                               "WAYLAND_DISPLAY=",
                                               "XAUTHORITY=",
                                               "XDG_RUNTIME_DIR=",
                                               "DBUS_SESSION_BUS_ADDRESS=",
                                               "HOME=",
                                               "LANG=",
                                               "LC_ALL=",
                                               "LC_CTYPE=",
                                               "LC_MESSAGES=",
                                               "TERM="};

struct Surroundings {
    std::vector<std::string> environment{"PATH=/usr/bin:/bin"};
    std::string terminal; ///< path, empty without one
    [[nodiscard]] std::string valueOf(std::string_view prefix) const
    {
        for (const std::string& variable : environment) {
            if (variable.rfind(prefix, 0) == 0)
                return variable.substr(prefix.size());
        }
        return {};
    }
};

std::string pathOfTerminal(dev_t device)
{
    constexpr unsigned kConsoleMajor = 4, kFirstPtsMajor = 136,
                       kLastPtsMajor = 143; // Documentation/admin-guide/devices
    constexpr unsigned kConsoles = 64; // minors above are serial lines
    const unsigned major = ::gnu_dev_major(device), minor = ::gnu_dev_minor(device);
    if (major >= kFirstPtsMajor && major <= kLastPtsMajor)
        return "/dev/pts/" + std::to_string((major - kFirstPtsMajor) * 256 + minor);
    return major == kConsoleMajor && minor > 0 && minor < kConsoles ? "/dev/tty" + std::to_string(minor) : "";
}

/// As the asking user: what that user may not read is not read.
Surroundings surroundingsOf(pid_t process)
{
    Surroundings result;
    result.terminal = pathOfTerminal(ProcessStat::of(process).terminal);
    const auto text = sys::readFile("/proc/" + std::to_string(process) + "/environ", kMaxEnvironmentBytes);
    const std::string all = text.ok() ? text.value() : "";
    for (size_t begin = 0; begin < all.size(); begin = all.find('\0', begin) + 1) {
        const std::string variable = all.c_str() + begin;
        for (const std::string_view kept : kKeptVariables) {
            if (variable.rfind(kept, 0) == 0)
                result.environment.push_back(variable);
        }
        if (all.find('\0', begin) == std::string::npos)
            break;
    }
    return result;
}

std::string nameOf(uid_t user)
{
    const passwd* entry = ::getpwuid(user); // one thread
    return entry ? entry->pw_name : "";
}

/// For good: no privilege is left to come back to.
bool becomeUser(const std::string& name, uid_t user, gid_t group)
{
    const bool groupsSet = name.empty() ? ::setgroups(0, nullptr) == 0 : ::initgroups(name.c_str(), group) == 0;
    if (!groupsSet || ::setresgid(group, group, group) != 0 || ::setresuid(user, user, user) != 0)
        return false;
    return ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0; // setresuid(2) took it away
}

std::string programOf(pid_t process)
{
    char path[4096];
    const ssize_t length = ::readlink(("/proc/" + std::to_string(process) + "/exe").c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : "unknown program";
}

/// What somebody else chose, made fit to be shown: at most so many bytes and lines, no control characters.
std::string shownText(const std::string& text, size_t maxBytes, int maxLines)
{
    std::string result;
    for (const char c : text.substr(0, maxBytes)) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n')
            result += --maxLines > 0 ? '\n' : ' ';
        else
            result += byte < 0x20 || byte == 0x7f ? '?' : c;
    }
    return result;
}

/// Who asks comes first, where nothing that the client says can push it away. All of it fits in one line to the
/// prompt's program, however much of it is escaped there.
std::string explanation(const AskOrder& order, const std::string& asker)
{
    constexpr size_t kMaxProgramBytes = 100, kMaxTextBytes = 400;
    constexpr int kMaxTextLines = 5;
    return "Asked by " + shownText(programOf(order.process), kMaxProgramBytes, 1) + " (process "
        + std::to_string(order.process) + " of user "
        + (asker.empty() ? std::to_string(order.user) : shownText(asker, 64, 1)) + "):\n\n"
        + shownText(order.text, kMaxTextBytes, kMaxTextLines);
}

Status askInto(AskResult& result, const AskOrder& order, const std::string& asker, Pinentry& pinentry)
{
    const std::string text = explanation(order, asker);
    if (result.userName.empty()) {
        ASSIGN_OR_RETURN(auto name, pinentry.ask(text, "Name of an administrator:", order.problem));
        if (!name)
            return Status(Code::kCancelled, "no name");
        result.userName = std::move(*name);
    }
    ASSIGN_OR_RETURN(auto password, pinentry.ask(text, "Password of " + result.userName + ":", order.problem));
    if (!password)
        return Status(Code::kCancelled, "no password");
    result.password = std::move(*password);
    return {};
}

AskResult ask(const AskOrder& order)
{
    AskResult result;
    const std::string asker = nameOf(order.user);
    result.userName = order.userName;
    if (result.userName.empty() && !asker.empty()) {
        for (const std::string& group : groupNamesOf(asker)) {
            if (std::find(order.groups.begin(), order.groups.end(), group) != order.groups.end())
                result.userName = asker;
        }
    }
    if (order.pinentry.empty() || !becomeUser(asker, order.user, order.group))
        return result;
    const Surroundings around = surroundingsOf(order.process);
    const bool hasDisplay = !around.valueOf("DISPLAY=").empty() || !around.valueOf("WAYLAND_DISPLAY=").empty();
    if (!hasDisplay && around.terminal.empty())
        return result;
    auto pinentry = Pinentry::start(order.pinentry, around.environment);
    if (!pinentry.ok())
        return result;
    if (!around.terminal.empty()) {
        const std::string type = around.valueOf("TERM=");
        (void)pinentry.value().option("ttyname", around.terminal); // an option it lacks changes nothing
        (void)pinentry.value().option("ttytype", type.empty() ? "vt100" : type);
    }
    const Status asked = askInto(result, order, asker, pinentry.value());
    result.status = asked.ok()             ? errAuthorizationSuccess
        : asked.code() == Code::kCancelled ? errAuthorizationCanceled
                                           : errAuthorizationInteractionNotAllowed;
    return result;
}

} // namespace

int runAskHelper()
{
    const rlimit none{0, 0};
    (void)::setrlimit(RLIMIT_CORE, &none);
    (void)::signal(SIGPIPE, SIG_IGN); // the prompt's program may go at any time
    const auto packet = receiveHelperOrder();
    if (!packet.ok())
        return 1;
    ByteCursor cursor(packet.value().bytes);
    const AskOrder order = AskOrder::read(cursor);
    if (!cursor.atEnd())
        return 1;
    const AskResult answer = ask(order);
    ByteWriter result;
    result.reserve(kMaxHelperPacketBytes);
    answer.write(result);
    return sendHelperResult(result).ok() ? 0 : 1;
}

} // namespace vnt
