#pragma once

#include <string>

#include "collectors/inject/BorrowedThread.h"

namespace vnt {

/// The journal's library where the loader of a target can open it. A target with another root directory (a container)
/// gets its bytes as anonymous memory, and opens that through its own /proc.
class JournalFile {
public:
    /// `directory` holds the journals of both widths. Errors are sentences for the user.
    static Result<JournalFile> bring(BorrowedThread& thread, const std::string& directory);

    /// For the target's dlopen(3).
    [[nodiscard]] const std::string& path() const { return _path; }
    /// What the target needs no more once the library is loaded.
    void takeAway(BorrowedThread& thread) const;

private:
    std::string _path;
    int _descriptor = -1; ///< of the target
};

} // namespace vnt
