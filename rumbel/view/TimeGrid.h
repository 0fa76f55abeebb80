#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <tuple>
#include <vector>

#include "rumbel/view/PageColumns.h"

namespace vnt::view {

/// What happened when, to whom, at which node: `kValues` sums for each slice of time. Slices begin fine and double
/// whenever the cells become too many, so the grid's size is bounded whatever the recording's length is. Adding costs
/// some 10 ns, and now and then a sort. One thread.
template <size_t kValues> class TimeGrid {
public:
    using Values = std::array<uint64_t, kValues>;
    static constexpr size_t kMaxCells = 400'000; ///< of a page, as long as kCoarsest allows
    static constexpr uint32_t kFinestBits = 16; ///< 65.5 us
    static constexpr uint32_t kCoarsestBits = 62;

    /// Something of an instant, or from one to another. Times before `originNs` count as that.
    explicit TimeGrid(uint64_t originNs, size_t maxCells = kMaxCells) : _originNs(originNs), _maxCells(maxCells) { }

    void add(uint64_t timeNs, uint32_t thread, uint32_t node, const Values& values)
    {
        addSpan(timeNs, timeNs, thread, node, values);
    }
    void addSpan(uint64_t fromNs, uint64_t untilNs, uint32_t thread, uint32_t node, const Values& values)
    {
        const Cell cell{slice(fromNs), slice(std::max(fromNs, untilNs)), thread, node, values};
        uint32_t& recent = _recent[(cell.from * 31 + cell.until * 7 + thread * 1021 + node) % _recent.size()];
        if (recent < _cells.size() && _cells[recent].key() == cell.key()) {
            _cells[recent].add(values);
            return;
        }
        recent = static_cast<uint32_t>(_cells.size());
        _cells.push_back(cell);
        if (_cells.size() >= _maxCells * 2)
            compact();
    }

    /// All that was added for each node; sums up one of the values, or all of them for kValues.
    [[nodiscard]] std::vector<uint64_t> weights(size_t nodes, size_t value = kValues) const
    {
        std::vector<uint64_t> sums(nodes);
        for (const Cell& cell : _cells) {
            for (size_t i = 0; i < kValues; ++i)
                sums[cell.node] += value == kValues || value == i ? cell.values[i] : 0;
        }
        return sums;
    }
    /// Gives the cells other nodes or threads; numbers[old] is the new one.
    void renumberNodes(const std::vector<uint32_t>& numbers)
    {
        for (Cell& cell : _cells)
            cell.node = numbers[cell.node];
    }
    void renumberThreads(const std::vector<uint32_t>& numbers)
    {
        for (Cell& cell : _cells)
            cell.thread = numbers[cell.thread];
    }
    [[nodiscard]] size_t cellCount() const { return _cells.size(); }
    [[nodiscard]] uint64_t sliceNs() const { return uint64_t{1} << _bits; }

    [[nodiscard]] nlohmann::ordered_json json(PageColumns& columns)
    {
        compact();
        const auto column = [this](auto value) {
            std::vector<uint64_t> list;
            list.reserve(_cells.size());
            for (const Cell& cell : _cells)
                list.push_back(value(cell));
            return list;
        };
        auto values = nlohmann::ordered_json::array();
        for (size_t i = 0; i < kValues; ++i)
            values.push_back(columns.add(column([i](const Cell& cell) { return cell.values[i]; })));
        return {{"sliceNs", sliceNs()},
                {"from", columns.addDifferences(column([](const Cell& cell) { return cell.from; }))},
                {"span", columns.add(column([](const Cell& cell) { return cell.until - cell.from; }))},
                {"thread", columns.add(column([](const Cell& cell) { return uint64_t{cell.thread}; }))},
                {"node", columns.add(column([](const Cell& cell) { return uint64_t{cell.node}; }))},
                {"values", std::move(values)}};
    }

private:
    struct Cell {
        uint64_t from = 0; ///< slice
        uint64_t until = 0; ///< the last slice
        uint32_t thread = 0;
        uint32_t node = 0;
        Values values{};
        [[nodiscard]] auto key() const { return std::tuple(from, until, thread, node); }
        void add(const Values& more)
        {
            for (size_t i = 0; i < kValues; ++i)
                values[i] += more[i];
        }
    };

    [[nodiscard]] uint64_t slice(uint64_t timeNs) const
    {
        return timeNs <= _originNs ? 0 : (timeNs - _originNs) >> _bits;
    }

    /// Adds up cells of the same place; makes slices longer until few enough are left. What is distinct without regard
    /// to time stays, however much it is: callers bound their threads and nodes.
    void compact()
    {
        merge();
        while (_cells.size() > _maxCells && _bits < kCoarsestBits) {
            ++_bits;
            for (Cell& cell : _cells) {
                cell.from >>= 1;
                cell.until >>= 1;
            }
            merge();
        }
        _maxCells = std::max(_maxCells, _cells.size());
    }
    void merge()
    {
        std::sort(_cells.begin(), _cells.end(), [](const Cell& a, const Cell& b) { return a.key() < b.key(); });
        size_t kept = 0;
        for (const Cell& cell : _cells) {
            if (kept > 0 && _cells[kept - 1].key() == cell.key())
                _cells[kept - 1].add(cell.values);
            else
                _cells[kept++] = cell;
        }
        _cells.resize(kept);
    }

    uint64_t _originNs = 0;
    size_t _maxCells = 0;
    uint32_t _bits = kFinestBits;
    std::vector<Cell> _cells;
    std::array<uint32_t, 4096> _recent{}; ///< places of cells that were added to lately: most are soon added to again
};

} // namespace vnt::view
