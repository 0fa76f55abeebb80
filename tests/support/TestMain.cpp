#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace {

std::set<std::string> openDescriptors()
{
    std::set<std::string> open;
    DIR* directory = ::opendir("/proc/self/fd");
    const std::string own = std::to_string(::dirfd(directory));
    while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        if (name[0] == '.' || name == own)
            continue;
        char target[4096];
        const ssize_t length = ::readlink(("/proc/self/fd/" + name).c_str(), target, sizeof target);
        open.insert(name + " -> " + std::string(target, length > 0 ? static_cast<size_t>(length) : 0));
    }
    ::closedir(directory);
    return open;
}

/// A private runtime directory for the whole program, and at the end a look for leaked descriptors and children.
class PrivateWorld : public testing::Environment {
public:
    void SetUp() override
    {
        // A death test runs this program again, and leaves without an end: its world lies within its parent's.
        const char* outer = std::getenv("VNT_TEST_WORLD");
        _directory = outer ? std::string(outer) + "/w.XXXXXX" : "/tmp/vnt-test.XXXXXX";
        ASSERT_NE(::mkdtemp(_directory.data()), nullptr);
        ::setenv("VNT_TEST_WORLD", _directory.c_str(), 1);
        ::setenv("VANTORA_BOOTSTRAP_DIR", (_directory + "/user").c_str(), 1);
        ::setenv("VANTORA_SYSTEM_BOOTSTRAP_DIR", (_directory + "/system").c_str(), 1);
        ::setenv("XDG_STATE_HOME", (_directory + "/state").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (_directory + "/config").c_str(), 1);
        ::setenv("TMPDIR", _directory.c_str(), 1);
        _before = openDescriptors();
    }

    void TearDown() override
    {
        // A thread that holds the last reference to a connection may still be on its way out.
        for (int i = 0; i < 10'000 && !leakedDescriptors().empty(); ++i)
            ::usleep(1000);
        EXPECT_EQ(leakedDescriptors(), "") << "leaked descriptors";
        int status = 0;
        const pid_t child = ::waitpid(-1, &status, WNOHANG);
        EXPECT_TRUE(child == -1 && errno == ECHILD) << "a child was left behind (waitpid: " << child << ")";
        endServices();
        const std::string remove = "rm -rf '" + _directory + "'";
        EXPECT_EQ(std::system(remove.c_str()), 0);
    }

private:
    std::string leakedDescriptors() const
    {
        std::string leaked;
        for (const std::string& descriptor : openDescriptors())
            leaked += _before.count(descriptor) ? "" : "\n  " + descriptor;
        return leaked;
    }

    /// Services that were started in this world by name would idle on for a while. They are known by the private
    /// directory in their environment.
    void endServices() const
    {
        const std::string mark = "BOOTSTRAP_DIR=" + _directory + "/";
        DIR* directory = ::opendir("/proc");
        while (const dirent* entry = ::readdir(directory)) {
            const pid_t pid = std::atoi(entry->d_name);
            if (pid <= 0 || pid == ::getpid())
                continue;
            std::ifstream file("/proc/" + std::to_string(pid) + "/environ", std::ios::binary);
            const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
            if (text.find(mark) != std::string::npos)
                ::kill(pid, SIGKILL);
        }
        ::closedir(directory);
    }

    std::string _directory;
    std::set<std::string> _before;
};

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    testing::AddGlobalTestEnvironment(new PrivateWorld); // owned by GoogleTest
    return RUN_ALL_TESTS();
}
