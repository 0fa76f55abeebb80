#include "rumbel/completion/completion.h"

namespace vnt::rumbel {
namespace {

std::string joined(const std::vector<std::string>& words, const char* between)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

/// Shell code that fills COMPREPLY for a value of this kind.
std::string action(const CompletedOption& option)
{
    switch (option.kind) {
    case ValueKind::kChoice:
        return "_rumbel_words '" + joined(option.choices, " ") + "'";
    case ValueKind::kList:
        return "_rumbel_list '" + joined(option.choices, " ") + "'";
    case ValueKind::kBundle:
        return "_rumbel_bundles";
    case ValueKind::kFile:
        return "COMPREPLY=($(compgen -f -- \"$cur\")); compopt -o filenames 2>/dev/null";
    case ValueKind::kProcess:
        return "_rumbel_words \"$(cd /proc && echo [0-9]*)\"";
    case ValueKind::kName:
        return "_rumbel_words \"$(cat /proc/[0-9]*/comm 2>/dev/null)\"";
    case ValueKind::kProgram:
        return "COMPREPLY=($(compgen -c -- \"$cur\"))";
    case ValueKind::kNothing:
        break;
    }
    return ":";
}

constexpr const char* kHead = R"(# bash completion for rumbel, made by `rumbel completion bash`
_rumbel_words() { COMPREPLY=($(compgen -W "$1" -- "$cur")); }
_rumbel_list() { # the last of some words with commas between
    local before=
    [[ $cur == *,* ]] && before=${cur%,*},
    COMPREPLY=($(compgen -P "$before" -W "$1" -- "${cur##*,}"))
    compopt -o nospace 2>/dev/null
}
_rumbel_bundles() {
    COMPREPLY=($(compgen -d -- "$cur"))
    compopt -o filenames 2>/dev/null
}
_rumbel() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} command=${COMP_WORDS[1]} i
    COMPREPLY=()
    for ((i = 2; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} == -- ]]; then # from here on it is another program's command line
            if ((i == COMP_CWORD - 1)); then COMPREPLY=($(compgen -c -- "$cur"))
            else COMPREPLY=($(compgen -f -- "$cur")); compopt -o filenames 2>/dev/null; fi
            return
        fi
    done
    if ((COMP_CWORD == 1)); then
        _rumbel_words ')";

std::string commandCase(const CompletedCommand& command)
{
    std::string text = "    " + command.name + ")\n        case $prev in\n";
    std::vector<std::string> names;
    for (const CompletedOption& option : command.options) {
        names.insert(names.end(), option.names.begin(), option.names.end());
        if (option.takesValue)
            text += "        " + joined(option.names, "|") + ") " + action(option) + "; return ;;\n";
    }
    text += "        esac\n        if [[ $cur == -* ]]; then _rumbel_words '" + joined(names, " ") + "'; return; fi\n";
    if (!command.positionals.empty())
        text += "        " + action(command.positionals.front()) + "\n";
    return text + "        ;;\n";
}

} // namespace

std::string bashCompletion(const std::vector<CompletedCommand>& commands)
{
    std::vector<std::string> names;
    for (const CompletedCommand& command : commands)
        names.push_back(command.name);
    std::string text =
        kHead + joined(names, " ") + " --help --version'\n        return\n    fi\n    case $command in\n";
    for (const CompletedCommand& command : commands)
        text += commandCase(command);
    return text + "    esac\n}\ncomplete -F _rumbel rumbel\n";
}

} // namespace vnt::rumbel
