#include "rumbel/commands/commands.h"
#include "rumbel/record/RecordOptions.h"

namespace vnt::rumbel {

Command addRecord(CLI::App& tool)
{
    const auto options = std::make_shared<RecordOptions>();
    CLI::App* record = tool.add_subcommand("record", "Record a process, a program, or the whole machine");
    record
        ->add_option("-i,--instruments", options->instruments,
                     "Instruments: stacksampler, kerneltracer, heaprecorder, orphanfinder, processcensus")
        ->delimiter(',');
    auto* pid = record->add_option("-p,--pid", options->pid, "Attach to this process");
    auto* name = record->add_option("-n,--name", options->name, "Attach to the process of this name, or part of one");
    auto* all = record->add_flag("-a,--all", options->allProcesses, "All processes");
    record->add_option("-o,--output", options->output, "Bundle to save (\".vnt\" is added)");
    record->add_option("-d,--duration", options->durationSec, "Stop after this many seconds")
        ->check(CLI::PositiveNumber);
    record
        ->add_option("--interval", options->intervalUs,
                     "Sampling interval in microseconds (1000; with --all-states 10000)")
        ->check(CLI::Range(10, 10'000'000));
    record->add_flag("--all-states", options->allStates,
                     "Stack Sampler: also threads that wait, where they wait and for how long");
    record
        ->add_option("--window", options->windowSec, "Keep only the last so many seconds of samples and kernel events")
        ->check(CLI::Range(1, 86400));
    record
        ->add_option("--census-interval", options->censusIntervalMs, "Milliseconds between two looks at all processes")
        ->check(CLI::Range(100, 3'600'000))
        ->capture_default_str();
    record->add_option("--stacks", options->stacks, "Stacks to record: user, kernel or both")
        ->check(CLI::IsMember({"user", "kernel", "both"}))
        ->capture_default_str();
    record->add_flag("--zombies", options->zombies, "Heap Recorder: find uses of freed blocks (slower, more memory)");
    record->add_flag("--reference-counts", options->referenceCounts,
                     "Heap Recorder: who retains and releases counted objects");
    record->add_flag("--class-names", options->classNames,
                     "Heap Recorder, Orphan Finder: the C++ classes of live and leaked blocks");
    record->add_flag("--contents", options->contents, "Orphan Finder: also the first bytes of each leak");
    record->add_flag("--no-backtraces", options->noBacktraces, "Orphan Finder: without the stacks that allocated");
    record->add_flag("--system", options->system,
                     "Ask the system's services: other users' processes, with an administrator's password");
    record->add_flag("--pass-status", options->passStatus, "Exit with the launched program's status");
    auto* command = record->add_option("command", options->command, "Program to launch, with its arguments, after --");
    for (auto* one : {pid, name, all, command}) {
        for (auto* other : {pid, name, all, command}) {
            if (one != other)
                one->excludes(other);
        }
    }
    record->footer("rumbel record -o out -- ./program arg    rumbel record -p 1234 -d 10    rumbel record -a -d 5");
    record->callback([options] {
        if (!options->pid && options->name.empty() && !options->allProcesses && options->command.empty())
            throw CLI::ValidationError("record", "needs one of -p, -n, -a, or a program after --");
    });
    return {record, [options] { return runRecord(*options); }};
}

} // namespace vnt::rumbel
