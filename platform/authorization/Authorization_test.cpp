#include "platform/authorization/Authorization.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>

#include "platform/authorization/AuthorizationWire.h"
#include "platform/base/sys.h"
#include "platform/foundation/Values.h"
#include "platform/foundation/bridge.h"
#include "platform/mach/NameService.h"
#include "platform/mach/PacketSocket.h"
#include "tests/support/PrivateAuthority.h"

namespace vnt {
namespace {

namespace fs = std::filesystem;
constexpr const char* kAnalysis = "quillon.process.analysis";
constexpr const char* kKill = "quillon.process.kill";
constexpr uid_t kNobody = 65534;

/// Real authorities in private directories: the parameter tells which one the test talks to.
class AuthorizationTest : public testing::TestWithParam<Namespace> {
protected:
    void SetUp() override
    {
        if (!fs::exists(std::string(VNT_TEST_PROGRAM_DIR) + "/VantoraAuthority"))
            GTEST_SKIP() << "needs VantoraAuthority in " << VNT_TEST_PROGRAM_DIR << "; build the preset release first";
        if (isSystem() && ::geteuid() != 0)
            GTEST_SKIP() << "needs root to be the system's authority";
        _world.emplace(VNT_TEST_PROGRAM_DIR);
        useNamespace(GetParam());
    }
    void TearDown() override { _world.reset(); }

    static bool isSystem() { return GetParam() == Namespace::kSystem; }
    void killAuthority() const { _world->kill(GetParam()); }
    static AuthorizationRef create()
    {
        AuthorizationRef reference = nullptr;
        EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 0, &reference), errAuthorizationSuccess);
        return reference;
    }
    static OSStatus request(AuthorizationRef reference, std::vector<const char*> names, AuthorizationFlags flags,
                            std::vector<std::string>* granted = nullptr, bool withPassword = false)
    {
        std::vector<AuthorizationItem> items;
        for (const char* name : names)
            items.push_back({name, 0, nullptr, 0});
        const AuthorizationRights rights{static_cast<uint32_t>(items.size()), items.data()};
        char user[] = "someone", password[] = "secret";
        AuthorizationItem credentials[] = {{"username", 7, user, 0}, {"password", 6, password, 0}};
        const AuthorizationEnvironment environment{2, credentials};
        AuthorizationRights* set = nullptr;
        const OSStatus status = AuthorizationCopyRights(reference, &rights, withPassword ? &environment : nullptr,
                                                        flags, granted ? &set : nullptr);
        if (set) {
            for (uint32_t i = 0; i < set->count; ++i)
                granted->emplace_back(set->items[i].name);
            AuthorizationFreeItemSet(set);
        }
        return status;
    }
    static AuthorizationExternalForm formOf(AuthorizationRef reference)
    {
        AuthorizationExternalForm form{};
        EXPECT_EQ(AuthorizationMakeExternalForm(reference, &form), errAuthorizationSuccess);
        return form;
    }

    AuthorityScope _scope{AuthorityNamespace::kBootstrapPort};
    std::optional<test::PrivateAuthority> _world;
};

TEST_P(AuthorizationTest, RightsAreHeldOnlyOnceAskedFor)
{
    struct Row {
        const char* what;
        std::vector<const char*> rights;
        AuthorizationFlags flags;
        OSStatus expected;
        std::vector<std::string> granted;
    };
    const Row rows[] = {
        {"not held yet", {kAnalysis}, 0, errAuthorizationDenied, {}},
        {"extended", {kAnalysis}, 18, errAuthorizationSuccess, {kAnalysis}},
        {"held", {kAnalysis}, 0, errAuthorizationSuccess, {kAnalysis}},
        {"interaction is not needed", {kKill}, 19, errAuthorizationSuccess, {kKill}},
        {"undefined right", {"some.right"}, 18, errAuthorizationDenied, {}},
        {"all or none", {kAnalysis, "some.right"}, 18, errAuthorizationDenied, {}},
        {"what there is",
         {"some.right", kAnalysis},
         18 | kAuthorizationFlagPartialRights,
         errAuthorizationSuccess,
         {kAnalysis}},
        {"nothing asked", {}, 18, errAuthorizationSuccess, {}},
    };
    AuthorizationRef reference = create();
    for (const Row& row : rows) {
        std::vector<std::string> granted;
        EXPECT_EQ(request(reference, row.rights, row.flags, &granted), row.expected) << row.what;
        EXPECT_EQ(granted, row.granted) << row.what;
    }
    AuthorizationRef other = create();
    EXPECT_EQ(request(other, {kAnalysis}, 0), errAuthorizationDenied); // another reference holds its own
    EXPECT_EQ(AuthorizationFree(other, kAuthorizationFlagDestroyRights), errAuthorizationSuccess);
    EXPECT_EQ(AuthorizationFree(reference, 0), errAuthorizationSuccess);
}

TEST_P(AuthorizationTest, AFormIsWorthWhatItsReferenceIsWorth)
{
    AuthorizationRef reference = create();
    const AuthorizationExternalForm form = formOf(reference);
    EXPECT_EQ(checkAuthorization(form, ::getuid(), kAnalysis).code(), Code::kDenied); // nothing held yet
    ASSERT_EQ(request(reference, {kAnalysis}, 18), errAuthorizationSuccess);
    EXPECT_TRUE(checkAuthorization(form, ::getuid(), kAnalysis).ok());
    EXPECT_EQ(std::memcmp(formOf(reference).bytes, form.bytes, sizeof form.bytes), 0);
    EXPECT_EQ(checkAuthorization(form, ::getuid() + 1, kAnalysis).code(), Code::kDenied); // presented by another user
    EXPECT_EQ(checkAuthorization(form, ::getuid(), kKill).code(), Code::kDenied); // another right
    for (size_t i = 0; i < sizeof form.bytes; ++i) {
        AuthorizationExternalForm guessed = form;
        guessed.bytes[i] = static_cast<char>(guessed.bytes[i] ^ 1);
        EXPECT_EQ(checkAuthorization(guessed, ::getuid(), kAnalysis).code(), Code::kDenied) << i;
    }
    EXPECT_EQ(checkAuthorization({}, ::getuid(), kAnalysis).code(), Code::kDenied);
    EXPECT_EQ(AuthorizationFree(reference, 0), errAuthorizationSuccess);
    EXPECT_EQ(checkAuthorization(form, ::getuid(), kAnalysis).code(), Code::kDenied); // freed
}

TEST_P(AuthorizationTest, AFormDiesWithItsProcess)
{
    auto forms = sys::makePipe().take();
    auto stay = sys::makePipe().take();
    const pid_t child = ::fork();
    if (child == 0) {
        stay.second.reset();
        AuthorizationRef reference = create();
        const bool held = request(reference, {kAnalysis}, 18) == errAuthorizationSuccess;
        const AuthorizationExternalForm form = formOf(reference);
        (void)::write(forms.second.get(), form.bytes, sizeof form.bytes);
        char byte = 0;
        (void)::read(stay.first.get(), &byte, 1);
        ::_exit(held ? 0 : 1);
    }
    AuthorizationExternalForm form{};
    ASSERT_TRUE(sys::readFully(forms.first.get(), form.bytes, sizeof form.bytes).ok());
    EXPECT_TRUE(checkAuthorization(form, ::getuid(), kAnalysis).ok());
    stay.second.reset();
    int status = 1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(checkAuthorization(form, ::getuid(), kAnalysis).code(), Code::kDenied);
}

TEST_P(AuthorizationTest, DefinitionsAreReadAndWrittenAndOutliveTheSystemsAuthority)
{
    const auto timeoutOf = [](const char* right) {
        const void* definition = nullptr;
        const OSStatus status = AuthorizationRightGet(right, &definition);
        const Ref<Dictionary> owned = Ref<Dictionary>::adopt(fromC<Dictionary>(definition));
        return status == errAuthorizationSuccess ? owned->get<Number>("timeout")->int64Value() : status;
    };
    const void* reference = nullptr;
    ASSERT_EQ(AuthorizationRightGet(kAnalysis, &reference), errAuthorizationSuccess);
    const Ref<Dictionary> standard = Ref<Dictionary>::adopt(fromC<Dictionary>(reference));
    EXPECT_EQ(standard->count(), 6u);
    EXPECT_TRUE(*standard->get<String>("class") == "user" && *standard->get<String>("group") == "admin"
                && *standard->get<String>("comment") == "Rights for Quillon");
    EXPECT_TRUE(standard->get<Number>("shared")->isBool() && standard->get<Number>("allow-root")->boolValue());
    EXPECT_EQ(timeoutOf(kAnalysis), 36000);
    EXPECT_EQ(timeoutOf(kKill), 5);
    EXPECT_EQ(timeoutOf("some.right"), errAuthorizationDenied);

    AuthorizationRef authorization = create();
    const auto set = [&](const char* right, const Ref<Object>& definition) {
        return AuthorizationRightSet(authorization, right, definition.get(), nullptr, nullptr, nullptr);
    };
    const Ref<MutableDictionary> changed = MutableDictionary::copyOf(*standard);
    changed->set("timeout", Number::withInt(7));
    EXPECT_EQ(set(kKill, changed), errAuthorizationSuccess);
    EXPECT_EQ(set("some.right", changed), errAuthorizationSuccess);
    changed->set("timeout", String::create("soon"));
    EXPECT_EQ(set(kKill, changed), errAuthorizationInvalidSet);
    EXPECT_EQ(set(kKill, Dictionary::create()), errAuthorizationInvalidSet);
    EXPECT_EQ(set(kKill, String::create("user")), errAuthorizationInvalidSet);
    EXPECT_EQ(set("", changed), errAuthorizationInvalidSet);
    EXPECT_EQ(timeoutOf(kKill), 7);
    // The user's authority gives nothing for a right that somebody made up.
    EXPECT_EQ(request(authorization, {"some.right"}, 18),
              isSystem() ? errAuthorizationSuccess : errAuthorizationDenied);
    EXPECT_EQ(AuthorizationFree(authorization, 0), errAuthorizationSuccess);

    killAuthority();
    EXPECT_EQ(timeoutOf(kKill), isSystem() ? 7 : 5);
}

TEST_P(AuthorizationTest, AHeldRightTimesOut)
{
    AuthorizationRef reference = create();
    const Ref<Dictionary> never = Dictionary::create({{String::create("class"), String::create("user")},
                                                      {String::create("allow-root"), Number::withBool(true)},
                                                      {String::create("timeout"), Number::withInt(0)}});
    ASSERT_EQ(AuthorizationRightSet(reference, kKill, never.get(), nullptr, nullptr, nullptr), errAuthorizationSuccess);
    EXPECT_EQ(request(reference, {kKill}, 18), errAuthorizationSuccess);
    EXPECT_EQ(request(reference, {kKill}, 0), errAuthorizationDenied);
    EXPECT_EQ(checkAuthorization(formOf(reference), ::getuid(), kKill).code(), Code::kDenied);
    EXPECT_EQ(AuthorizationFree(reference, 0), errAuthorizationSuccess);
}

TEST_P(AuthorizationTest, WithoutAnAuthorityEverythingFailsAtOnce)
{
    AuthorizationRef reference = create();
    const AuthorizationExternalForm form = formOf(reference);
    killAuthority();
    ::setenv("VANTORA_PROGRAM_DIR", "/nowhere", 1);
    EXPECT_EQ(request(reference, {kAnalysis}, 19), errAuthorizationInternal);
    AuthorizationExternalForm other{};
    EXPECT_EQ(AuthorizationMakeExternalForm(reference, &other), errAuthorizationInternal);
    EXPECT_EQ(AuthorizationFree(reference, kAuthorizationFlagDestroyRights), errAuthorizationInternal);
    EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 0, &reference), errAuthorizationInternal);
    EXPECT_EQ(AuthorizationRightGet(kAnalysis, nullptr), errAuthorizationInternal);
    EXPECT_EQ(checkAuthorization(form, ::getuid(), kAnalysis).code(), Code::kPeerGone);
    ::setenv("VANTORA_PROGRAM_DIR", (_world->directory() + "/bin").c_str(), 1);
    EXPECT_EQ(checkAuthorization(form, ::getuid(), kAnalysis).code(), Code::kDenied); // a new one knows no old form
}

TEST_P(AuthorizationTest, MisuseIsRefusedWithoutAWord)
{
    AuthorizationRef reference = create();
    EXPECT_EQ(AuthorizationFree(nullptr, 0), errAuthorizationInvalidRef);
    EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 0, nullptr), errAuthorizationInvalidRef);
    EXPECT_EQ(AuthorizationCopyRights(reference, nullptr, nullptr, 0, nullptr), errAuthorizationInvalidSet);
    EXPECT_EQ(AuthorizationMakeExternalForm(reference, nullptr), errAuthorizationInvalidSet);
    EXPECT_EQ(AuthorizationRightGet(nullptr, nullptr), errAuthorizationDenied);
    EXPECT_EQ(AuthorizationFreeItemSet(nullptr), errAuthorizationSuccess);
    const std::string longName(256, 'x');
    EXPECT_EQ(request(reference, {nullptr}, 18), errAuthorizationInvalidSet);
    EXPECT_EQ(request(reference, {""}, 18), errAuthorizationInvalidSet);
    EXPECT_EQ(request(reference, {longName.c_str()}, 18), errAuthorizationInvalidSet);
    EXPECT_EQ(request(reference, std::vector<const char*>(65, kAnalysis), 18), errAuthorizationInvalidSet);
    EXPECT_EQ(request(reference, std::vector<const char*>(64, kAnalysis), 18), errAuthorizationSuccess);
    EXPECT_EQ(AuthorizationFree(reference, 0), errAuthorizationSuccess);
}

TEST_P(AuthorizationTest, TheAuthorityClosesOnRubbishAndServesOthers)
{
    AuthorizationRef reference = create();
    AuthorityPacket whole;
    whole.beginRequest(AuthorityRequest::kCopyRights);
    whole.body().little(uint32_t{18});
    AuthorizationItem item{kAnalysis, 0, nullptr, 0};
    const AuthorizationRights rights{1, &item};
    ASSERT_TRUE(whole.addItems(&rights) && whole.addItems(nullptr));
    const std::vector<std::byte> good(whole.bytes().begin(), whole.bytes().end());
    const auto answered = [&](const std::vector<std::byte>& bytes, bool withDescriptor = false) {
        auto connection = connectToService(GetParam(), kAuthorityServiceName);
        EXPECT_TRUE(connection.ok());
        const iovec part{const_cast<std::byte*>(bytes.data()), bytes.size()};
        const int fd = connection.value().get();
        EXPECT_EQ(trySendPacket(fd, {&part, 1}, withDescriptor ? std::span(&fd, 1) : std::span<const int>()), 0);
        char answer[4096];
        const auto count = sys::readSome(fd, answer, sizeof answer);
        return count.ok() && count.value() > 0;
    };
    EXPECT_TRUE(answered(good));
    EXPECT_FALSE(answered(good, true)) << "a descriptor";
    for (size_t length = 1; length < good.size(); ++length)
        EXPECT_FALSE(answered({good.begin(), good.begin() + static_cast<long>(length)})) << "cut to " << length;
    std::vector<std::byte> longer = good;
    longer.push_back(std::byte{0});
    EXPECT_FALSE(answered(longer));
    for (const size_t at : {0, 4, 6, 13}) { // magic, version, request, high byte of the number of items
        std::vector<std::byte> damaged = good;
        damaged[at] ^= std::byte{0x40};
        EXPECT_FALSE(answered(damaged)) << at;
    }
    EXPECT_EQ(request(reference, {kAnalysis}, 18), errAuthorizationSuccess);
    EXPECT_EQ(AuthorizationFree(reference, 0), errAuthorizationSuccess);
}

TEST_P(AuthorizationTest, OtherUsersMeetTheSystemsAuthorityOnly)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    AuthorizationRef root = create(); // it runs before the other user comes, who could not start it
    ASSERT_EQ(request(root, {kAnalysis}, 18), errAuthorizationSuccess);
    const AuthorizationExternalForm rootForm = formOf(root);
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setresgid(kNobody, kNobody, kNobody) != 0 || ::setresuid(kNobody, kNobody, kNobody) != 0)
            ::_exit(100);
        AuthorizationRef reference = nullptr;
        const OSStatus created = AuthorizationCreate(nullptr, nullptr, 0, &reference);
        if (!isSystem())
            ::_exit(created == errAuthorizationInternal ? 0 : 1);
        if (created != errAuthorizationSuccess)
            ::_exit(2);
        if (request(reference, {kAnalysis}, 18) != errAuthorizationInteractionNotAllowed
            || request(reference, {kAnalysis}, 19) != errAuthorizationInteractionNotAllowed)
            ::_exit(3);
        if (request(reference, {kAnalysis}, 18, nullptr, /*withPassword=*/true) != errAuthorizationDenied)
            ::_exit(4);
        const Ref<Dictionary> definition = Dictionary::create({{String::create("class"), String::create("user")}});
        if (AuthorizationRightSet(reference, kAnalysis, definition.get(), nullptr, nullptr, nullptr)
            != errAuthorizationInteractionNotAllowed)
            ::_exit(5);
        // Root's form is nothing in another user's hands, nor may that user ask about root's references.
        if (checkAuthorization(rootForm, kNobody, kAnalysis).code() != Code::kDenied
            || checkAuthorization(rootForm, 0, kAnalysis).code() != Code::kDenied)
            ::_exit(6);
        ::_exit(AuthorizationFree(reference, 8) == errAuthorizationSuccess ? 0 : 7);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(AuthorizationFree(root, 0), errAuthorizationSuccess);
}

TEST_P(AuthorizationTest, TheScopeChoosesTheAuthority)
{
    const auto runs = [&](const char* which) {
        return fs::exists(_world->directory() + "/" + which + "/v1/" + kAuthorityServiceName);
    };
    AuthorizationRef reference = create();
    EXPECT_EQ(runs("user"), !isSystem());
    EXPECT_EQ(runs("system"), isSystem());
    if (!isSystem() && ::geteuid() == 0) {
        const AuthorityScope system(AuthorityNamespace::kSystem);
        AuthorizationRef other = create();
        EXPECT_TRUE(runs("system"));
        EXPECT_EQ(AuthorizationFree(other, 0), errAuthorizationSuccess);
    }
    EXPECT_EQ(AuthorizationFree(reference, 0), errAuthorizationSuccess);
}

INSTANTIATE_TEST_SUITE_P(Authorities, AuthorizationTest, testing::Values(Namespace::kUser, Namespace::kSystem),
                         [](const auto& instance) { return instance.param == Namespace::kUser ? "User" : "System"; });

} // namespace
} // namespace vnt
