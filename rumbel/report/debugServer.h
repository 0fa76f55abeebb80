#pragma once

#include <memory>

#include "bundle/Bundle.h"
#include "bundle/DebugServer.h"
#include "rumbel/report/StatusLine.h"

namespace vnt {

/// The servers of DEBUGINFOD_URLS for `bundle`'s symbolizers, which then fetch what this machine lacks. Null, with a
/// remark, when that cannot be done. `progress` outlives the answer, and the answer the bundle's use.
std::unique_ptr<DebugServer> openDebugServer(Bundle& bundle, StatusLine& progress);

} // namespace vnt
