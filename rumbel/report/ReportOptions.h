#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Status.h"

#include "bundle/Suppressions.h"

namespace vnt {

/// What `rumbel report` was asked for.
struct ReportOptions {
    enum class By : uint8_t { kFunction, kThread, kModule, kLine };

    std::string bundlePath;
    std::vector<std::string> instruments; ///< names as --instrument takes them; empty: all
    By by = By::kFunction; ///< what the tables list; instruments without such a thing keep to functions
    std::optional<uint64_t> fromNs; ///< since the recording began: what happened before is left out
    std::optional<uint64_t> toNs;
    std::string function; ///< not empty: who called it and what it called, instead of the tables
    bool json = false; ///< for programs; has every function, whatever `top` says
    bool tree = false; ///< also the call tree
    std::string suppressionsPath; ///< file of known leaks; empty: none
    Suppressions suppressions; ///< what it says; read by runReport()
    size_t top = 30; ///< functions in the table; 0: all
    double minPercent = 0.5; ///< call tree: branches below this share of all samples are left out
    bool debuginfod = false; ///< fetch what this machine lacks
    bool showProgress = false; ///< a line on the error stream that is overwritten; for terminals
};

/// A span of time as people write it: "1.5" (seconds), "1.5s", "200ms", "30us", "2m". Errors: kInvalid.
[[nodiscard]] Result<uint64_t> parseTimeNs(const std::string& text);

/// "thread", "module", "function" or "line". Errors: kInvalid.
[[nodiscard]] Result<ReportOptions::By> parseBy(const std::string& text);

/// The identifier of an instrument by its identifier or short name ("stacksampler"); empty when there is none.
[[nodiscard]] std::string instrumentIdentifier(const std::string& name);

} // namespace vnt
