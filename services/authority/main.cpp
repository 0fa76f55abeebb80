#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

#include "services/authority/Authority.h"
#include "services/authority/PasswordCheck.h"
#include "services/authority/UserPrompt.h"

namespace {

vnt::Status serve(int argc, char** argv)
{
    constexpr rlim_t kDescriptors = 4096; // more than connections are allowed
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < kDescriptors) {
        limit.rlim_cur = limit.rlim_max < kDescriptors ? limit.rlim_max : kDescriptors;
        (void)::setrlimit(RLIMIT_NOFILE, &limit); // with fewer, fewer are served
    }
    (void)::signal(SIGCHLD, SIG_IGN); // nobody waits for the helpers
    ASSIGN_OR_RETURN(auto arguments, vnt::AuthorityArguments::parse(argc, argv));
    // Forms and passwords pass through: no core files, no debugger.
    if (arguments.service.which == vnt::Namespace::kSystem)
        (void)::prctl(PR_SET_DUMPABLE, 0);
    const std::string logFile = arguments.logFile;
    auto authority = vnt::Authority::open(std::move(arguments));
    if (authority.ok())
        return authority.value()->run();
    // Standard error is usually nobody's.
    vnt::AuditLog(logFile).write(vnt::AuditLog::Level::kWarning, ::geteuid(),
                                 "not started: " + authority.status().message());
    return authority.status();
}

} // namespace

int main(int argc, char** argv)
{
    const std::string_view mode = argc == 2 ? argv[1] : "";
    if (mode == vnt::kCheckMode)
        ::_exit(vnt::runCheckHelper());
    if (mode == vnt::kAskMode)
        ::_exit(vnt::runAskHelper());
    const vnt::Status status = serve(argc, argv);
    if (status.ok())
        return 0;
    std::fprintf(stderr, "VantoraAuthority: %s\n", status.message().c_str());
    return 1;
}
