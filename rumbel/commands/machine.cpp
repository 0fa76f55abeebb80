#include <iostream>

#include "rumbel/commands/commands.h"
#include "rumbel/completion/completion.h"
#include "rumbel/doctor/Doctor.h"
#include "rumbel/recover/RecoverCommand.h"

namespace vnt::rumbel {
namespace {

struct LookOptions {
    std::string what = "instruments";
    bool json = false;
};

} // namespace

Command addDoctor(CLI::App& tool)
{
    const auto options = std::make_shared<LookOptions>();
    CLI::App* doctor = tool.add_subcommand("doctor", "Tell what this machine and user can record");
    doctor->add_flag("--json", options->json, "One JSON object, for programs");
    return {doctor, [options] { return runDoctor(options->json, std::cout); }};
}

Command addList(CLI::App& tool)
{
    const auto options = std::make_shared<LookOptions>();
    CLI::App* list = tool.add_subcommand("list", "List what can be recorded: instruments, their options, processes");
    list->add_option("what", options->what, "instruments, options or processes")
        ->check(CLI::IsMember({"instruments", "options", "processes"}))
        ->capture_default_str();
    list->add_flag("--json", options->json, "A JSON array, for programs");
    return {list, [options, &tool] {
                return options->what == "options" ? listOptions(tool, options->json, std::cout)
                                                  : runList(options->what, options->json, std::cout);
            }};
}

Command addRecover(CLI::App& tool)
{
    const auto options = std::make_shared<RecoverOptions>();
    addRecover(tool, *options);
    return {tool.get_subcommand("recover"), [options] { return runRecover(*options, std::cout, std::cerr); }};
}

Command addCompletion(CLI::App& tool)
{
    const auto shell = std::make_shared<std::string>();
    addCompletion(tool, *shell);
    return {tool.get_subcommand("completion"), [shell, &tool] {
                std::cout << completionFor(*shell, tool);
                return 0;
            }};
}

} // namespace vnt::rumbel
