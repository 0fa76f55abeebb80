#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bundle/Bundle.h"
#include "bundle/ReadingOptions.h"
#include "bundle/Suppressions.h"
#include "records/OrphanRecords.h"

namespace vnt {

/// One search for leaks.
struct OrphanSearchTotals {
    orphans::SearchRecord search;
    uint64_t timeNs = 0; ///< at which the target stood still
    uint64_t newLeaks = 0; ///< of the leaks told, those that the search before had not
    uint64_t omitted = 0; ///< leaks that are only counted
    bool whole = false; ///< all of it is in the bundle
};

/// The orphan finder's part of a bundle. Leaks are those of the latest search; of earlier ones only totals are kept.
struct OrphanProfile {
    std::vector<OrphanSearchTotals> searches; ///< in order
    std::vector<orphans::LeakRecord> leaks; ///< holders before what they hold
    /// By stack number: the functions, innermost first. Leaks without a stack have none.
    std::unordered_map<uint32_t, std::vector<uint32_t>> paths;
    std::vector<std::string_view> classes; ///< by leak; empty: none that is known. The symbolizer's
    std::vector<std::string> notSearched; ///< sentences that say why
    std::unique_ptr<Symbolizer> symbolizer; ///< of the paths' symbols; tells the bundle's remarks
    uint64_t messages = 0;
    uint64_t droppedMessages = 0;
    uint64_t missingMessages = 0;
    uint64_t damagedMessages = 0;
};

/// Reads and symbolizes all of it. Some 100 ns a leak, and 150 bytes. Never fails: what cannot be read is told in the
/// bundle's remarks. Of the options the span counts: a search at another time is left out, with its leaks. The bundle
/// outlives the result.
[[nodiscard]] OrphanProfile readOrphans(const Bundle& bundle, const InstrumentData& data,
                                        const ReadingOptions& options = {});

struct OrphanCounts {
    uint64_t leaks = 0;
    uint64_t bytes = 0;
    uint64_t byKind[orphans::kKinds] = {};
    uint64_t newLeaks = 0;

    void add(const orphans::LeakRecord& leak)
    {
        ++leaks;
        bytes += leak.sizeBytes;
        ++byKind[static_cast<size_t>(leak.kind)];
        newLeaks += leak.isNew;
    }
};

/// One function whose blocks are lost, whatever called it.
struct OrphanSite {
    uint32_t symbol = 0;
    OrphanCounts counts;
    std::vector<uint32_t> callers; ///< of its first leak, the nearest first; at most kMaxCallers
    static constexpr size_t kMaxCallers = 16;
};

struct OrphanSummary {
    OrphanCounts shown;
    OrphanCounts suppressed;
    std::vector<OrphanSite> sites; ///< most bytes first
    std::vector<bool> isSuppressed; ///< by leak
};

/// Adds up the latest search's leaks, without those that a suppression names and what these hold.
[[nodiscard]] OrphanSummary summarizeOrphans(const OrphanProfile& profile, const Suppressions& suppressions);

} // namespace vnt
