#include "bundle/Bundle.h"

#include <algorithm>

#include "bundle/Instruments.h"
#include "bundle/StackProfileBuilder.h"
#include "platform/base/sys.h"
#include "platform/messagequeue/MessageStream.h"

namespace vnt {

namespace {

/// A pipe or device that stands in a bundle must not hold us up.
Result<MessageStreamReader> openStream(const std::string& path)
{
    ASSIGN_OR_RETURN(const struct stat status, sys::statFile(path));
    if (!S_ISREG(status.st_mode))
        return Status(Code::kInvalid, path + ": not a regular file");
    return MessageStreamReader::open(path);
}

} // namespace

Result<Bundle> Bundle::open(const std::string& path)
{
    std::string directory = path;
    while (directory.size() > 1 && directory.ends_with('/'))
        directory.pop_back();
    ASSIGN_OR_RETURN(const std::vector<std::string> names, sys::listDirectory(directory));
    Bundle bundle(directory);
    for (const InstrumentKind& kind : kInstrumentKinds) {
        const std::string identifier(kind.identifier);
        const auto holds = [&](const std::string& name) {
            return std::find(names.begin(), names.end(), name) != names.end();
        };
        if (holds(identifier) || holds(identifier + std::string(kMessageStreamSuffix)))
            bundle._instruments.push_back(identifier);
    }
    if (bundle._instruments.empty())
        return Status(Code::kInvalid, directory + ": holds no recording");
    const std::string stored(StoredSymbols::kFileName);
    if (std::find(names.begin(), names.end(), stored) != names.end()) {
        auto symbols = StoredSymbols::open(directory + "/" + stored);
        if (symbols.ok())
            bundle._sources.stored = symbols.take();
        else
            bundle._remarks->add(symbols.status().message() + "; they are not used");
    }
    return bundle;
}

bool Bundle::hasInstrument(std::string_view identifier) const
{
    return std::find(_instruments.begin(), _instruments.end(), identifier) != _instruments.end();
}

std::unique_ptr<Symbolizer> Bundle::symbolizer(const InstrumentData& data) const
{
    return std::make_unique<Symbolizer>(data.signatures().get(), *_remarks, _sources);
}

MessageTotals Bundle::forEachMessage(const InstrumentData& data,
                                     const std::function<void(std::span<const std::byte>)>& onMessage) const
{
    return forEachMessageWhile(data, [&](std::span<const std::byte> message) {
        onMessage(message);
        return true;
    });
}

MessageTotals Bundle::forEachMessageWhile(const InstrumentData& data,
                                          const std::function<bool(std::span<const std::byte>)>& onMessage) const
{
    Remarks& remarks = *_remarks;
    const std::string of = " of " + data.identifier();
    auto stream = openStream(data.messageStreamPath());
    if (!stream.ok()) {
        remarks.add("the messages" + of + " cannot be read: " + stream.status().message());
        return {};
    }
    bool isWhole = true;
    const auto summary = stream.value().forEach([&](std::span<const std::byte> message) {
        isWhole = onMessage(message);
        return isWhole;
    });
    if (summary.damagedFrames > 0)
        remarks.add(std::to_string(summary.damagedFrames) + " damaged messages" + of + " are left out");
    if (summary.truncated)
        remarks.add("the message stream" + of + " breaks off within a message");
    if (summary.unreadBytes > 0)
        remarks.add("the last " + std::to_string(summary.unreadBytes) + " bytes of the message stream" + of
                    + " make no sense");
    if (isWhole && data.has(archivekey::kMessageCount) && summary.messages < data.messageCount())
        remarks.add("the message stream" + of + " holds " + std::to_string(summary.messages) + " of "
                    + std::to_string(data.messageCount()) + " messages");
    return {summary.messages, summary.dropped};
}

StackRecording readStacks(const Bundle& bundle, const InstrumentData& data, const ReadingOptions& options)
{
    StackRecording recording;
    recording.symbolizer = bundle.symbolizer(data);
    StackProfileBuilder builder(*recording.symbolizer, bundle.remarks(), options);
    const MessageTotals totals =
        bundle.forEachMessage(data, [&](std::span<const std::byte> message) { builder.add(message); });
    recording.profile = builder.take();
    recording.messages = totals.messages;
    recording.droppedMessages = totals.dropped;
    return recording;
}

} // namespace vnt
