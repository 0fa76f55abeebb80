#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/endtoend/Tool.h"

namespace vnt::test {
namespace {

using nlohmann::json;

constexpr uid_t kNobody = 65534;

json finding(const std::string& output, const char* instrument, const char* what)
{
    const json whole = json::parse(output);
    for (const json& entry : whole["findings"]) {
        if (entry["instrument"] == instrument && entry["what"] == what)
            return entry;
    }
    return json();
}

TEST(Doctor, WhatIsNotPossibleHasItsReason)
{
    if (::geteuid() != 0 || ::access(programPath("rumbel").c_str(), X_OK) != 0)
        GTEST_SKIP() << "SKIPPED: needs root, to be two users";
    const ToolResult root = rumbel({"doctor", "--json"});
    EXPECT_EQ(root.status, 0) << root.err;
    EXPECT_EQ(finding(root.out, "stacksampler", "own processes")["possible"], true);
    const ToolResult nobody = rumbel({"doctor", "--json"}, kNobody);
    if (nobody.status == 126 || nobody.status == 127)
        GTEST_SKIP() << "SKIPPED: needs a build directory that other users can reach";
    const json events = finding(nobody.out, "kerneltracer", "events of the kernel");
    EXPECT_EQ(events["possible"], false) << nobody.out;
    EXPECT_NE(events["reason"].get<std::string>().find("sudo rumbel record"), std::string::npos) << events;
}

TEST(Doctor, WhatItListsIsThere)
{
    const ToolResult processes = rumbel({"list", "processes", "--json"});
    EXPECT_EQ(processes.status, 0);
    bool self = false;
    for (const json& process : json::parse(processes.out))
        self = self || process["pid"] == ::getpid();
    EXPECT_TRUE(self);
    for (const json& instrument : json::parse(rumbel({"list", "--json"}).out)) {
        const std::string name = instrument["name"];
        EXPECT_EQ(instrument["identifier"], "quillon.vnt." + name);
    }
    EXPECT_EQ(rumbel({"list", "nothing"}).status, 2);
}

} // namespace
} // namespace vnt::test
