#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "rumbel/view/TestRecording.h"
#include "rumbel/view/view.h"

namespace vnt {
namespace {

bool isProgram(const std::string& name)
{
    for (const char* directory : {"/usr/bin/", "/usr/local/bin/", "/bin/"}) {
        if (::access((directory + name).c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

int run(std::vector<std::string> arguments)
{
    std::vector<char*> pointers;
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    pid_t pid = -1;
    if (::posix_spawnp(&pid, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0)
        return -1;
    int status = -1;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) { }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const std::string kTests = VNT_SOURCE "/viewer/test/";

/// The page of a recording full of markup, used with mouse and keyboard in a real browser: viewer/test/page.mjs.
TEST(Page, WorksInABrowser)
{
    if (!isProgram("node") || !isProgram("chromium"))
        GTEST_SKIP() << "needs node and chromium; run: scripts/install-packages tests";
    const std::string directory = test::freshDirectory("browser");
    const test::TestRecording recording(directory);
    std::ostringstream out;
    std::ostringstream err;
    ASSERT_EQ(runView({recording.path(), directory + "/page.html", false}, out, err, false), 0) << err.str();
    const std::string pictures = sys::environmentOr("VNT_PICTURES", "");
    std::vector<std::string> command{"node", kTests + "page.mjs", directory + "/page.html"};
    if (!pictures.empty())
        command.push_back(pictures);
    EXPECT_EQ(run(std::move(command)), 0);
}

TEST(Page, PartsWithoutAPageHold)
{
    if (!isProgram("node"))
        GTEST_SKIP() << "needs node; run: scripts/install-packages tests";
    EXPECT_EQ(run({"node", "--test", kTests + "units.test.mjs"}), 0);
}

} // namespace
} // namespace vnt
