// What an authorization costs beside a bare socket round trip of the same bytes, in the same run: a right that is held
// is confirmed, and a server checks an external form, which includes finding and connecting to the authority.
//     authority_bench
// Exit status 1 when a held right takes 200 microseconds or more (median).
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "platform/authorization/Authorization.h"
#include "platform/base/sys.h"
#include "platform/mach/Namespace.h"

namespace vnt {
namespace {

constexpr int kRounds = 21;
constexpr int kCallsPerRound = 1000;
constexpr double kBoundUs = 200;
constexpr const char* kRight = "quillon.process.analysis";
// A request for one held right, and its answer.
constexpr size_t kRequestBytes = 8 + 4 + 4 + 1 + 24 + 4 + 1 + 4, kAnswerBytes = 12 + 4 + 1 + 24 + 4 + 1;

double microsecondsPer(const std::function<void()>& call, int calls)
{
    const uint64_t begin = sys::monotonicNs();
    for (int i = 0; i < calls; ++i)
        call();
    return static_cast<double>(sys::monotonicNs() - begin) / 1e3 / calls;
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

/// Another process that answers every request of those bytes with an answer of those bytes.
UniqueFd startEcho(pid_t& child)
{
    auto [ours, theirs] = sys::socketPair(SOCK_SEQPACKET).take();
    child = ::fork();
    if (child == 0) {
        ours.reset();
        char bytes[kRequestBytes];
        while (::recv(theirs.get(), bytes, sizeof bytes, 0) > 0 && ::send(theirs.get(), bytes, kAnswerBytes, 0) > 0) { }
        ::_exit(0);
    }
    return std::move(ours);
}

OSStatus confirm(AuthorizationRef reference, AuthorizationFlags flags)
{
    AuthorizationItem item{kRight, 0, nullptr, 0};
    const AuthorizationRights rights{1, &item};
    AuthorizationRights* granted = nullptr;
    const OSStatus status = AuthorizationCopyRights(reference, &rights, nullptr, flags, &granted);
    AuthorizationFreeItemSet(granted);
    return status;
}

int run()
{
    pid_t child = 0;
    const UniqueFd echo = startEcho(child);
    AuthorizationRef reference = nullptr;
    AuthorizationExternalForm form{};
    const AuthorityScope scope(AuthorityNamespace::kBootstrapPort);
    if (AuthorizationCreate(nullptr, nullptr, 0, &reference) != 0
        || confirm(reference, kAuthorizationFlagExtendRights) != 0
        || AuthorizationMakeExternalForm(reference, &form) != 0) {
        std::fprintf(stderr, "authority_bench: no authority; build VantoraAuthority\n");
        return 1;
    }
    std::vector<double> bareUs, heldUs, formUs;
    for (int round = 0; round < kRounds; ++round) {
        char bytes[kRequestBytes] = {};
        bareUs.push_back(microsecondsPer(
            [&] {
                if (::send(echo.get(), bytes, sizeof bytes, 0) < 0 || ::recv(echo.get(), bytes, sizeof bytes, 0) < 0)
                    std::abort();
            },
            kCallsPerRound));
        heldUs.push_back(microsecondsPer(
            [&] {
                if (confirm(reference, 0) != 0)
                    std::abort();
            },
            kCallsPerRound));
        formUs.push_back(microsecondsPer(
            [&] {
                if (!checkAuthorization(form, ::getuid(), kRight).ok())
                    std::abort();
            },
            kCallsPerRound / 10));
    }
    (void)AuthorizationFree(reference, 0);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const double bare = median(bareUs), held = median(heldUs), checked = median(formUs);
    std::printf("bare round trip of the same bytes %9.1f us\n", bare);
    std::printf("a held right is confirmed         %9.1f us  ratio %.2f  bound %.0f us  %s\n", held, held / bare,
                kBoundUs, held < kBoundUs ? "met" : "MISSED");
    std::printf("a server checks a form            %9.1f us  ratio %.2f\n", checked, checked / bare);
    return held < kBoundUs ? 0 : 1;
}

} // namespace
} // namespace vnt

int main()
{
    char directory[] = "/tmp/vnt-bench.XXXXXX";
    if (!::mkdtemp(directory))
        return 1;
    ::setenv("VANTORA_BOOTSTRAP_DIR", (std::string(directory) + "/user").c_str(), 1);
    ::setenv("VANTORA_PROGRAM_DIR", VNT_BIN, 1);
    vnt::useNamespace(vnt::Namespace::kUser);
    const int result = vnt::run();
    return std::system((std::string("rm -rf ") + directory).c_str()) == 0 ? result : 1;
}
