#include <iostream>
#include <vector>

#include "rumbel/commands/commands.h"
#include "rumbel/terminal/ShortHelp.h"

namespace {

constexpr int kExitUsage = 2; // the command line makes no sense

using namespace vnt::rumbel;

/// The room for a new command.
constexpr Command (*kCommands[])(CLI::App& tool) = {
    addRecord, addReport, addView, addExport, addArchive, addList, addDoctor, addRecover, addCompletion,
};

} // namespace

int main(int argc, char** argv)
{
    CLI::App tool("Records where programs spend their time, and shows it.", "rumbel");
    tool.require_subcommand(1);
    tool.set_version_flag("--version", "rumbel " VNT_VERSION);
    tool.formatter(std::make_shared<vnt::terminal::ShortHelp>()); // commands added from here on have it, too
    tool.footer("rumbel COMMAND --help and man rumbel-COMMAND tell more.");
    std::vector<Command> commands;
    for (const auto add : kCommands)
        commands.push_back(add(tool));
    if (argc < 2) {
        std::cerr << tool.help();
        return kExitUsage;
    }
    try {
        tool.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = tool.exit(error);
        return status == 0 ? 0 : kExitUsage;
    }
    for (const Command& command : commands) {
        if (tool.got_subcommand(const_cast<CLI::App*>(command.app)))
            return command.run();
    }
    return kExitUsage;
}
