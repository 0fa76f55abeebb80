#pragma once

#include <span>
#include <unordered_map>
#include <vector>

#include "bundle/Symbolizer.h"
#include "bundle/exports/StackTable.h"

namespace vnt {

/// Turns the recorded addresses of one instrument into call paths of a StackTable. A stack seen before costs one hash
/// look-up, a new one a look-up for each frame and, for new addresses, the symbolizer. One thread.
class StackInterner {
public:
    /// Both outlive this.
    StackInterner(Symbolizer& symbolizer, StackTable& table) : _symbolizer(symbolizer), _table(table) { }

    /// Whether the innermost address is where the code was, or a return address as all others are.
    enum class Innermost { kExact, kReturn };

    /// The path that stack number `number` of process `pid` has at `timeNs`. Where it is not known, `frames` is called
    /// to replace its argument by the addresses, innermost first; it answers whether the outer ones are all there.
    template <typename Frames>
    uint32_t pathOf(uint32_t pid, uint32_t number, uint64_t timeNs, Innermost innermost, Frames frames)
    {
        if (number == 0)
            return _table.addStack(0, StackTable::kUnknown);
        const uint64_t key = uint64_t{pid} << 32 | number;
        const auto found = _known.find(key);
        if (found != _known.end() && found->second.valid.contains(timeNs))
            return found->second.stack;
        const bool isWhole = frames(_addresses);
        return remember(key, intern(pid, timeNs, innermost, isWhole));
    }
    /// Stack numbers mean other stacks from now on.
    void forgetNumbers() { _known.clear(); }
    [[nodiscard]] Symbolizer& symbolizer() { return _symbolizer; }

private:
    struct Known {
        uint32_t stack = 0;
        TimeSpan valid;
    };
    struct KnownLocation {
        uint32_t location = 0;
        TimeSpan valid;
    };
    struct AddressKey {
        uint64_t address = 0;
        uint64_t pidAndRole = 0;
        bool operator==(const AddressKey&) const = default;
    };
    struct AddressHash {
        size_t operator()(const AddressKey& key) const
        {
            const uint64_t hash = (key.address ^ key.pidAndRole << 40) * 0x9e3779b97f4a7c15ULL;
            return static_cast<size_t>(hash ^ hash >> 31);
        }
    };

    uint32_t remember(uint64_t key, const Known& known);
    Known intern(uint32_t pid, uint64_t timeNs, Innermost innermost, bool isWhole);
    KnownLocation locate(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role);
    uint32_t newLocation(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role);
    uint32_t functionOf(uint32_t symbol, const ExportLocation& location);
    uint32_t moduleOf(const Symbolizer::Place& place);

    Symbolizer& _symbolizer;
    StackTable& _table;
    std::unordered_map<uint64_t, Known> _known; // by process and stack number
    std::unordered_map<AddressKey, KnownLocation, AddressHash> _locations;
    std::vector<uint64_t> _addresses;
};

} // namespace vnt
