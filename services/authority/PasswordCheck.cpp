#include "services/authority/PasswordCheck.h"

#include <grp.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "platform/base/sys.h"
#include "services/authority/Configuration.h"
#include "services/authority/HelperProcess.h"
#include "services/authority/SharedCredentials.h"

namespace vnt {
namespace {

constexpr const char* kPamService = "vantora";
constexpr const char* kSystemPamDirectory = "/etc/pam.d";
constexpr size_t kMaxPamFileBytes = 64 * 1024;
// LOGIN_NAME_MAX of <limits.h>, without the NUL.
constexpr size_t kMaxUserNameBytes = 255;

/// A facility that our file lacks would be taken from the file "other", which may let anybody in: both must be there.
Status checkServiceFile(const std::string& directory)
{
    const std::string path = directory + "/" + kPamService;
    RETURN_IF_ERROR(checkOwnOnly(path));
    ASSIGN_OR_RETURN(const std::string text, sys::readFile(path, kMaxPamFileBytes));
    bool hasAuth = false, hasAccount = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::string facility;
        std::istringstream(line) >> facility;
        hasAuth = hasAuth || facility == "auth";
        hasAccount = hasAccount || facility == "account";
    }
    if (!hasAuth || !hasAccount)
        return Status(Code::kInvalid, path + ": needs an auth and an account line");
    return {};
}

/// What PAM asks: the name when a message is echoed, the password once when it is not. Anything more (a second factor)
/// cannot be answered here.
struct Conversation {
    const CheckOrder& order;
    bool passwordGiven = false;

    const char* answerTo(int style)
    {
        if (style == PAM_PROMPT_ECHO_ON)
            return order.userName.c_str();
        if (style != PAM_PROMPT_ECHO_OFF || passwordGiven)
            return nullptr;
        passwordGiven = true;
        return order.password.c_str();
    }
};

void giveUp(pam_response* responses, int count)
{
    for (int i = 0; i < count; ++i) {
        if (responses[i].resp)
            ::explicit_bzero(responses[i].resp, ::strlen(responses[i].resp));
        std::free(responses[i].resp);
    }
    std::free(responses);
}

int converse(int count, const pam_message** messages, pam_response** responses, void* data)
{
    if (count <= 0 || count > PAM_MAX_NUM_MSG)
        return PAM_CONV_ERR;
    // PAM frees these with free(3).
    auto* answers = static_cast<pam_response*>(std::calloc(static_cast<size_t>(count), sizeof(pam_response)));
    if (!answers)
        return PAM_BUF_ERR;
    for (int i = 0; i < count; ++i) {
        const int style = messages[i]->msg_style;
        if (style == PAM_ERROR_MSG || style == PAM_TEXT_INFO)
            continue;
        const char* answer = static_cast<Conversation*>(data)->answerTo(style);
        answers[i].resp = answer ? ::strdup(answer) : nullptr;
        if (!answers[i].resp) {
            giveUp(answers, count);
            return PAM_CONV_ERR;
        }
    }
    *responses = answers;
    return PAM_SUCCESS;
}

void waitNot(int, unsigned, void*) { } // PAM_FAIL_DELAY of pam_fail_delay(3): refusals are evened out here

/// The user's name as PAM settled it, empty when refused.
std::string authenticate(const CheckOrder& order)
{
    const bool isSystems = order.pamDirectory.empty();
    if (!checkServiceFile(isSystems ? kSystemPamDirectory : order.pamDirectory).ok())
        return {};
    Conversation conversation{order};
    const pam_conv conv{converse, &conversation};
    pam_handle_t* handle = nullptr;
    int result = isSystems
        ? ::pam_start(kPamService, order.userName.c_str(), &conv, &handle)
        : ::pam_start_confdir(kPamService, order.userName.c_str(), &conv, order.pamDirectory.c_str(), &handle);
    if (result != PAM_SUCCESS)
        return {};
    (void)::pam_set_item(handle, PAM_FAIL_DELAY, reinterpret_cast<const void*>(waitNot));
    (void)::pam_set_item(handle, PAM_RUSER, order.asker.c_str());
    result = ::pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    // Also whether the account has expired, is locked or wants a new password.
    if (result == PAM_SUCCESS)
        result = ::pam_acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    const void* user = nullptr;
    if (result == PAM_SUCCESS)
        result = ::pam_get_item(handle, PAM_USER, &user);
    const std::string name = result == PAM_SUCCESS && user ? static_cast<const char*>(user) : "";
    (void)::pam_end(handle, result);
    return name;
}

bool isPossibleName(const std::string& name)
{
    return !name.empty() && name.size() <= kMaxUserNameBytes && name.find('\0') == std::string::npos;
}

CheckResult decide(const CheckOrder& order)
{
    CheckResult result;
    // PAM would read to the NUL, and take another password than was given.
    if (!isPossibleName(order.userName) || order.password.find('\0') != std::string::npos)
        return result;
    const std::string name = authenticate(order);
    const passwd* entry = name.empty() ? nullptr : ::getpwnam(name.c_str()); // one thread
    if (!entry)
        return result;
    Credential credential;
    credential.user = result.user = entry->pw_uid;
    result.userName = entry->pw_name;
    result.groups = credential.groups = groupNamesOf(result.userName);
    result.isGranted = credential.isOneOf(order.groups);
    return result;
}

void waitForWholeSecondAfter(const timespec& begin)
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const bool later = now.tv_nsec >= begin.tv_nsec;
    const timespec until{begin.tv_sec + (now.tv_sec - begin.tv_sec) + (later ? 1 : 0), begin.tv_nsec};
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) { }
}

} // namespace

std::vector<std::string> groupNamesOf(const std::string& userName)
{
    const passwd* entry = ::getpwnam(userName.c_str());
    if (!entry)
        return {};
    const gid_t primary = entry->pw_gid;
    std::vector<gid_t> groups(65536); // NGROUPS_MAX of Linux
    int count = static_cast<int>(groups.size());
    if (::getgrouplist(userName.c_str(), primary, groups.data(), &count) < 0)
        return {};
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        if (const group* found = ::getgrgid(groups[static_cast<size_t>(i)]))
            names.emplace_back(found->gr_name);
    }
    return names;
}

CheckResult checkCredentials(const CheckOrder& order)
{
    timespec begin{};
    ::clock_gettime(CLOCK_MONOTONIC, &begin);
    CheckResult result = decide(order);
    if (result.isGranted)
        return result;
    waitForWholeSecondAfter(begin);
    return {};
}

int runCheckHelper()
{
    const rlimit none{0, 0};
    (void)::setrlimit(RLIMIT_CORE, &none);
    (void)::prctl(PR_SET_DUMPABLE, 0);
    auto packet = receiveHelperOrder();
    if (!packet.ok())
        return 1;
    ByteCursor cursor(packet.value().bytes);
    const CheckOrder order = CheckOrder::read(cursor);
    ::explicit_bzero(packet.value().bytes.data(), packet.value().bytes.size()); // never empty, as received
    if (!cursor.atEnd())
        return 1;
    ByteWriter result;
    checkCredentials(order).write(result);
    return sendHelperResult(result).ok() ? 0 : 1;
}

} // namespace vnt
