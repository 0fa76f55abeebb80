#include "rumbel/terminal/Terminal.h"

#include <unistd.h>

#include "platform/base/sys.h"

namespace vnt::terminal {

bool isLively(int fd)
{
    const std::string kind = sys::environmentOr("TERM", "");
    return !kind.empty() && kind != "dumb" && ::isatty(fd) == 1;
}

bool wantsColour(int fd) { return isLively(fd) && sys::environmentOr("NO_COLOR", "").empty(); }

std::string painted(std::string_view text, Colour colour, bool wanted)
{
    if (!wanted)
        return std::string(text);
    // Select Graphic Rendition of ECMA-48.
    return (colour == Colour::kGreen ? "\033[32m" : "\033[31m") + std::string(text) + "\033[0m";
}

} // namespace vnt::terminal
