#include "services/authority/AuthorityFixture_test.h"

#include <unistd.h>

#include <chrono>
#include <sstream>
#include <thread>

#include "platform/base/sys.h"
#include "platform/foundation/Values.h"

namespace vnt::test {

AuthorizationRef newReference()
{
    AuthorizationRef reference = nullptr;
    EXPECT_EQ(AuthorizationCreate(nullptr, nullptr, 0, &reference), errAuthorizationSuccess);
    return reference;
}

OSStatus request(AuthorizationRef reference, std::vector<const char*> rights, const Typed& typed,
                 AuthorizationFlags flags)
{
    std::vector<AuthorizationItem> wanted, items;
    for (const char* name : rights)
        wanted.push_back({name, 0, nullptr, 0});
    const auto add = [&](const char* name, const std::string& value) {
        items.push_back({name, value.size(), const_cast<char*>(value.data()), 0});
    };
    if (!typed.name.empty() || !typed.password.empty()) {
        add("username", typed.name);
        add("password", typed.password);
        if (typed.shared)
            items.push_back({"shared", 0, nullptr, 0});
    }
    if (!typed.prompt.empty())
        add("prompt", typed.prompt);
    const AuthorizationRights set{static_cast<uint32_t>(wanted.size()), wanted.data()};
    const AuthorizationEnvironment environment{static_cast<uint32_t>(items.size()), items.data()};
    return AuthorizationCopyRights(reference, &set, &environment, flags, nullptr);
}

OSStatus define(AuthorizationRef reference, const char* right, const Definition& definition)
{
    const auto made = MutableDictionary::create();
    made->set("class", String::create("user"));
    made->set("timeout", Number::withInt(definition.timeoutSec));
    if (definition.group)
        made->set("group", String::create(definition.group));
    made->set("shared", Number::withBool(definition.shared));
    made->set("allow-root", Number::withBool(definition.allowRoot));
    return AuthorizationRightSet(reference, right, made.get(), nullptr, nullptr, nullptr);
}

void AuthorityTest::SetUp()
{
    const Status entered = PrivateAccounts::enter();
    if (!entered.ok())
        GTEST_SKIP() << entered.message();
    _world.emplace(VNT_TEST_PROGRAM_DIR);
    useNamespace(Namespace::kSystem);
    ASSERT_GT(PrivateAuthority::process(Namespace::kSystem), 0);
}

void AuthorityTest::restartWith(const std::string& options)
{
    _world.reset();
    _world.emplace(VNT_TEST_PROGRAM_DIR, options);
    useNamespace(Namespace::kSystem);
    ASSERT_GT(PrivateAuthority::process(Namespace::kSystem), 0);
}

OSStatus AuthorityTest::as(const Account& account, const std::function<OSStatus()>& body)
{
    // The statuses differ in their last two digits, which an exit status holds.
    constexpr OSStatus kBase = -60000;
    const int code = PrivateAccounts::runAs(account, [&] {
        (void)::setsid();
        const OSStatus status = body();
        return status == 0 ? 0 : kBase - status;
    });
    return code == 0 ? 0 : kBase - code;
}

std::vector<pid_t> AuthorityTest::helpers()
{
    const std::string authority = std::to_string(PrivateAuthority::process(Namespace::kSystem));
    const auto text = sys::readFile("/proc/" + authority + "/task/" + authority + "/children", 4096);
    std::vector<pid_t> found;
    std::istringstream words(text.ok() ? text.value() : "");
    for (pid_t pid = 0; words >> pid;)
        found.push_back(pid);
    return found;
}

bool AuthorityTest::eventually(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

} // namespace vnt::test
