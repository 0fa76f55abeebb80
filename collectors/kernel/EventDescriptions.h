#pragma once

#include <span>
#include <string>

#include "collectors/kernel/Tracepoint.h"

namespace vnt {

/// The events that can be recorded here, as the running kernel describes them: an XML document of one `class` for each
/// filter code, with its events, their identifiers, fields and print formats; a class without events says why.
/// `traceFiles` as for TraceFs::open(). Errors: those of TraceFs::open() and loadTracepoints().
Result<std::string> describeEvents(int traceFiles = -1);

/// The same over given tracepoints.
std::string describeEvents(std::span<const Tracepoint> tracepoints);

} // namespace vnt
