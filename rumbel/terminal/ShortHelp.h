#pragma once

#include <CLI/CLI.hpp>

#include <cctype>
#include <string>

namespace vnt::terminal {

/// Help that fits a screen: of an option its names, what goes in, and its default; not what excludes what, which an
/// attempt tells.
class ShortHelp final : public CLI::Formatter {
public:
    ShortHelp() { column_width(kColumns); }

    std::string make_option_opts(const CLI::Option* option) const override
    {
        if (option->get_items_expected_max() == 0)
            return {};
        const std::string type = option->get_type_name();
        const size_t open = type.find('{');
        std::string text = " ";
        if (open != std::string::npos && type.find('}', open) != std::string::npos) {
            for (const char c : type.substr(open + 1, type.find('}', open) - open - 1))
                text += c == ',' ? '|' : c;
        } else if (!option->get_positional() && !option->get_lnames().empty()) {
            // Of "census-interval", what is given is an interval.
            const std::string& name = option->get_lnames().front();
            for (const char c : name.substr(name.rfind('-') + 1))
                text += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
        if (!option->get_default_str().empty())
            text += " (" + option->get_default_str() + ")";
        return text == " " ? std::string() : text;
    }

private:
    static constexpr size_t kColumns = 36;
};

} // namespace vnt::terminal
