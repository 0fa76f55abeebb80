#pragma once

#include <iosfwd>
#include <string>

namespace vnt {

/// One line of a terminal that is written over again and again and taken away at the end. One thread.
class StatusLine {
public:
    /// Null: nothing is shown. `out` is a terminal and outlives this.
    explicit StatusLine(std::ostream* out) : _out(out) { }
    ~StatusLine() { clear(); }
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    void show(const std::string& text);
    void clear();

private:
    std::ostream* _out;
    size_t _shown = 0;
};

} // namespace vnt
