#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"

/// How the tool behaves towards shells, scripts and terminals.
namespace vnt::test {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

/// docs/exit-statuses.md, a row each. What went wrong is told on standard error alone.
TEST(Manners, EveryExitStatusIsTheDocumentedOne)
{
    const std::string bundle = place("manners");
    ASSERT_EQ(rumbel({"record", "-i", "processcensus", "-o", bundle, "--", "/bin/sh", "-c", "exit 3"}).status, 0);
    struct Row {
        const char* what;
        std::vector<std::string> arguments;
        int status;
        bool prints; ///< something on standard output
    } rows[] = {
        {"help", {"--help"}, 0, true},
        {"help of a command", {"record", "--help"}, 0, true},
        {"version", {"--version"}, 0, true},
        {"a report", {"report", bundle + ".vnt"}, 0, true},
        {"a list", {"list", "instruments"}, 0, true},
        {"options", {"list", "options"}, 0, true},
        {"processes", {"list", "processes"}, 0, true},
        {"nothing to recover", {"recover"}, 0, false},
        {"no such bundle", {"report", place("none.vnt")}, 1, false},
        {"no such process", {"record", "-p", "4194305"}, 1, false},
        {"no such recording", {"recover", "4194305"}, 1, false},
        {"no command", {}, 2, false},
        {"no such command", {"play"}, 2, false},
        {"no such option", {"report", "--nothing", bundle + ".vnt"}, 2, false},
        {"a value that is none", {"record", "-d", "soon", "-a"}, 2, false},
        {"two targets", {"record", "-a", "-p", "1"}, 2, false},
        {"discard what?", {"recover", "--discard"}, 2, false},
        {"no such shell", {"completion", "tcsh"}, 2, false},
        {"the program's status",
         {"record", "--pass-status", "-i", "processcensus", "-o", place("p"), "--", "/bin/sh", "-c", "exit 3"},
         3,
         true},
        {"and the end by a signal",
         {"record", "--pass-status", "-i", "processcensus", "-o", place("q"), "--", "/bin/sh", "-c", "kill -TERM $$"},
         143,
         true},
    };
    for (const Row& row : rows) {
        const ToolResult result = rumbel(row.arguments);
        EXPECT_EQ(result.status, row.status) << row.what << ": " << result.err;
        EXPECT_EQ(!result.out.empty(), row.prints) << row.what << ": " << result.out;
        EXPECT_TRUE(row.status == 0 || !result.err.empty()) << row.what;
    }
}

TEST(Manners, ARecordingPrintsNothingButStatusLines)
{
    const ToolResult result = rumbel({"record", "-i", "processcensus", "-o", place("quiet"), "--", "/bin/true"});
    ASSERT_EQ(result.status, 0) << result.err;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.starts_with("rumbel: ")) << line;
}

/// What a terminal gets from `command`, by script(1).
std::string onTerminal(const std::string& command, const std::vector<std::string>& environment)
{
    ToolRun run;
    run.arguments = {"/usr/bin/script", "-qec", command, place("typescript")};
    run.environment = environment;
    const ToolResult result = Tool(run).wait();
    EXPECT_NE(result.status, 127);
    return result.out;
}

TEST(Manners, ColourAndTheLiveLineAreForTerminalsThatWantThem)
{
    if (!sys::statFile("/usr/bin/script").ok())
        GTEST_SKIP() << "needs script(1)";
    const std::string doctor = programPath("rumbel") + " doctor";
    // The tool shows the line after half a second; the recording lasts longer.
    const std::string record = programPath("rumbel") + " record -i processcensus -d 1.5 -a -o " + place("live");
    struct Row {
        const char* what;
        std::vector<std::string> environment;
        bool colour;
        bool line;
    } rows[] = {
        {"a terminal", {"TERM=xterm", "NO_COLOR="}, true, true},
        {"no colour asked for", {"TERM=xterm", "NO_COLOR=1"}, false, true},
        {"a terminal that knows nothing", {"TERM=dumb", "NO_COLOR="}, false, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(onTerminal(doctor, row.environment).find("\033[3") != std::string::npos, row.colour) << row.what;
        EXPECT_EQ(onTerminal(record, row.environment).find("Ctrl-C stops") != std::string::npos, row.line) << row.what;
    }
    EXPECT_THAT(rumbel({"doctor"}).out, Not(HasSubstr("\033")));
    EXPECT_THAT(rumbel({"record", "-i", "processcensus", "-d", "1.5", "-a", "-o", place("still")}).err,
                Not(HasSubstr("\r")));
}

} // namespace
} // namespace vnt::test
