#include <unistd.h>

#include <iostream>

#include "rumbel/archive/archive.h"
#include "rumbel/commands/commands.h"
#include "rumbel/export/ExportCommand.h"
#include "rumbel/report/diff.h"
#include "rumbel/report/report.h"
#include "rumbel/view/view.h"

namespace vnt::rumbel {
namespace {

struct Difference {
    std::vector<std::string> bundles;
    DiffOptions options;
};

bool showsProgress() { return ::isatty(STDERR_FILENO) == 1; }

} // namespace

Command addReport(CLI::App& tool)
{
    const auto options = std::make_shared<ReportOptions>();
    const auto difference = std::make_shared<Difference>();
    CLI::App* report = tool.add_subcommand("report", "Show what a bundle holds");
    auto* bundle = report->add_option("bundle", options->bundlePath, "The bundle");
    auto* diff = report->add_option("--diff", difference->bundles, "Compare two bundles: the first with the second")
                     ->expected(2)
                     ->excludes(bundle);
    report
        ->add_option("--threshold", difference->options.thresholdPercent,
                     "With --diff: exit with 3 when something grew by more per cent")
        ->check(CLI::NonNegativeNumber)
        ->needs(diff);
    report->callback([options, difference] {
        if (options->bundlePath.empty() && difference->bundles.empty())
            throw CLI::ValidationError("report", "needs a bundle, or --diff with two");
    });
    report->add_flag("--json", options->json, "One JSON object, for programs");
    report->add_flag("--tree", options->tree, "Also the call tree");
    report->add_option("--instrument", options->instruments, "Only these: stacksampler, kerneltracer and so on")
        ->delimiter(',')
        ->check([](const std::string& name) {
            return instrumentIdentifier(name).empty() ? name + ": no such instrument" : std::string();
        });
    report
        ->add_option_function<std::string>(
            "--by", [options](const std::string& text) { options->by = parseBy(text).take(); },
            "What the tables list: thread, module, function or line")
        ->check([](const std::string& text) { return parseBy(text).status().message(); });
    const auto addTime = [report](const char* name, std::optional<uint64_t>& timeNs, const char* help) {
        report
            ->add_option_function<std::string>(
                name, [&timeNs](const std::string& text) { timeNs = parseTimeNs(text).take(); }, help)
            ->check([](const std::string& text) { return parseTimeNs(text).status().message(); });
    };
    addTime("--from", options->fromNs,
            "Only what happened from then on: seconds since the beginning, or 200ms and the like");
    addTime("--to", options->toNs, "Only what happened before then");
    report->add_option("--function", options->function, "Who called this function and what it called");
    report->add_flag("--debuginfod", options->debuginfod,
                     "Fetch what this machine lacks from the servers of DEBUGINFOD_URLS");
    report
        ->add_option("--suppressions", options->suppressionsPath,
                     "File of known leaks, which are only counted: lines \"leak:FUNCTION or MODULE\"")
        ->excludes(diff);
    report->add_option("--top", options->top, "Functions in the table; 0 for all")->capture_default_str();
    report->add_option("--min-percent", options->minPercent, "Leave out smaller branches of the tree")
        ->capture_default_str();
    return {report, [options, difference] {
                options->showProgress = showsProgress();
                if (difference->bundles.empty())
                    return runReport(*options, std::cout, std::cerr);
                difference->options.before = difference->bundles[0];
                difference->options.after = difference->bundles[1];
                difference->options.report = *options;
                return runDiff(difference->options, std::cout, std::cerr);
            }};
}

Command addArchive(CLI::App& tool)
{
    const auto options = std::make_shared<ArchiveOptions>();
    CLI::App* archive =
        tool.add_subcommand("archive", "Store the symbols in a bundle, so that it reads the same on another machine");
    archive->add_option("bundle", options->bundlePath, "The bundle")->required();
    archive->add_option("-o,--output", options->output, "Store them in a copy of the bundle");
    archive->add_flag("--debuginfod", options->debuginfod,
                      "Fetch what this machine lacks from the servers of DEBUGINFOD_URLS");
    return {archive, [options] {
                options->showProgress = showsProgress();
                return runArchive(*options, std::cout, std::cerr);
            }};
}

Command addExport(CLI::App& tool)
{
    const auto command = std::make_shared<ExportCommand>();
    CLI::App* one = tool.add_subcommand("export", "Write a bundle in the format of another tool");
    one->add_option("bundle", command->bundlePath, "The bundle")->required();
    one->add_option("-f,--format", command->format, "One of: " + exportFormatNames())->required();
    one->add_option("-o,--output", command->output, "File to write, - for standard output; NAME.gz is compressed")
        ->capture_default_str();
    one->add_option("--from", command->from, "Leave out what is earlier: time from the start, as 1.5 or 300ms");
    one->add_option("--to", command->to, "Leave out what is later, or at that time");
    one->add_option("--thread", command->threads, "Only threads of this id or name; may be repeated");
    one->add_option("--instrument", command->instruments, "Only these instruments, by their short names")
        ->delimiter(',');
    one->add_flag("--off-cpu", command->offCpu, "folded: waiting threads, in microseconds, instead of running ones");
    one->add_flag("--annotate", command->annotate, "folded: mark functions of the kernel _[k] and inlined ones _[i]");
    one->add_flag("--thread-roots", command->threadRoots, "folded: a root frame for each thread, not for each name");
    one->add_flag("--perf-samples", command->perfSamples, "perfetto: samples for viewers older than v58");
    return {one, [command] { return runExport(*command, STDOUT_FILENO, std::cerr); }};
}

Command addView(CLI::App& tool)
{
    const auto options = std::make_shared<ViewOptions>();
    CLI::App* view = tool.add_subcommand("view", "Make a page of a bundle, to look at in a browser");
    view->add_option("bundle", options->bundlePath, "The bundle")->required();
    view->add_option("-o,--output", options->output, "The page to write; else named after the bundle, here");
    view->add_flag("--open", options->open, "Show it in the browser");
    return {view, [options] { return runView(*options, std::cout, std::cerr, showsProgress()); }};
}

} // namespace vnt::rumbel
