#pragma once

#include <span>
#include <string_view>

namespace vnt {

/// The kinds of instrument that a bundle can hold.
struct InstrumentKind {
    std::string_view identifier; ///< also the name of its archive in the bundle
    std::string_view displayName;
};

inline constexpr std::string_view kStackSamplerId = "quillon.vnt.stacksampler";
inline constexpr std::string_view kKernelTracerId = "quillon.vnt.kerneltracer";
inline constexpr std::string_view kHeapRecorderId = "quillon.vnt.heaprecorder";
inline constexpr std::string_view kOrphanFinderId = "quillon.vnt.orphanfinder";
inline constexpr std::string_view kProcessCensusId = "quillon.vnt.processcensus";

inline constexpr InstrumentKind kInstrumentKinds[] = {
    {kStackSamplerId, "Stack Sampler"}, {kKernelTracerId, "Kernel Tracer"},   {kHeapRecorderId, "Heap Recorder"},
    {kOrphanFinderId, "Orphan Finder"}, {kProcessCensusId, "Process Census"},
};

/// The suffix of an instrument's message stream, behind its identifier.
inline constexpr std::string_view kMessageStreamSuffix = ".messagequeue";

/// Keys of an instrument's archive. The odd spellings are part of the format.
namespace archivekey {
inline constexpr std::string_view kFileVersion = "quillon.vnt.data.fileversion";
inline constexpr std::string_view kServerAddress = "quillon.vnt.data.serveraddress";
inline constexpr std::string_view kServiceVersion = "quillon.vnt.data.serviceversion";
inline constexpr std::string_view kPid = "quillon.vnt.data.pid";
inline constexpr std::string_view kSignatures = "quillon.vnt.data.signatures";
inline constexpr std::string_view kDeviceTemplate = "quillon.vnt.data.devicetemplate";
inline constexpr std::string_view kHardwareInfo = "_hardwareInfo"; ///< within the device template
inline constexpr std::string_view kStartSeconds = "quillon.vnt.data.starttimesecsince1970";
inline constexpr std::string_view kStopSeconds = "quillon.vnt.data.stoptimessecsince1970";
inline constexpr std::string_view kStartTicks = "quillon.vnt.data.starttimemach";
inline constexpr std::string_view kStopTicks = "quillon.vnt.data.stoptimemach";
inline constexpr std::string_view kTimeBaseNumerator = "quillon.vnt.data.machtimebasenumer";
inline constexpr std::string_view kTimeBaseDenominator = "quillon.vnt.data.machtimebasedenom";
inline constexpr std::string_view kMessageCount = "quillon.vnt.data.messagecount";
inline constexpr std::string_view kSamplingInterval = "quillon.vnt.data.samplinginterval"; ///< Stack Sampler: us
inline constexpr std::string_view kWindowLimit = "quillon.vnt.data.windowlimit";
inline constexpr std::string_view kOutputRate = "quillon.vnt.data.outputrate";
inline constexpr std::string_view kStackSamplerOptions = "quillon.vnt.data.stacksampleroptions";
inline constexpr std::string_view kKernelEventXml = "quillon.vnt.dtaa.kdebugeventxml";
} // namespace archivekey

/// The latest version of an instrument's archive that this reader knows.
inline constexpr int kArchiveFileVersion = 4;

} // namespace vnt
