#include "rumbel/completion/completion.h"

namespace vnt::rumbel {
namespace {

/// Inside single quotes, in a description of _arguments or _describe.
std::string quoted(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        if (c == '\'')
            result += "'\\''";
        else if (c == '[' || c == ']' || c == ':')
            result += std::string("\\") + c;
        else
            result += c;
    }
    return result;
}

std::string words(const std::vector<std::string>& choices)
{
    std::string text;
    for (const std::string& choice : choices)
        text += (text.empty() ? "" : " ") + choice;
    return text;
}

/// What _arguments is told of how the value is completed.
std::string action(const CompletedOption& option)
{
    switch (option.kind) {
    case ValueKind::kChoice:
        return "(" + words(option.choices) + ")";
    case ValueKind::kList:
        return "_values -s , instrument " + words(option.choices);
    case ValueKind::kBundle:
        return "_files -/";
    case ValueKind::kFile:
        return "_files";
    case ValueKind::kProcess:
        return "_pids";
    case ValueKind::kName:
        return "_process_names";
    case ValueKind::kProgram:
    case ValueKind::kNothing:
        break;
    }
    return " ";
}

std::string optionLine(const CompletedOption& option)
{
    std::string text;
    for (const std::string& name : option.names) {
        text += "            '" + name + "[" + quoted(option.description) + "]";
        if (option.takesValue)
            text += ":value:" + action(option);
        text += "' \\\n";
    }
    return text;
}

std::string positionalLine(const CompletedOption& option)
{
    if (option.kind == ValueKind::kProgram)
        return "            '*::program:_normal' \\\n";
    return "            '*:" + quoted(option.description) + ":" + action(option) + "' \\\n";
}

} // namespace

std::string zshCompletion(const std::vector<CompletedCommand>& commands)
{
    std::string list;
    std::string cases;
    for (const CompletedCommand& command : commands) {
        list += "        '" + command.name + ":" + quoted(command.description) + "'\n";
        cases += "    " + command.name + ")\n        _arguments -S \\\n";
        for (const CompletedOption& option : command.options)
            cases += optionLine(option);
        if (!command.positionals.empty())
            cases += positionalLine(command.positionals.front());
        cases += "            && ret=0\n        ;;\n";
    }
    return "#compdef rumbel\n# zsh completion for rumbel, made by `rumbel completion zsh`\n"
           "_rumbel() {\n    local curcontext=$curcontext ret=1\n    local -a commands\n    commands=(\n"
        + list
        + "    )\n    if ((CURRENT == 2)); then\n        _describe command commands && ret=0\n        return ret\n    "
          "fi\n"
          "    shift words\n    ((CURRENT--))\n    case $words[1] in\n"
        + cases
        + "    esac\n    return ret\n}\n"
        // Loaded from $fpath the file is the function; sourced, it registers itself.
        + "if [[ $zsh_eval_context[-1] == loadautofunc ]]; then _rumbel \"$@\"; else compdef _rumbel rumbel; fi\n";
}

} // namespace vnt::rumbel
