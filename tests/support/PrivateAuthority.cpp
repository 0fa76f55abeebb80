#include "tests/support/PrivateAuthority.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/base/sys.h"
#include "platform/mach/NameService.h"
#include "platform/mach/PortTable.h"

namespace vnt::test {
namespace {

namespace fs = std::filesystem;
constexpr const char* kName = "quillon.authority";

} // namespace

PrivateAuthority::PrivateAuthority(const std::string& programs, const std::string& options) : _programs(programs)
{
    char path[] = "/tmp/vnt-auth.XXXXXX";
    VNT_CHECK(::mkdtemp(path) != nullptr);
    _directory = path;
    VNT_CHECK(::chmod(path, 0755) == 0); // other users connect
    for (const char* part : {"/bin", "/pam.d"})
        fs::create_directory(_directory + part);
    for (const auto& entry : fs::directory_iterator(programs)) {
        if (entry.path().filename() != "VantoraAuthority")
            fs::create_symlink(entry.path(), fs::path(_directory) / "bin" / entry.path().filename());
    }
    writeFile("/bin/VantoraAuthority",
              "#!/bin/sh\nexec '" + programs + "/VantoraAuthority' \"$@\" --state=" + _directory
                  + "/rights --config=" + _directory + "/authority.conf --pam-config=" + _directory
                  + "/pam.d --log=" + _directory + "/log " + options + "\n");
    VNT_CHECK(::chmod((_directory + "/bin/VantoraAuthority").c_str(), 0755) == 0);
    configure("admin-groups = vnt-admins\npinentry = none\n");
    setPamService("auth required pam_unix.so nodelay\naccount required pam_unix.so\n");
    _userDirectory = sys::environmentOr("VANTORA_BOOTSTRAP_DIR", "");
    _systemDirectory = sys::environmentOr("VANTORA_SYSTEM_BOOTSTRAP_DIR", "");
    ::setenv("VANTORA_BOOTSTRAP_DIR", (_directory + "/user").c_str(), 1);
    ::setenv("VANTORA_SYSTEM_BOOTSTRAP_DIR", (_directory + "/system").c_str(), 1);
    ::setenv("VANTORA_PROGRAM_DIR", (_directory + "/bin").c_str(), 1);
}

PrivateAuthority::~PrivateAuthority()
{
    kill(Namespace::kUser);
    kill(Namespace::kSystem);
    ::setenv("VANTORA_BOOTSTRAP_DIR", _userDirectory.c_str(), 1);
    ::setenv("VANTORA_SYSTEM_BOOTSTRAP_DIR", _systemDirectory.c_str(), 1);
    ::unsetenv("VANTORA_PROGRAM_DIR");
    bootstrap_port = PortTable::kBootstrapDefault;
    std::error_code ignored;
    fs::remove_all(_directory, ignored);
}

void PrivateAuthority::writeFile(const std::string& name, const std::string& text) const
{
    std::ofstream file(_directory + name);
    file << text << std::flush;
    VNT_CHECK(file.good());
}

void PrivateAuthority::setPamService(const std::string& text) const
{
    if (text.empty())
        fs::remove(_directory + "/pam.d/vantora");
    else
        writeFile("/pam.d/vantora", text);
}

std::string PrivateAuthority::log() const
{
    std::ifstream file(_directory + "/log");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

pid_t PrivateAuthority::process(Namespace which)
{
    const auto connection = connectToService(which, kName);
    const auto peer = connection.ok() ? sys::peerCredentials(connection.value().get())
                                      : Result<sys::PeerCredentials>(connection.status());
    return peer.ok() ? peer.value().pid : -1;
}

void PrivateAuthority::kill(Namespace which) const
{
    ::setenv("VANTORA_PROGRAM_DIR", "/nowhere", 1); // do not start one to end it
    const pid_t pid = process(which);
    ::setenv("VANTORA_PROGRAM_DIR", (_directory + "/bin").c_str(), 1);
    if (pid <= 0 || pid == ::getpid())
        return;
    const auto handle = sys::openPidFd(pid);
    if (!handle.ok() || !sys::signalPidFd(handle.value().get(), SIGKILL).ok())
        return;
    pollfd gone{handle.value().get(), POLLIN, 0};
    (void)sys::pollFds({&gone, 1}, std::chrono::seconds(30));
}

} // namespace vnt::test
