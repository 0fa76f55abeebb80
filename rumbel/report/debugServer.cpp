#include "rumbel/report/debugServer.h"

#include <algorithm>

#include "rumbel/report/printable.h"

namespace vnt {

std::unique_ptr<DebugServer> openDebugServer(Bundle& bundle, StatusLine& progress)
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
