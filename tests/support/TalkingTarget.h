#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/base/UniqueFd.h"

namespace vnt::test {

/// A program with its input and output in the hands of the test. It has said a line when the constructor returns; ended
/// at the latest with the object.
class TalkingTarget {
public:
    explicit TalkingTarget(std::vector<std::string> arguments); ///< arguments[0]: the program's path
    ~TalkingTarget();
    TalkingTarget(const TalkingTarget&) = delete;
    TalkingTarget& operator=(const TalkingTarget&) = delete;

    [[nodiscard]] pid_t pid() const { return _pid; }
    void say(const std::string& text);
    /// What it says, up to and with the line; a failure when it ends before.
    std::string hear(const std::string& line);
    /// The next line that it says.
    std::string hearLine() { return hear(""); }
    /// Empty while it runs; else how it ended.
    [[nodiscard]] std::string fate() const;
    /// The exit status after its input has ended; -1 for another end, or when it hangs.
    int end();
    /// Its mappings, as the kernel shows them.
    [[nodiscard]] std::string maps() const;

private:
    pid_t _pid = -1;
    UniqueFd _in;
    UniqueFd _out;
};

} // namespace vnt::test
