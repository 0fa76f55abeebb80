#include "Vantora/privileged/Rights.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "Vantora/privileged/ScriptedAuthority_test.h"

namespace vnt {
namespace {

using test::currentDefinition;
using test::ScriptedAuthority;
using Lines = std::vector<std::string>;

constexpr char kGetAnalysis[] = "get quillon.process.analysis";
constexpr char kAnalysisPrompt[] = "prompt=Vantora wants permission to analyze other processes.";
constexpr char kKillPrompt[] = "prompt=Vantora wants permission to terminate other processes.";

/// Standard error is a file here, so nothing is asked on a terminal.
class RightsTest : public testing::Test {
protected:
    void SetUp() override
    {
        useNamespace(Namespace::kUser);
        ::setenv("VANTORA_PROGRAM_DIR", "/nowhere", 1); // no authority but the scripted ones
    }
    void TearDown() override { ::unsetenv("VANTORA_PROGRAM_DIR"); }

    /// In the system's namespace only root's service is believed.
    static bool mayServe(Namespace which) { return which == Namespace::kUser || ::geteuid() == 0; }
};

struct CreatingFunction {
    const char* name;
    AuthorizationRef (*create)(void);
    Namespace authority;
    int timeoutSec; // of the right it owns; 0: none
    const char* ownRight;
    std::string request; // what is asked for
    const char* failureLine;
};

const CreatingFunction kCreatingFunctions[] = {
    {"AzlCreateAuthorization", AzlCreateAuthorization, Namespace::kUser, 36000, "quillon.process.analysis",
     "copy [quillon.process.analysis] (" + std::string(kAnalysisPrompt) + ") 19",
     "Vantora: Failed to Authorize Rights: -60005.\n"},
    {"AzlObtainBasicAuthorization", AzlObtainBasicAuthorization, Namespace::kSystem, 0, nullptr,
     "copy [system.privilege.taskport.debug] () 19", "Vantora: Failed to Authorize Basic Rights: -60005.\n"},
    {"AzlCreateLaunchSystemBootstrapAuthorization", AzlCreateLaunchSystemBootstrapAuthorization, Namespace::kSystem,
     36000, "quillon.process.analysis", "copy [quillon.process.analysis] () 19",
     "Vantora Kill: Failed to Authorize Rights: -60005.\n"},
    {"AzlCreateKillAuthorization", AzlCreateKillAuthorization, Namespace::kSystem, 5, "quillon.process.kill",
     "copy [quillon.process.kill] (" + std::string(kKillPrompt) + ") 19",
     "Vantora Kill: Failed to Authorize Rights: -60005.\n"},
    {"AzlCreateTFPAuthorization", AzlCreateTFPAuthorization, Namespace::kSystem, 36000, "quillon.process.analysis",
     "copy [quillon.process.analysis, system.privilege.taskport.debug] (" + std::string(kAnalysisPrompt) + ") 19",
     "Vantora TFP : Failed to Authorize Rights: -60005.\n"},
};

TEST_F(RightsTest, EachFunctionAsksForItsRightsAndSaysWhenTheyAreRefused)
{
    for (const CreatingFunction& function : kCreatingFunctions) {
        SCOPED_TRACE(function.name);
        if (!mayServe(function.authority)) {
            std::printf("%s is not tested: needs root to be the system's authority; run: sudo ctest\n", function.name);
            continue;
        }
        Lines expected;
        if (function.ownRight)
            expected.push_back(std::string("get ") + function.ownRight);
        expected.push_back(function.request);
        {
            ScriptedAuthority authority(function.authority, {currentDefinition(function.timeoutSec), 0, {}, {}});
            authority.start();
            testing::internal::CaptureStderr();
            const AuthorizationRef reference = function.create();
            EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
            ASSERT_NE(reference, nullptr);
            EXPECT_EQ(authority.transcript(), expected);
            EXPECT_EQ(AzlDestroyAuthorization(reference), errAuthorizationSuccess);
            EXPECT_EQ(authority.transcript(), Lines{"destroy"});
        }
        {
            ScriptedAuthority authority(function.authority,
                                        {currentDefinition(function.timeoutSec), 0, {errAuthorizationDenied}, {}});
            authority.start();
            testing::internal::CaptureStderr();
            EXPECT_EQ(function.create(), nullptr);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), function.failureLine);
            expected.emplace_back("destroy");
            EXPECT_EQ(authority.transcript(), expected);
        }
        testing::internal::CaptureStderr(); // nobody serves the name any more
        EXPECT_EQ(function.create(), nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  (function.ownRight ? "Error -60008 : Failed to set right for Vantora - AuthorizationCreate failed"
                                     : std::string())
                      + "Vantora: Failed to create the authref: -60008.\n");
    }
}

TEST_F(RightsTest, ADefinitionIsWrittenOnlyWhenItIsNotCurrent)
{
    const std::string written = "set some.right {timeout: 77, class: user, group: admin, comment: Rights for Quillon, "
                                "shared: true, allow-root: true}";
    const auto changed = [](std::string_view key, Ref<Object> value) {
        const auto definition = currentDefinition(77);
        if (value)
            definition->set(key, std::move(value));
        else
            definition->remove(key);
        return definition;
    };
    struct Row {
        const char* what;
        int timeoutSec;
        Ref<Dictionary> present;
        OSStatus setStatus;
        bool writes;
        const char* said;
    };
    const Row rows[] = {
        {"current", 77, currentDefinition(77), 0, false, ""},
        {"another timeout", 77, currentDefinition(78), 0, true, ""},
        {"timeout is no number", 77, changed("timeout", String::create("77")), 0, true, ""},
        {"no timeout", 77, changed("timeout", nullptr), 0, true, ""},
        {"no timeout is 0", 0, changed("timeout", nullptr), 0, false, ""},
        {"not for root", 77, changed("allow-root", Number::withBool(false)), 0, true, ""},
        {"nothing about root", 77, changed("allow-root", nullptr), 0, true, ""},
        {"not there", 77, nullptr, 0, true, ""},
        {"cannot be written", 77, nullptr, errAuthorizationInteractionNotAllowed, true,
         "Error -60007 : Failed to set right for Vantora - AuthorizationRightSet failed"},
    };
    const AuthorityScope scope(AuthorityNamespace::kBootstrapPort);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ScriptedAuthority authority(Namespace::kUser, {row.present, row.setStatus, {}, {}});
        authority.start();
        testing::internal::CaptureStderr();
        AzlCreateRight("some.right", row.timeoutSec);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.said);
        Lines expected{"get some.right"};
        if (row.writes)
            expected.push_back(written);
        EXPECT_EQ(authority.transcript(), expected);
    }
}

TEST_F(RightsTest, ARightThatCannotBeDefinedIsAskedForAllTheSame)
{
    ScriptedAuthority authority(Namespace::kUser, {nullptr, errAuthorizationDenied, {}, {}});
    authority.start();
    testing::internal::CaptureStderr();
    const AuthorizationRef reference = AzlCreateAuthorization();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error -60005 : Failed to set right for Vantora - AuthorizationRightSet failed");
    ASSERT_NE(reference, nullptr);
    const Lines asked = authority.transcript();
    ASSERT_EQ(asked.size(), 3u);
    EXPECT_EQ(asked[0], kGetAnalysis);
    EXPECT_EQ(AzlDestroyAuthorization(reference), errAuthorizationSuccess);
}

TEST_F(RightsTest, ARightIsHeldWhenItsNameIsAmongThoseGranted)
{
    struct Row {
        const char* what;
        std::deque<OSStatus> status;
        Lines granted;
        bool basic, analysis; // what the two checks say
    };
    const Row rows[] = {
        {"nothing", {}, {}, false, false},
        {"the debug right", {}, {kTaskPortRight}, true, false},
        {"both", {}, {kAnalysisRight, kTaskPortRight}, true, true},
        {"names that only begin alike", {}, {"quillon.process.analysi", "quillon.process.analysis2"}, false, false},
        {"refused", {errAuthorizationDenied, errAuthorizationDenied}, {kAnalysisRight, kTaskPortRight}, false, false},
    };
    const AuthorityScope scope(AuthorityNamespace::kBootstrapPort);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ScriptedAuthority authority(Namespace::kUser, {nullptr, 0, row.status, row.granted});
        authority.start();
        AuthorizationRef reference = nullptr;
        ASSERT_EQ(AuthorizationCreate(nullptr, nullptr, 0, &reference), errAuthorizationSuccess);
        EXPECT_EQ(AzlVerifyBasicAuthorization(reference), row.basic ? 1 : 0);
        EXPECT_EQ(AzlVerifyVantoraRightIsAuthorized(reference), row.analysis ? 1 : 0);
        EXPECT_EQ(authority.transcript(),
                  (Lines{"copy [system.privilege.taskport.debug] () 0", "copy [quillon.process.analysis] () 0"}));
        for (const int which : {0, 3, -1}) {
            testing::internal::CaptureStderr();
            EXPECT_EQ(_VerifyAuthorization(reference, which), 0);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), "Called _VerifyAuthorization without rights");
        }
        EXPECT_EQ(authority.transcript(), Lines{});
        EXPECT_EQ(AzlDestroyAuthorization(reference), errAuthorizationSuccess);
    }
    EXPECT_EQ(AzlVerifyBasicAuthorization(nullptr), 0);
    EXPECT_EQ(AzlDestroyAuthorization(nullptr), errAuthorizationInvalidRef);
}

} // namespace
} // namespace vnt
