#include "rumbel/recover/recoveredArchive.h"

#include <algorithm>

#include "bundle/Instruments.h"
#include "platform/foundation/KeyedArchive.h"

namespace vnt::rumbel {
namespace {

constexpr uint64_t kNsPerSecond = 1'000'000'000;

void encodeSettings(KeyedArchiver& archive, std::string_view identifier, const NotedRecording& note)
{
    if (identifier == kStackSamplerId) {
        archive.encodeInt64(note.intervalUs, archivekey::kSamplingInterval);
        archive.encodeInt32(static_cast<int32_t>(note.windowSec), archivekey::kWindowLimit);
        archive.encodeInt64(0, archivekey::kOutputRate);
        archive.encodeInt(static_cast<int>(note.stackOptions), archivekey::kStackSamplerOptions);
    } else if (identifier == kKernelTracerId) {
        archive.encodeInt32(static_cast<int32_t>(note.windowSec), archivekey::kWindowLimit);
        archive.encodeObject(nullptr, archivekey::kKernelEventXml);
    } else if (identifier == kHeapRecorderId) {
        archive.encodeBool(note.zombies, "quillon.vnt.data.enablezombies");
        archive.encodeBool(note.referenceCounts, "quillon.vnt.data.referencecounting");
        archive.encodeBool(note.classNames, "quillon.vnt.data.identifycpp");
    } else if (identifier == kOrphanFinderId) {
        archive.encodeBool(note.leakContents, "quillon.vnt.data.includecontext");
        archive.encodeBool(note.leakBacktraces, "quillon.vnt.data.providebacktraces");
    } else if (identifier == kProcessCensusId) {
        archive.encodeInt64(note.censusRate, archivekey::kSamplingInterval);
    }
}

} // namespace

Result<std::vector<std::byte>> recoveredArchive(std::string_view identifier, const std::optional<NotedRecording>& note,
                                                const StreamFacts& stream)
{
    KeyedArchiver archive;
    const Ref<Dictionary> none = Dictionary::create();
    if (note)
        encodeSettings(archive, identifier, *note);
    archive.encodeInt(kArchiveFileVersion, archivekey::kFileVersion);
    if (note)
        archive.encodeInt(note->target, archivekey::kPid);
    archive.encodeObject(note && note->signatures ? note->signatures.get() : none.get(), archivekey::kSignatures);
    if (note) {
        // The last message's time on the records' clock, as far as the file's time tells.
        const int64_t seconds = std::max<int64_t>(0, stream.lastWrittenSeconds - note->startSeconds);
        archive.encodeInt64(note->startSeconds, archivekey::kStartSeconds);
        archive.encodeInt64(static_cast<int64_t>(note->startNs), archivekey::kStartTicks);
        archive.encodeInt64(static_cast<int64_t>(note->startNs + static_cast<uint64_t>(seconds) * kNsPerSecond),
                            archivekey::kStopTicks);
    }
    archive.encodeInt64(stream.lastWrittenSeconds, archivekey::kStopSeconds);
    archive.encodeInt32(1, archivekey::kTimeBaseNumerator); // the clock of all records counts nanoseconds
    archive.encodeInt32(1, archivekey::kTimeBaseDenominator);
    archive.encodeInt32(static_cast<int32_t>(std::min<uint64_t>(stream.messages, INT32_MAX)),
                        archivekey::kMessageCount);
    return archive.finish();
}

} // namespace vnt::rumbel
