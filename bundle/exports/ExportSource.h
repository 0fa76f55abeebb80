#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bundle/Bundle.h"
#include "bundle/exports/ExportHandler.h"
#include "bundle/exports/ExportOptions.h"
#include "bundle/exports/StackInterner.h"
#include "bundle/exports/StackTable.h"
#include "bundle/exports/ThreadTable.h"

namespace vnt {

/// One instrument's part of a bundle that is being exported.
struct ExportInstrument {
    InstrumentData data;
    std::string name; ///< short: "stacksampler"
    std::unique_ptr<Symbolizer> symbolizer;
    std::unique_ptr<StackInterner> interner;
    MessageTotals messages; ///< of the latest reading
    std::map<std::string, uint64_t> lost; ///< by cause, of the latest reading; transport and damage included
    uint64_t recorderCpuNs = 0;
    uint64_t intervalNs = 0; ///< processor time a sample stands for, or time between two looks
};

/// A bundle as exporters read it: as often as they like, in bounded memory, with stacks and threads as numbers of
/// tables that stay from one reading to the next. Options say what is left out. The bundle outlives it. One thread.
class ExportSource {
public:
    /// `instruments`: identifiers of those to be read; those that the bundle lacks are left out.
    ExportSource(const Bundle& bundle, const ExportOptions& options, const std::vector<std::string_view>& instruments);
    ~ExportSource();

    /// Tells everything to `handler`. Never fails: what cannot be read is missing and told in the bundle's remarks.
    void read(ExportHandler& handler);

    [[nodiscard]] const Bundle& bundle() const { return _bundle; }
    [[nodiscard]] const ExportOptions& options() const { return _options; }
    [[nodiscard]] const StackTable& stacks() const { return _stacks; }
    [[nodiscard]] StackTable& stacks() { return _stacks; }
    [[nodiscard]] const ThreadTable& threads() const { return _threads; }
    [[nodiscard]] const std::vector<ExportInstrument>& instruments() const { return _instruments; }
    /// Null when it is not among instruments().
    [[nodiscard]] const ExportInstrument* instrument(std::string_view identifier) const;

    /// The recording's start and end on its clock. The end is 0 when no archive says.
    [[nodiscard]] uint64_t startNs() const { return _startNs; }
    [[nodiscard]] uint64_t stopNs() const { return _stopNs; }
    /// From the start; 0 for what is before it.
    [[nodiscard]] uint64_t sinceStart(uint64_t timeNs) const { return timeNs > _startNs ? timeNs - _startNs : 0; }
    /// Wall clock of the start in seconds since 1970; 0 when not recorded.
    [[nodiscard]] int64_t startSeconds() const { return _startSeconds; }
    /// The process recorded; 0 when there is not just one.
    [[nodiscard]] uint32_t targetPid() const { return _targetPid; }
    /// Sentences on what is missing: "stacksampler: 12 records lost: ring full".
    [[nodiscard]] std::vector<std::string> losses() const;

private:
    class StackReading; // these tell one instrument's records
    class HeapReading;
    class OrphanReading;
    class CensusReading;

    void readStackSampler(ExportInstrument& instrument, ExportHandler& handler);
    void readKernelTracer(ExportInstrument& instrument, ExportHandler& handler);
    void readHeapRecorder(ExportInstrument& instrument, ExportHandler& handler);
    void readOrphanFinder(ExportInstrument& instrument, ExportHandler& handler);
    void readProcessCensus(ExportInstrument& instrument, ExportHandler& handler);
    void addInstrument(std::string_view identifier);
    void findStart();
    void readInstrument(ExportInstrument& instrument, ExportHandler& handler);
    MessageTotals forEachMessage(const ExportInstrument& instrument,
                                 const std::function<void(std::span<const std::byte>)>& onMessage);
    void noteLost(ExportInstrument& instrument, ExportHandler& handler, uint64_t timeNs, const char* cause,
                  uint64_t count);
    [[nodiscard]] bool isWithin(uint64_t timeNs) const
    {
        return _takesAll || _options.span.contains(sinceStart(timeNs));
    }
    /// The thread's number; kNotWanted when the options leave it out.
    [[nodiscard]] uint32_t threadOf(const ExportInstrument& instrument, const stacks::ThreadRecord& thread);
    [[nodiscard]] bool isWanted(const stacks::ThreadRecord& thread) const;
    [[nodiscard]] uint32_t processOf(const ExportInstrument& instrument, uint32_t pid);
    static constexpr uint32_t kNotWanted = ~0u;

    const Bundle& _bundle;
    const ExportOptions& _options;
    StackTable _stacks;
    ThreadTable _threads;
    std::vector<ExportInstrument> _instruments;
    bool _takesAll = false; ///< while the start is looked for
    uint64_t _startNs = 0;
    uint64_t _stopNs = 0;
    int64_t _startSeconds = 0;
    uint32_t _targetPid = 0;
    uint64_t _messagesRead = 0;
    uint64_t _messagesExpected = 0;
};

} // namespace vnt
