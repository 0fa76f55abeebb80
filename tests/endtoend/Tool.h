#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vnt::test {

struct ToolResult {
    int status = -1; ///< exit status, or 128 + signal
    std::string out;
    std::string err;
};

/// The tool, as a shell would run it, from the build under test. With `user` other than 0 it runs as that user.
struct ToolRun {
    std::vector<std::string> arguments; ///< arguments[0] is the program
    uid_t user = 0;
    std::vector<std::string> environment; ///< additions, "NAME=value"
};

/// A running tool; ended at the latest with the object.
class Tool {
public:
    explicit Tool(const ToolRun& run);
    ~Tool();
    Tool(const Tool&) = delete;
    Tool& operator=(const Tool&) = delete;

    [[nodiscard]] pid_t pid() const { return _pid; }
    void signal(int number) const;
    /// Waits up to two minutes for its end.
    ToolResult wait();

private:
    pid_t _pid = -1;
    std::string _outPath;
    std::string _errPath;
};

/// `rumbel` with these arguments, from start to end.
ToolResult rumbel(std::vector<std::string> arguments, uid_t user = 0);

[[nodiscard]] std::string programPath(const std::string& name); ///< in build/bin
[[nodiscard]] std::string targetPath(const std::string& name); ///< in build/targets

} // namespace vnt::test
