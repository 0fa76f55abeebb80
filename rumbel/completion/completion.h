#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace vnt::rumbel {

/// What a word of the command line stands for, which decides what is offered for it.
enum class ValueKind {
    kNothing, ///< a flag, or a value that nothing can be said about
    kChoice, ///< one of a few words
    kList, ///< some of a few words, with commas between
    kBundle, ///< a directory *.vnt
    kFile,
    kProcess, ///< a pid
    kName, ///< a process's name
    kProgram, ///< a program and its arguments
};

struct CompletedOption {
    std::vector<std::string> names; ///< with their dashes; none for a positional
    std::string description;
    bool takesValue = false;
    ValueKind kind = ValueKind::kNothing;
    std::vector<std::string> choices;
};

struct CompletedCommand {
    std::string name;
    std::string description;
    std::vector<CompletedOption> options;
    std::vector<CompletedOption> positionals;
};

/// The commands of `tool` but the hidden ones, in the order they were added.
[[nodiscard]] std::vector<CompletedCommand> completedCommands(const CLI::App& tool);

[[nodiscard]] std::string bashCompletion(const std::vector<CompletedCommand>& commands);
[[nodiscard]] std::string zshCompletion(const std::vector<CompletedCommand>& commands);
[[nodiscard]] std::string fishCompletion(const std::vector<CompletedCommand>& commands);

/// Adds the hidden command `completion bash|zsh|fish`.
void addCompletion(CLI::App& tool, std::string& shell);
/// The script for `shell`, one of the three.
[[nodiscard]] std::string completionFor(std::string_view shell, const CLI::App& tool);

/// `rumbel list options`: the options of `record`, with their defaults. Always 0.
int listOptions(const CLI::App& tool, bool json, std::ostream& out);

} // namespace vnt::rumbel
