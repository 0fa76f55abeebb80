#include "rumbel/report/StatusLine.h"

#include <ostream>

#include "rumbel/report/printable.h"

namespace vnt {

namespace {
/// Longer lines would wrap on narrow terminals, and then cannot be taken away.
constexpr size_t kMaxLine = 78;
} // namespace

void StatusLine::show(const std::string& text)
{
    if (!_out)
        return;
    std::string line = printable(text);
    if (line.size() > kMaxLine)
        line.resize(kMaxLine);
    clear();
    *_out << line << std::flush;
    _shown = line.size();
}

void StatusLine::clear()
{
    if (_out && _shown != 0)
        *_out << "\r" << std::string(_shown, ' ') << "\r" << std::flush;
    _shown = 0;
}

} // namespace vnt
