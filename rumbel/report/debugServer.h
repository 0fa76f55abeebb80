#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include "bundle/Bundle.h"
#include "bundle/DebugServer.h"

namespace vnt {

/// One line that is written over again and again and taken away at the end.
class ProgressLine {
public:
    /// Null: nothing is shown. `out` is a terminal and outlives this.
    explicit ProgressLine(std::ostream* out) : _out(out) { }
    ~ProgressLine() { clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void show(const std::string& text);
    void clear();

private:
    std::ostream* _out;
    size_t _shown = 0;
};

/// The servers of DEBUGINFOD_URLS for `bundle`'s symbolizers, which then fetch what this machine lacks. Null, with a
/// remark, when that cannot be done. `progress` outlives the answer, and the answer the bundle's use.
std::unique_ptr<DebugServer> openDebugServer(Bundle& bundle, ProgressLine& progress);

} // namespace vnt
