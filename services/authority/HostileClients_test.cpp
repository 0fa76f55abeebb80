#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <random>

#include "platform/authorization/AuthorizationWire.h"
#include "platform/base/sys.h"
#include "platform/mach/NameService.h"
#include "platform/mach/PacketSocket.h"
#include "services/authority/AuthorityFixture_test.h"

namespace vnt::test {
namespace {

using Bytes = std::vector<std::byte>;
constexpr std::chrono::seconds kPatience{30};

Bytes packetOf(AuthorityRequest kind, const std::function<void(AuthorityPacket&)>& fill = nullptr)
{
    AuthorityPacket packet;
    packet.beginRequest(kind);
    if (fill)
        fill(packet);
    return {packet.bytes().begin(), packet.bytes().end()};
}

/// One good request of each kind.
std::vector<Bytes> goodPackets()
{
    return {packetOf(AuthorityRequest::kCopyRights,
                     [](AuthorityPacket& packet) {
                         AuthorizationItem right{kAnalysis, 0, nullptr, 0};
                         char text[] = "Please.";
                         AuthorizationItem item{"prompt", sizeof text - 1, text, 0};
                         const AuthorizationRights rights{1, &right};
                         const AuthorizationEnvironment environment{1, &item};
                         packet.body().little(uint32_t{kQuiet});
                         EXPECT_TRUE(packet.addItems(&rights) && packet.addItems(&environment));
                     }),
            packetOf(AuthorityRequest::kMakeForm),
            packetOf(AuthorityRequest::kGetRight, [](AuthorityPacket& packet) { packet.body().text(kAnalysis); }),
            packetOf(AuthorityRequest::kCheckForm,
                     [](AuthorityPacket& packet) {
                         const char form[32] = {};
                         packet.body().raw(form, sizeof form);
                         packet.body().little(uint32_t{61001});
                         packet.body().text(kAnalysis);
                     }),
            packetOf(AuthorityRequest::kDestroyRights)};
}

enum class Outcome { kAnswered, kClosed, kNothing };

Outcome outcomeOf(int socket)
{
    pollfd ready{socket, POLLIN, 0};
    if (sys::pollFds({&ready, 1}, kPatience).take() == 0)
        return Outcome::kNothing;
    Packet answer;
    return tryReceivePacket(socket, kMaxAuthorityPacketBytes, answer) == ReceiveOutcome::kPacket ? Outcome::kAnswered
                                                                                                 : Outcome::kClosed;
}

/// Sends on a connection of its own.
Outcome sendAlone(const Bytes& bytes, std::span<const int> descriptors = {})
{
    const auto connection = connectToService(Namespace::kSystem, kAuthorityServiceName);
    if (!connection.ok())
        return Outcome::kNothing;
    const iovec part{const_cast<std::byte*>(bytes.data()), bytes.size()};
    if (trySendPacket(connection.value().get(), {&part, 1}, descriptors) != 0)
        return Outcome::kClosed;
    return outcomeOf(connection.value().get());
}

size_t residentKiB(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    for (std::string word; file >> word;) {
        size_t value = 0;
        if (word == "VmRSS:" && file >> value)
            return value;
    }
    return 0;
}

class HostileClientsTest : public AuthorityTest {
protected:
    void SetUp() override
    {
        AuthorityTest::SetUp();
        if (IsSkipped())
            return;
        _process = PrivateAuthority::process(Namespace::kSystem);
        _witness = newReference();
        ASSERT_EQ(request(_witness, {kAnalysis}), kGranted);
    }
    void TearDown() override
    {
        if (!IsSkipped()) {
            EXPECT_EQ(request(_witness, {kAnalysis}, {}, kHeld), kGranted) << "the service did not go on";
            EXPECT_EQ(AuthorizationFree(_witness, 0), kGranted);
            EXPECT_EQ(PrivateAuthority::process(Namespace::kSystem), _process) << "it was started anew";
        }
        AuthorityTest::TearDown();
    }
    pid_t _process = 0;
    AuthorizationRef _witness = nullptr;
};

TEST_F(HostileClientsTest, APacketThatDoesNotAddUpClosesItsConnection)
{
    const auto good = goodPackets();
    for (size_t kind = 0; kind < good.size(); ++kind) {
        SCOPED_TRACE("request " + std::to_string(kind));
        const Bytes& whole = good[kind];
        EXPECT_EQ(sendAlone(whole), Outcome::kAnswered);
        for (size_t length = 1; length < whole.size(); ++length)
            EXPECT_EQ(sendAlone({whole.begin(), whole.begin() + static_cast<long>(length)}), Outcome::kClosed)
                << "cut to " << length;
        Bytes longer = whole;
        longer.resize(whole.size() + 1);
        EXPECT_EQ(sendAlone(longer), Outcome::kClosed);
        longer.resize(kMaxAuthorityPacketBytes + 1);
        EXPECT_EQ(sendAlone(longer), Outcome::kClosed);
    }
    // Counts and sizes that lie: the first number of the body at its extremes.
    for (const size_t kind : {size_t{0}, size_t{2}}) {
        const size_t at = kind == 0 ? 12 : 8; // number of rights; length of the name
        for (const unsigned value : {0u, 2u, 64u, 65u, 0x7fu, 0xffu}) {
            Bytes lying = good[kind];
            lying[at] = static_cast<std::byte>(value);
            if (value == 0xff)
                lying[at + 1] = lying[at + 2] = lying[at + 3] = std::byte{0xff};
            EXPECT_EQ(sendAlone(lying), Outcome::kClosed) << kind << ": " << value;
        }
    }
    Bytes unknown = good[1];
    for (const unsigned request : {0u, 4u, 7u, 255u}) { // 4, a definition, lacks its name
        unknown[6] = static_cast<std::byte>(request);
        EXPECT_EQ(sendAlone(unknown), Outcome::kClosed) << request;
    }
    EXPECT_NE(world().log().find("malformed request"), std::string::npos);
}

TEST_F(HostileClientsTest, DescriptorsAreRefusedAndClosed)
{
    const UniqueFd memory(::memfd_create("hostile", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(::ftruncate(memory.get(), 1 << 20), 0);
    auto pipe = sys::makePipe().take();
    auto sockets = sys::socketPair(SOCK_SEQPACKET).take();
    const std::string descriptors = "/proc/" + std::to_string(_process) + "/fd";
    const size_t before = sys::listDirectory(descriptors).take().size();
    const std::vector<int> many(60, sockets.first.get());
    for (const Bytes& packet : goodPackets()) {
        for (const int fd : {memory.get(), pipe.first.get(), sockets.first.get()})
            EXPECT_EQ(sendAlone(packet, {&fd, 1}), Outcome::kClosed) << fd;
        EXPECT_EQ(sendAlone(packet, many), Outcome::kClosed);
    }
    ASSERT_EQ(::ftruncate(memory.get(), 0), 0); // memory that shrinks once it was handed over
    const int fd = memory.get();
    EXPECT_EQ(sendAlone(goodPackets()[0], {&fd, 1}), Outcome::kClosed);
    EXPECT_TRUE(eventually([&] { return sys::listDirectory(descriptors).take().size() <= before; }));
}

TEST_F(HostileClientsTest, DamagedPacketsOfAnyKindNeitherStopNorFillIt)
{
    const auto good = goodPackets();
    std::mt19937 random(20261123); // always the same
    const auto below = [&](size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); };
    const size_t before = residentKiB(_process);
    for (int round = 0; round < 3000; ++round) {
        Bytes packet = good[below(good.size())];
        for (size_t i = below(4) + 1; i > 0; --i)
            packet[below(packet.size())] = static_cast<std::byte>(below(256));
        if (below(8) == 0)
            packet.resize(below(4096) + 1);
        ASSERT_NE(sendAlone(packet), Outcome::kNothing) << "round " << round;
    }
    EXPECT_LT(residentKiB(_process), before + 32 * 1024);
    EXPECT_LT(world().log().size(), 64u * 1024) << "a stranger fills the log";
}

TEST_F(HostileClientsTest, ASecondRequestBeforeTheAnswerIsRefused)
{
    const std::string block = world().directory() + "/block", script = world().directory() + "/wait.sh";
    std::ofstream(block) << "";
    std::ofstream(script) << "#!/bin/sh\nwhile [ -e " << block << " ]; do sleep 0.02; done\n";
    ::chmod(script.c_str(), 0755);
    world().setPamService("auth required pam_exec.so quiet " + script + "\naccount required pam_permit.so\n");
    const OSStatus outcome = as(PrivateAccounts::kOrdinary, []() -> OSStatus {
        const auto connection = connectToService(Namespace::kSystem, kAuthorityServiceName);
        char text[] = "someone";
        AuthorizationItem right{kAnalysis, 0, nullptr, 0},
            items[] = {{"username", 7, text, 0}, {"password", 7, text, 0}};
        const AuthorizationRights rights{1, &right};
        const AuthorizationEnvironment environment{2, items};
        const Bytes asking = packetOf(AuthorityRequest::kCopyRights, [&](AuthorityPacket& packet) {
            packet.body().little(uint32_t{kQuiet});
            EXPECT_TRUE(packet.addItems(&rights) && packet.addItems(&environment));
        });
        for (const Bytes& bytes : {asking, packetOf(AuthorityRequest::kMakeForm)}) {
            const iovec part{const_cast<std::byte*>(bytes.data()), bytes.size()};
            if (trySendPacket(connection.value().get(), {&part, 1}, {}) != 0)
                return -60091;
        }
        return outcomeOf(connection.value().get()) == Outcome::kClosed ? kGranted : -60092;
    });
    EXPECT_EQ(outcome, kGranted);
    EXPECT_EQ(::unlink(block.c_str()), 0);
    EXPECT_TRUE(eventually([] { return helpers().empty(); })) << "the check was left behind";
}

TEST_F(HostileClientsTest, AUserGetsItsShareOfConnectionsAndOthersTheirs)
{
    const size_t before = residentKiB(_process);
    auto ready = sys::makePipe().take(), leave = sys::makePipe().take();
    const pid_t child = ::fork();
    if (child == 0) {
        leave.second.reset();
        const rlimit many{4096, 4096};
        (void)::setrlimit(RLIMIT_NOFILE, &many);
        const auto& account = PrivateAccounts::kOrdinary;
        if (::setresgid(account.gid, account.gid, account.gid) != 0
            || ::setresuid(account.uid, account.uid, account.uid) != 0)
            ::_exit(1);
        std::vector<UniqueFd> held;
        for (int i = 0; i < 3000; ++i) {
            auto connection = connectToService(Namespace::kSystem, kAuthorityServiceName);
            if (connection.ok())
                held.push_back(connection.take());
        }
        const size_t count = held.size();
        (void)::write(ready.second.get(), &count, sizeof count);
        char byte = 0;
        (void)::read(leave.first.get(), &byte, 1);
        ::_exit(0);
    }
    size_t held = 0;
    ASSERT_TRUE(sys::readFully(ready.first.get(), &held, sizeof held).ok());
    EXPECT_GT(held, 0u);
    EXPECT_LE(held, 64u);
    EXPECT_EQ(requestAs(PrivateAccounts::kAdministrator, kAnalysis), kNobodyAsked); // connected and answered
    EXPECT_EQ(requestAs(PrivateAccounts::kRoot, kAnalysis), kGranted);
    EXPECT_LT(residentKiB(_process), before + 32 * 1024);
    leave.second.reset();
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(eventually([] {
        return requestAs(PrivateAccounts::kOrdinary, kAnalysis) == kNobodyAsked; // its share is free again
    }));
}

TEST_F(HostileClientsTest, AClientThatNeverReadsIsLeftBehind)
{
    const auto connection = connectToService(Namespace::kSystem, kAuthorityServiceName);
    ASSERT_TRUE(connection.ok());
    const size_t before = residentKiB(_process);
    const Bytes packet = goodPackets()[2];
    const iovec part{const_cast<std::byte*>(packet.data()), packet.size()};
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    Status sent;
    for (int i = 0; i < 200'000 && sent.ok(); ++i)
        sent = sendPacket(connection.value().get(), {&part, 1}, {}, deadline);
    EXPECT_EQ(sent.code(), Code::kPeerGone) << sent.message();
    EXPECT_EQ(request(_witness, {kAnalysis}), kGranted);
    EXPECT_LT(residentKiB(_process), before + 32 * 1024);
}

TEST_F(HostileClientsTest, FormsThatAreNotTheCallersOwnAndValidAreRefusedAndLogged)
{
    AuthorizationExternalForm form{};
    ASSERT_EQ(AuthorizationMakeExternalForm(_witness, &form), kGranted);
    ASSERT_TRUE(checkAuthorization(form, 0, kAnalysis).ok());
    std::mt19937 random(7);
    for (int i = 0; i < 5000; ++i) {
        AuthorizationExternalForm guess = form;
        for (size_t at = i % 2 == 0 ? 8 : 0; at < sizeof guess.bytes; ++at) // half of them with the right handle
            guess.bytes[at] = static_cast<char>(random());
        ASSERT_EQ(checkAuthorization(guess, 0, kAnalysis).code(), Code::kDenied);
    }
    EXPECT_NE(world().log().find("its form is unknown, of another user or expired"), std::string::npos);
    EXPECT_EQ(checkAuthorization(form, 61001, kAnalysis).code(), Code::kDenied);
    EXPECT_NE(world().log().find("uid 61001: refused quillon.process.analysis: its form is unknown"),
              std::string::npos);
    // A stranger who has got hold of root's form can neither use it nor ask about it.
    EXPECT_EQ(as(PrivateAccounts::kAdministrator,
                 [&] {
                     return checkAuthorization(form, PrivateAccounts::kAdministrator.uid, kAnalysis).code()
                                 == Code::kDenied
                             && checkAuthorization(form, 0, kAnalysis).code() == Code::kDenied
                         ? kGranted
                         : errAuthorizationInternal;
                 }),
              kGranted);
    EXPECT_NE(world().log().find("uid 61002: refused quillon.process.analysis: asked about another user's form"),
              std::string::npos);
    EXPECT_TRUE(checkAuthorization(form, 0, kAnalysis).ok());
}

class FormLifetimeTest : public AuthorityTest { };

TEST_F(FormLifetimeTest, AFormExpiresAndAnotherIsMade)
{
    restartWith("--form-lifetime=1");
    AuthorizationRef reference = newReference();
    ASSERT_EQ(request(reference, {kAnalysis}), kGranted);
    const auto make = [&] {
        AuthorizationExternalForm form{};
        EXPECT_EQ(AuthorizationMakeExternalForm(reference, &form), kGranted);
        return form;
    };
    const AuthorizationExternalForm first = make();
    AuthorizationChecker server, late;
    ASSERT_TRUE(server.check(first, 0, kAnalysis).ok());
    EXPECT_TRUE(eventually([&] { return checkAuthorization(first, 0, kAnalysis).code() == Code::kDenied; }));
    const AuthorizationExternalForm second = make();
    EXPECT_NE(std::memcmp(first.bytes, second.bytes, sizeof first.bytes), 0);
    EXPECT_EQ(request(reference, {kAnalysis}, {}, kHeld), kGranted); // the reference itself lives
    // A server that accepted it in time keeps it, for that user and those rights; nobody else gets it any more.
    EXPECT_TRUE(server.check(first, 0, kAnalysis).ok());
    EXPECT_EQ(server.check(first, 1, kAnalysis).code(), Code::kDenied);
    EXPECT_EQ(server.check(first, 0, kKill).code(), Code::kDenied);
    EXPECT_EQ(late.check(first, 0, kAnalysis).code(), Code::kDenied);
    EXPECT_EQ(AuthorizationFree(reference, 0), kGranted);
    EXPECT_TRUE(eventually([&] { return server.check(first, 0, kAnalysis).code() == Code::kDenied; }));
}

TEST_F(HostileClientsTest, TheNumberOfDefinitionsIsLimited)
{
    int defined = 0;
    while (defined < 300 && define(_witness, ("test.right" + std::to_string(defined)).c_str(), {}) == kGranted)
        ++defined;
    EXPECT_EQ(defined, 253); // beside the three that are always there
    EXPECT_EQ(define(_witness, kKill, {}), kGranted);
    EXPECT_EQ(request(_witness, {"test.right0"}), kGranted);
}

TEST_F(AuthorityTest, RulesThatOthersCouldChangeOrNobodyUnderstandsStopIt)
{
    struct Row {
        const char* what;
        const char* file;
        const char* text;
        mode_t mode;
    };
    const Row rows[] = {
        {"a damaged database", "/rights/rights.plist", "<plist><dict><key>a</key>", 0600},
        {"no database", "/rights/rights.plist", "<plist version=\"1.0\"><array/></plist>", 0600},
        {"a right of another class", "/rights/rights.plist",
         "<plist version=\"1.0\"><dict><key>a</key><dict><key>class</key><string>allow</string></dict></dict></plist>",
         0600},
        {"a database that others write", "/rights/rights.plist", "<plist version=\"1.0\"><dict/></plist>", 0666},
        {"an unknown key", "/authority.conf", "admin-group = wheel\n", 0644},
        {"a relative program", "/authority.conf", "pinentry = pinentry\n", 0644},
        {"a directory that others write", "/rights", nullptr, 0777},
        {"a configuration that others write", "/authority.conf", "admin-groups = wheel\n", 0664},
        {"nothing wrong", "/authority.conf", "# empty\n\nadmin-groups =\n", 0644},
    };
    for (const Row& row : rows) {
        restartWith("");
        AuthorizationRef first = newReference();
        ASSERT_EQ(define(first, kKill, {}), kGranted); // which makes the directory
        ASSERT_EQ(AuthorizationFree(first, 0), kGranted);
        world().kill(Namespace::kSystem);
        const std::string path = world().directory() + row.file;
        if (row.text)
            std::ofstream(path) << row.text;
        ASSERT_EQ(::chmod(path.c_str(), row.mode), 0);
        AuthorizationRef reference = nullptr;
        const OSStatus status = AuthorizationCreate(nullptr, nullptr, 0, &reference);
        EXPECT_EQ(status, row.what == std::string("nothing wrong") ? kGranted : errAuthorizationInternal) << row.what;
        // The client may learn of it a moment before the log does.
        EXPECT_TRUE(eventually([&] {
            return (world().log().find("not started: ") == std::string::npos) == (status == kGranted);
        })) << row.what;
        EXPECT_EQ(AuthorizationFree(reference, 0), reference ? kGranted : errAuthorizationInvalidRef);
    }
}

} // namespace
} // namespace vnt::test
