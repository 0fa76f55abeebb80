#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/messagequeue/Spool.h"
#include "rumbel/recover/RecordingNote.h"

namespace vnt::rumbel {

/// A recording whose tool (or program that used the library) ended before everything was saved.
struct CrashedRecording {
    pid_t recorder = 0;
    std::optional<NotedRecording> note; ///< absent: a program that is not the tool recorded, or the note is damaged
    std::string notePath; ///< empty without a file
    std::vector<RecoverableSpool> spools;

    [[nodiscard]] uint64_t sizeBytes() const;
    /// Identifiers of the instruments that have data here.
    [[nodiscard]] std::vector<std::string> instruments() const;
};

/// Those of this user, by pid. Notes that nothing belongs to any more are removed on the way.
[[nodiscard]] std::vector<CrashedRecording> crashedRecordings();

struct Recovered {
    std::string bundle; ///< the directory
    uint64_t messages = 0;
    std::vector<std::string> remarks; ///< what is missing, a sentence each
};
/// Moves the spools into the bundle `output` + ".vnt" and writes their archives; a bundle that was saved in part is
/// completed. On failure what was not moved stays and can be recovered again. Errors: kExists when the bundle holds
/// data of one of the instruments, else those of the file system.
Result<Recovered> recoverRecording(const CrashedRecording& recording, const std::string& output);

/// Removes what is left of a recording.
Status discardRecording(const CrashedRecording& recording);

} // namespace vnt::rumbel
