#pragma once

#include <string>
#include <vector>

namespace vnt {

/// What a reader of damaged or foreign data has to tell its user: one sentence each, every sentence once, in the order
/// found. Bounded, so that hostile input cannot fill the memory or the screen. One thread.
class Remarks {
public:
    void add(std::string text);
    [[nodiscard]] const std::vector<std::string>& texts() const { return _texts; }
    /// Remarks that found no room.
    [[nodiscard]] size_t omitted() const { return _omitted; }

private:
    std::vector<std::string> _texts;
    size_t _omitted = 0;
};

} // namespace vnt
