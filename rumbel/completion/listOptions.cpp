#include <CLI/CLI.hpp>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

#include "rumbel/completion/completion.h"

namespace vnt::rumbel {

int listOptions(const CLI::App& tool, bool json, std::ostream& out)
{
    constexpr int kNameColumns = 24;
    constexpr int kDefaultColumns = 14;
    const CLI::App* record = tool.get_subcommand("record");
    auto list = nlohmann::ordered_json::array();
    for (const CLI::Option* option : record->get_options([](const CLI::Option*) { return true; })) {
        if (option->get_positional() || option->get_lnames().empty())
            continue;
        const std::string name = "--" + option->get_lnames().front();
        const std::string shortName = option->get_snames().empty() ? "" : "-" + option->get_snames().front();
        const bool takesValue = option->get_items_expected_max() > 0;
        if (json) {
            list.push_back({{"name", name},
                            {"short", shortName},
                            {"takesValue", takesValue},
                            {"default", option->get_default_str()},
                            {"tells", option->get_description()}});
            continue;
        }
        out << std::left << std::setw(4) << shortName << std::setw(kNameColumns) << name << std::setw(kDefaultColumns)
            << (takesValue ? option->get_default_str() : "") << option->get_description() << "\n";
    }
    if (json)
        out << list.dump(1) << "\n";
    return 0;
}

} // namespace vnt::rumbel
