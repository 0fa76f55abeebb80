#pragma once

#include <CLI/CLI.hpp>

#include <functional>

namespace vnt::rumbel {

/// A subcommand that was added to the tool's command line.
struct Command {
    const CLI::App* app = nullptr;
    std::function<int()> run; ///< after parsing; returns the exit status
};

// Each adds one subcommand with its options, which live as long as the answer.
Command addRecord(CLI::App& tool);
Command addReport(CLI::App& tool);
Command addArchive(CLI::App& tool);
Command addExport(CLI::App& tool);
Command addView(CLI::App& tool);
Command addDoctor(CLI::App& tool);
Command addList(CLI::App& tool);
Command addRecover(CLI::App& tool);
Command addCompletion(CLI::App& tool); ///< hidden

} // namespace vnt::rumbel
