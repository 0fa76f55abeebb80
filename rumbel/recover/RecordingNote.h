#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/Mutex.h"
#include "platform/base/Status.h"
#include "platform/foundation/Collections.h"
#include "services/quillon/SignatureStore.h"

namespace vnt::rumbel {

/// What must be known to read the spools of a recording. Everything but the first two is what the archives in the
/// bundle would have said.
struct NotedRecording {
    pid_t recorder = 0; ///< the tool
    uint64_t recorderTicks = 0; ///< its start time since boot: with the pid it names one process
    std::string output; ///< absolute, without ".vnt"
    std::vector<std::string> instruments; ///< identifiers
    int32_t target = 0; ///< -3: all processes
    int64_t intervalUs = 0;
    int64_t windowSec = 0;
    int64_t stackOptions = 0;
    int64_t censusRate = 0; ///< in 100 ms
    bool zombies = false;
    bool referenceCounts = false;
    bool classNames = false;
    bool leakContents = false;
    bool leakBacktraces = false;
    int64_t startSeconds = 0; ///< since 1970
    uint64_t startNs = 0; ///< CLOCK_MONOTONIC
    Ref<Dictionary> signatures; ///< pid -> signature
};

/// The note of the recording that this process makes: `recordings/PID.note` in the user's state directory, a keyed
/// archive, mode 0600. Any thread.
class RecordingNote {
public:
    /// Fills in the recorder, the start times and the signatures. Nothing is written before refresh().
    explicit RecordingNote(NotedRecording recording);

    /// Reads the target's mappings again and writes the note when they changed: a millisecond for one process, some
    /// tens for all of them. A note that cannot be written is done without: the recording goes on.
    void refresh();
    /// The recording came to its end. No later refresh() brings the note back.
    void remove();

private:
    [[nodiscard]] bool gather() VNT_REQUIRES(_lock);

    Mutex _lock;
    NotedRecording _recording VNT_GUARDED_BY(_lock);
    SignatureStore _store VNT_GUARDED_BY(_lock);
    std::string _path VNT_GUARDED_BY(_lock); // empty once removed
};

/// The directory of all notes, created on demand.
Result<std::string> notesDirectory();
/// The note at `path`, which is untrusted: kInvalid when it is none.
Result<NotedRecording> readNote(const std::string& path);
/// True while the process that the note is of lives.
[[nodiscard]] bool isStillRecording(const NotedRecording& recording);

} // namespace vnt::rumbel
