#include <CLI/CLI.hpp>

#include "rumbel/completion/completion.h"

namespace vnt::rumbel {
namespace {

constexpr std::string_view kInstruments[] = {"stacksampler", "kerneltracer", "heaprecorder", "orphanfinder",
                                             "processcensus"};

/// "TEXT:{user,kernel,both}" -> the words; CLI11 shows the set of a check in the type's name.
std::vector<std::string> choicesIn(const std::string& typeName)
{
    const size_t open = typeName.find('{');
    const size_t close = typeName.find('}', open);
    std::vector<std::string> choices;
    if (close == std::string::npos)
        return choices;
    for (size_t start = open + 1; start <= close;) {
        const size_t end = std::min(typeName.find(',', start), close);
        choices.push_back(typeName.substr(start, end - start));
        start = end + 1;
    }
    return choices;
}

/// By the name that the option has: the tool's commands call the same thing by the same name.
ValueKind kindOf(const std::string& name)
{
    struct Row {
        std::string_view name;
        ValueKind kind;
    };
    static constexpr Row kRows[] = {
        {"bundle", ValueKind::kBundle},    {"bundles", ValueKind::kBundle},  {"diff", ValueKind::kBundle},
        {"output", ValueKind::kFile},      {"file", ValueKind::kFile},       {"suppressions", ValueKind::kFile},
        {"pid", ValueKind::kProcess},      {"name", ValueKind::kName},       {"command", ValueKind::kProgram},
        {"instruments", ValueKind::kList}, {"instrument", ValueKind::kList},
    };
    for (const Row& row : kRows) {
        if (name == row.name)
            return row.kind;
    }
    return ValueKind::kNothing;
}

CompletedOption completed(const CLI::Option& option)
{
    CompletedOption result;
    for (const std::string& name : option.get_snames())
        result.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        result.names.push_back("--" + name);
    result.description = option.get_description();
    result.takesValue = option.get_items_expected_max() > 0;
    if (!result.takesValue)
        return result;
    const auto& names = option.get_lnames();
    result.kind = kindOf(option.get_positional() ? option.get_single_name() : names.empty() ? "" : names.front());
    result.choices = choicesIn(option.get_type_name());
    if (result.kind == ValueKind::kList && result.choices.empty())
        result.choices.assign(std::begin(kInstruments), std::end(kInstruments));
    else if (!result.choices.empty())
        result.kind = ValueKind::kChoice;
    return result;
}

} // namespace

std::vector<CompletedCommand> completedCommands(const CLI::App& tool)
{
    std::vector<CompletedCommand> commands;
    for (const CLI::App* app : tool.get_subcommands([](const CLI::App*) { return true; })) {
        if (app->get_group().empty())
            continue;
        CompletedCommand command{app->get_name(), app->get_description(), {}, {}};
        for (const CLI::Option* option : app->get_options([](const CLI::Option*) { return true; }))
            (option->get_positional() ? command.positionals : command.options).push_back(completed(*option));
        commands.push_back(std::move(command));
    }
    return commands;
}

void addCompletion(CLI::App& tool, std::string& shell)
{
    CLI::App* completion = tool.add_subcommand("completion", "Print a completion script")->group("");
    completion->add_option("shell", shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
}

std::string completionFor(std::string_view shell, const CLI::App& tool)
{
    const auto commands = completedCommands(tool);
    if (shell == "bash")
        return bashCompletion(commands);
    return shell == "zsh" ? zshCompletion(commands) : fishCompletion(commands);
}

} // namespace vnt::rumbel
