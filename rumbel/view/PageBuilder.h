#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "bundle/Bundle.h"
#include "rumbel/view/PageColumns.h"
#include "rumbel/view/PageFunctions.h"

namespace vnt::view {

using Json = nlohmann::ordered_json;

/// The threads of a page, whichever instrument saw them.
class PageThreads {
public:
    static constexpr size_t kMaxThreads = 20'000; ///< further ones share one number

    /// The latest name counts.
    uint32_t number(uint32_t pid, uint32_t tid, const std::string& name);
    [[nodiscard]] Json json(PageColumns& columns) const;

private:
    std::unordered_map<uint64_t, uint32_t> _numbers; ///< pid << 32 | tid
    std::vector<uint32_t> _pids;
    std::vector<uint32_t> _tids;
    std::vector<std::string> _names;
};

/// What an instrument says about itself, in the strip that is always in sight.
class Facts {
public:
    void add(std::string_view label, std::string text) { add(label, std::move(text), false); }
    /// Something that makes the recording less than whole.
    void addLoss(std::string_view label, std::string text, uint64_t count) { add(label, std::move(text), count != 0); }
    /// What the recorder itself used.
    void addCost(uint64_t cpuNs, uint64_t durationNs);
    /// Messages that did not get into the bundle or could not be read.
    void addMessages(const MessageTotals& messages, uint64_t missing, uint64_t damaged);
    [[nodiscard]] const Json& json() const { return _list; }

private:
    void add(std::string_view label, std::string text, bool isLoss);
    Json _list = Json::array();
};

/// Gathers the data of one page: a JSON object and the columns it refers to. Each instrument's part adds itself; memory
/// is bounded by the parts' own limits. One thread.
class PageBuilder {
public:
    /// `bundle` outlives it.
    explicit PageBuilder(const Bundle& bundle);

    /// The instant that the page's times count from.
    [[nodiscard]] uint64_t originNs() const { return _originNs; }
    [[nodiscard]] const Bundle& bundle() const { return _bundle; }
    PageColumns& columns() { return _columns; }
    PageFunctions& functions() { return _functions; }
    PageThreads& threads() { return _threads; }

    /// The page's time line covers this span; `data`'s own where the archive says it.
    void cover(const InstrumentData& data, uint64_t firstNs, uint64_t lastNs);
    /// The length of an instrument's recording, 0 when not known.
    static uint64_t durationNs(const InstrumentData& data, uint64_t firstNs, uint64_t lastNs);
    void addInstrument(const InstrumentData& data, const Facts& facts);
    /// The instrument's own data under `key`.
    void addPart(std::string_view key, Json part) { _json[std::string(key)] = std::move(part); }

    /// All of it: four bytes with the length of the JSON text, the text, zeros up to a multiple of eight, the columns.
    [[nodiscard]] std::vector<std::byte> finish();

private:
    void addHeader();

    const Bundle& _bundle;
    uint64_t _originNs = 0;
    uint64_t _fromNs = UINT64_MAX;
    uint64_t _untilNs = 0;
    PageColumns _columns;
    PageFunctions _functions;
    PageThreads _threads;
    Json _json;
};

} // namespace vnt::view
