#include "rumbel/report/debugServer.h"

#include <algorithm>
#include <ostream>

#include "rumbel/report/printable.h"

namespace vnt {

namespace {
/// Longer lines would wrap on narrow terminals, and then cannot be taken away.
constexpr size_t kMaxLine = 78;
} // namespace

void ProgressLine::show(const std::string& text)
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

void ProgressLine::clear()
{
    if (_out && _shown != 0)
        *_out << "\r" << std::string(_shown, ' ') << "\r" << std::flush;
    _shown = 0;
}

std::unique_ptr<DebugServer> openDebugServer(Bundle& bundle, ProgressLine& progress)
{
    auto server = DebugServer::open([&progress](const std::string& what, long done, long whole) {
        progress.show("fetching " + what + ": " + bytes(static_cast<uint64_t>(std::max(done, 0L)))
                      + (whole > 0 ? " of " + bytes(static_cast<uint64_t>(whole)) : ""));
    });
    if (!server.ok()) {
        bundle.remarks().add(server.status().message());
        return nullptr;
    }
    bundle.setDebugServer(server.value().get());
    return server.take();
}

} // namespace vnt
