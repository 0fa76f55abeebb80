#pragma once

#include <string_view>

#include "platform/foundation/Values.h"

namespace vnt {

/// Instrument identifiers: the keys of the session's table and the names of the data files.
inline constexpr std::string_view kStackSamplerID = "quillon.vnt.stacksampler";
inline constexpr std::string_view kKernelTracerID = "quillon.vnt.kerneltracer";
inline constexpr std::string_view kHeapRecorderID = "quillon.vnt.heaprecorder";
inline constexpr std::string_view kOrphanFinderID = "quillon.vnt.orphanfinder";
inline constexpr std::string_view kProcessCensusID = "quillon.vnt.processcensus";

/// Option keys, for a session or for one instrument.
namespace option {
inline constexpr std::string_view kSamplingInterval = "quillon.vnt.option.samplinginterval";
inline constexpr std::string_view kWindowLimit = "quillon.vnt.option.windowlimit";
inline constexpr std::string_view kOutputRate = "quillon.vnt.option.outputrate";
inline constexpr std::string_view kStackSamplerOptions = "quillon.vnt.option.stacksampleroptions";
inline constexpr std::string_view kEnableZombies = "quillon.vnt.option.enablezombies";
inline constexpr std::string_view kReferenceCounting = "quillon.vnt.option.referencecounting";
inline constexpr std::string_view kIdentifyCpp = "quillon.vnt.option.identifycpp";
inline constexpr std::string_view kIncludeContext = "quillon.vnt.option.includecontext";
inline constexpr std::string_view kProvideBacktraces = "quillon.vnt.option.providebacktraces";
inline constexpr std::string_view kCensusInterval = "quillon.vnt.option.processcensussamplinginterval";
inline constexpr std::string_view kRumbelAttach = "quillon.vnt.option.rumbelattach";
inline constexpr std::string_view kRumbelLaunch = "quillon.vnt.option.rumbellaunch";
inline constexpr std::string_view kRumbelLaunchArgs = "quillon.vnt.option.rumbellaunchargs";
} // namespace option

/// Services of the server.
inline constexpr std::string_view kZeltoTapService = "quillon.server.services.zeltotap";
inline constexpr std::string_view kKdebugTapService = "quillon.server.services.kdebugtap";
inline constexpr std::string_view kKdebugEventsServiceName = "quillon.server.services.corekdebugevents";
/// Key of a completion report; its value is the service's name.
inline constexpr std::string_view kServiceComplete = "quillon.server.services.status.complete";

/// The one table of kinds. Everything that differs by kind starts from here.
struct InstrumentKind {
    std::string_view identifier;
    std::string_view displayName;
    std::string_view serviceName;
    bool needsOneTarget; ///< refuses to profile all processes
    bool usesTap; ///< driven through KxZeltoRemoteTap
};

/// Null for an identifier outside the catalogue.
[[nodiscard]] const InstrumentKind* kindOf(const String& identifier);

/// Display name, or the identifier itself when it is not in the catalogue; null for null.
[[nodiscard]] Ref<String> prettyName(const Ref<String>& identifier);

} // namespace vnt
