#include "rumbel/completion/completion.h"

namespace vnt::rumbel {
namespace {

std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return result + "'";
}

/// The arguments of complete(1) that say what is offered as a value.
std::string action(const CompletedOption& option)
{
    switch (option.kind) {
    case ValueKind::kChoice: {
        std::string words;
        for (const std::string& choice : option.choices)
            words += (words.empty() ? "" : " ") + choice;
        return " -x -a " + quoted(words);
    }
    case ValueKind::kList: {
        std::string words;
        for (const std::string& choice : option.choices)
            words += (words.empty() ? "" : " ") + choice;
        return " -x -a " + quoted("(__fish_append , " + words + ")");
    }
    case ValueKind::kBundle:
        return " -x -a '(__fish_complete_directories)'";
    case ValueKind::kFile:
        return " -r -F";
    case ValueKind::kProcess:
        return " -x -a '(__fish_complete_pids)'";
    case ValueKind::kName:
        return " -x -a '(__fish_complete_proc)'";
    case ValueKind::kProgram:
        return " -a '(__fish_complete_subcommand)'";
    case ValueKind::kNothing:
        break;
    }
    return " -x";
}

std::string optionLine(const std::string& condition, const CompletedOption& option)
{
    std::string text = "complete -c rumbel " + condition;
    for (const std::string& name : option.names)
        text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    return text + (option.takesValue ? action(option) : " -f") + " -d " + quoted(option.description) + "\n";
}

} // namespace

std::string fishCompletion(const std::vector<CompletedCommand>& commands)
{
    std::string names;
    for (const CompletedCommand& command : commands)
        names += (names.empty() ? "" : " ") + command.name;
    const std::string none = "-n " + quoted("not __fish_seen_subcommand_from " + names);
    std::string text = "# fish completion for rumbel, made by `rumbel completion fish`\ncomplete -c rumbel -f\n";
    for (const CompletedCommand& command : commands)
        text += "complete -c rumbel " + none + " -a " + command.name + " -d " + quoted(command.description) + "\n";
    for (const CompletedCommand& command : commands) {
        const std::string seen = "-n " + quoted("__fish_seen_subcommand_from " + command.name);
        for (const CompletedOption& option : command.options)
            text += optionLine(seen, option);
        if (!command.positionals.empty())
            text += "complete -c rumbel " + seen + action(command.positionals.front()) + "\n";
    }
    return text;
}

} // namespace vnt::rumbel
