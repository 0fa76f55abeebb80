#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bundle/InstrumentData.h"
#include "bundle/ReadingOptions.h"
#include "bundle/Remarks.h"
#include "bundle/StackProfile.h"

namespace vnt {

/// What a message stream held.
struct MessageTotals {
    uint64_t messages = 0;
    uint64_t dropped = 0; ///< that the recorder's transport could not keep
};

/// A recorded bundle directory, opened without any server. What is missing or damaged is told in remarks(), and reading
/// goes as far as it can. One thread.
class Bundle {
public:
    /// Errors: kNotFound when there is no such directory, kInvalid when it holds no instrument's files.
    static Result<Bundle> open(const std::string& path);

    [[nodiscard]] const std::string& path() const { return _path; }
    /// Identifiers of the instruments that left data, in the catalogue's order.
    [[nodiscard]] const std::vector<std::string>& instruments() const { return _instruments; }
    [[nodiscard]] bool hasInstrument(std::string_view identifier) const;
    [[nodiscard]] InstrumentData instrument(std::string_view identifier) const
    {
        return InstrumentData::open(_path, identifier, *_remarks);
    }
    /// Names the addresses of an instrument's records, by the symbols that the bundle holds, then by the files of this
    /// machine. Tells remarks(); the bundle outlives it.
    [[nodiscard]] std::unique_ptr<Symbolizer> symbolizer(const InstrumentData& data) const;
    /// From here on symbolizers also fetch what this machine lacks; null: not. It outlives them.
    void setDebugServer(DebugServer* server) { _sources.server = server; }
    /// From here on symbolizers add what they find to `collector`; null: not. It outlives them.
    void setCollector(StoredSymbolsWriter* collector) { _sources.collector = collector; }
    /// Passes each message of an instrument on, in order, in bounded memory. What is damaged or missing is left out and
    /// told in remarks().
    MessageTotals forEachMessage(const InstrumentData& data,
                                 const std::function<void(std::span<const std::byte>)>& onMessage) const;
    /// The same until `onMessage` answers false.
    MessageTotals forEachMessageWhile(const InstrumentData& data,
                                      const std::function<bool(std::span<const std::byte>)>& onMessage) const;
    [[nodiscard]] Remarks& remarks() const { return *_remarks; }

private:
    explicit Bundle(std::string path) : _path(std::move(path)), _remarks(std::make_unique<Remarks>()) { }

    std::string _path;
    std::vector<std::string> _instruments;
    SymbolSources _sources;
    std::unique_ptr<Remarks> _remarks; // apart: it is filled while the bundle is read
};

/// The stack sampler's part of a bundle, read whole.
struct StackRecording {
    StackProfile profile;
    std::unique_ptr<Symbolizer> symbolizer; ///< of the profile's symbol numbers; tells the bundle's remarks
    uint64_t messages = 0;
    uint64_t droppedMessages = 0; ///< that the recorder's transport could not keep
};

/// Reads and symbolizes all samples. Time is linear in the recording, memory in its distinct call paths. Never fails:
/// what cannot be read is missing in the profile and told in the bundle's remarks. The bundle outlives the result.
[[nodiscard]] StackRecording readStacks(const Bundle& bundle, const InstrumentData& data,
                                        const ReadingOptions& options = {});

} // namespace vnt
