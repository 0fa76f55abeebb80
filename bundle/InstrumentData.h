#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "bundle/Remarks.h"
#include "platform/foundation/KeyedArchive.h"

namespace vnt {

/// One instrument's archive in a bundle: how to read its message stream. Untrusted; a key that is missing or of another
/// type gives the answer named here and a remark when the archive is opened. One thread.
class InstrumentData {
public:
    /// Reads `directory`/`identifier`. A missing or damaged archive is told to `remarks` and answers as if empty.
    static InstrumentData open(const std::string& directory, std::string_view identifier, Remarks& remarks);

    [[nodiscard]] bool hasArchive() const { return _archive.has_value(); }
    [[nodiscard]] const std::string& identifier() const { return _identifier; }
    [[nodiscard]] std::string messageStreamPath() const;

    [[nodiscard]] int64_t number(std::string_view key, int64_t fallback = 0) const;
    [[nodiscard]] bool has(std::string_view key) const { return _archive && _archive->has(key); }
    /// Null when absent.
    [[nodiscard]] Ref<Object> object(std::string_view key) const;

    /// The target; -3: all processes, 0: the kernel. Empty when not recorded.
    [[nodiscard]] std::optional<int32_t> pid() const;
    [[nodiscard]] int64_t samplingIntervalUs() const;
    /// Wall-clock seconds since 1970; 0 when missing.
    [[nodiscard]] int64_t startSeconds() const;
    [[nodiscard]] int64_t stopSeconds() const;
    /// On the clock of the records; 0 when missing.
    [[nodiscard]] uint64_t startNs() const;
    [[nodiscard]] uint64_t stopNs() const;
    [[nodiscard]] uint32_t messageCount() const;
    [[nodiscard]] Ref<Dictionary> signatures() const;
    [[nodiscard]] Ref<Dictionary> deviceTemplate() const;

private:
    InstrumentData(std::string directory, std::string_view identifier)
        : _directory(std::move(directory)),
          _identifier(identifier)
    {
    }
    void checkKeys(Remarks& remarks) const;
    [[nodiscard]] uint64_t ticksToNs(std::string_view key) const;

    std::string _directory;
    std::string _identifier;
    std::optional<KeyedUnarchiver> _archive;
};

} // namespace vnt
