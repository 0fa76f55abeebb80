#include "tests/support/PrivateAccounts.h"

#include <grp.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/base/sys.h"

namespace vnt::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kNeeded = "needs root and a mount namespace; run: sudo unshare --mount ctest";

// crypt(5) of the passwords above, in the method every pam_unix knows.
constexpr const char* kHashes[] = {
    "$6$vantoratestsalt$3DGZy8xTWMBCPKwW8R3h9DO0tlFP1qU87XhyO8B5JA3AkP2vjgBjRLFAI9RE62cnmvzpkm9mMJx9Qr0k5XWgd.",
    "$6$vantoratestsalt$VN78kex2fThSVh0r7a3DBwGvTSm6wFR45hfCvR5o2p9A9nwO8YOVCBFo5g7EuYFNoNAjI6h11PQI4gJYZIAM9/",
    "$6$vantoratestsalt$ocugoudIirlz1tYt0vHVXJ74/8.O3dhRArAizyNKiTdtIDFMNEeP3WKFFcQy3.k5nqa2XjCUrUWCRbdnEcuIh1",
    "$6$vantoratestsalt$QPKoMEGj6vMKIAouaPgp7yAFRIRizFcpjx0rDZ1QIHflAJM/fU.Bw/IMCrT.BBhqEAAhHuOe.ZhXeWnRwzeFQ0"};

/// The file's lines but root's, when that one is replaced.
std::string contentOf(const std::string& path, bool withRoot)
{
    std::ifstream file(path);
    std::string result;
    for (std::string line; std::getline(file, line);) {
        if (withRoot || line.rfind("root:", 0) != 0)
            result += line + "\n";
    }
    return result;
}

std::string passwdLines()
{
    std::string lines;
    for (const Account& account : {PrivateAccounts::kOrdinary, PrivateAccounts::kAdministrator,
                                   PrivateAccounts::kPrimaryAdministrator, PrivateAccounts::kExpired})
        lines += std::string(account.name) + ":x:" + std::to_string(account.uid) + ":" + std::to_string(account.gid)
            + "::/nonexistent:/bin/sh\n";
    return lines;
}

std::string shadowLines()
{
    const auto line = [](const Account& account, const char* hash, const char* expires) {
        return std::string(account.name) + ":" + hash + ":19000:0:99999:7::" + expires + ":\n";
    };
    return line(PrivateAccounts::kOrdinary, kHashes[0], "") + line(PrivateAccounts::kAdministrator, kHashes[1], "")
        + line(PrivateAccounts::kPrimaryAdministrator, kHashes[2], "")
        + line(PrivateAccounts::kExpired, kHashes[1], "10") // the tenth day of 1970
        + line(PrivateAccounts::kRoot, kHashes[3], "");
}

std::string groupLines()
{
    return "vnt-users:x:61001:\n" + std::string(PrivateAccounts::kAdminGroup)
        + ":x:61010:" + PrivateAccounts::kAdministrator.name + "\n";
}

Status cover(const std::string& path, const std::string& text, mode_t mode)
{
    char name[] = "/tmp/vnt-account.XXXXXX";
    const UniqueFd file(::mkstemp(name));
    if (!file)
        return Status::fromErrno(errno, name);
    RETURN_IF_ERROR(sys::writeFully(file.get(), text.data(), text.size()));
    Status status;
    if (::fchmod(file.get(), mode) != 0 || ::mount(name, path.c_str(), nullptr, MS_BIND, nullptr) != 0)
        status = Status(Code::kUnsupported, kNeeded);
    (void)::unlink(name); // the mount keeps it
    return status;
}

Status enterOnce()
{
    if (::geteuid() != 0 || ::unshare(CLONE_NEWNS) != 0
        || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return Status(Code::kUnsupported, kNeeded);
    RETURN_IF_ERROR(cover("/etc/passwd", contentOf("/etc/passwd", true) + passwdLines(), 0644));
    RETURN_IF_ERROR(cover("/etc/shadow", contentOf("/etc/shadow", false) + shadowLines(), 0600));
    return cover("/etc/group", contentOf("/etc/group", true) + groupLines(), 0644);
}

} // namespace

Status PrivateAccounts::enter()
{
    static const Status result = enterOnce();
    return result;
}

int PrivateAccounts::runAs(const Account& account, const std::function<int()>& body)
{
    const pid_t child = ::fork();
    if (child == 0) {
        if (::initgroups(account.name, account.gid) != 0 || ::setresgid(account.gid, account.gid, account.gid) != 0
            || ::setresuid(account.uid, account.uid, account.uid) != 0)
            ::_exit(120);
        ::_exit(body());
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) { }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace vnt::test
