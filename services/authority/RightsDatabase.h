#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "platform/base/Status.h"
#include "platform/foundation/Collections.h"

namespace vnt {

/// What a definition says, read once.
struct RightRule {
    std::optional<std::chrono::seconds> timeout; ///< none: held until the reference ends
    std::string group; ///< whose members may have it; empty: nobody's
    bool shared = false; ///< a credential gained for it serves other references
    bool allowRoot = false;
};

/// The definitions of rights. The user's authority keeps changes in memory, the system's in one property list, replaced
/// as a whole. One thread.
class RightsDatabase {
public:
    /// Names that are defined wherever nothing else was ever written.
    static constexpr const char* kAnalysisRight = "quillon.process.analysis";
    static constexpr const char* kKillRight = "quillon.process.kill";
    static constexpr const char* kTaskPortRight = "system.privilege.taskport.debug";

    /// Defaults only; nothing is ever written.
    static RightsDatabase inMemory();
    /// Defaults, then what `directory`/rights.plist says. A missing directory is made by set(). Errors: kDenied when it
    /// or the file is open to others, kInvalid when the file is damaged: better no service than other rules.
    static Result<RightsDatabase> inDirectory(const std::string& directory);

    /// Null when the right is not defined.
    [[nodiscard]] Ref<Dictionary> definition(std::string_view right) const;
    [[nodiscard]] std::optional<RightRule> rule(std::string_view right) const;

    /// Errors: kInvalid when the definition's class is not "user" or an entry is of a wrong type. Called by set().
    static Status check(const Dictionary& definition);
    /// Errors: those of check(), kTooLarge past the number of rights, and what writing the file said. The database is
    /// unchanged then.
    Status set(const std::string& right, Ref<Dictionary> definition);

private:
    using Definitions = std::map<std::string, Ref<Dictionary>, std::less<>>;
    RightsDatabase();
    Status load();
    Status store(const Definitions& definitions) const;

    Definitions _definitions;
    std::string _path; // empty: in memory
};

} // namespace vnt
