#pragma once

#include <string_view>

/// Keys of a symbolication signature: the property-list dictionary from which the addresses recorded in one process
/// can later be turned into names without the process. Written by the server's device information, opaque to the
/// library, read by bundle/. Unknown keys are ignored by readers; a change of meaning raises the version.
namespace vnt::signature {

inline constexpr int kVersion = 1;

inline constexpr std::string_view kVersionKey = "version"; ///< int
inline constexpr std::string_view kPid = "pid"; ///< int; 0: the kernel
inline constexpr std::string_view kName = "name"; ///< string: the executable's name
inline constexpr std::string_view kExecutable = "executable"; ///< string: path, may be absent
inline constexpr std::string_view kIs64Bit = "is64Bit"; ///< boolean
inline constexpr std::string_view kImages = "images"; ///< array of the dictionaries below, oldest first

/// Array of signatures: the processes that descend from this one and began while it was recorded. Only in the answer
/// for a recorded process; they have no children of their own in them.
inline constexpr std::string_view kChildren = "children";
/// Data: text of the process's perf-PID.map, lines "START SIZE NAME" with hexadecimal numbers: what a just-in-time
/// compiler calls its code. Later lines replace earlier ones that they overlap.
inline constexpr std::string_view kPerfMap = "perfMap";

/// Written by the process watcher only: int, the process that forked this one, 0 when unknown. What a process that has
/// executed a program had mapped before is in its parent's signature.
inline constexpr std::string_view kParent = "parent";
inline constexpr std::string_view kStarted =
    "started"; ///< likewise: uint64 CLOCK_MONOTONIC ns; absent: before the watch
inline constexpr std::string_view kEnded = "ended"; ///< likewise: uint64 CLOCK_MONOTONIC ns; absent: still running

/// One executable mapping.
inline constexpr std::string_view kImageStart = "start"; ///< uint64 address
inline constexpr std::string_view kImageSize = "size"; ///< uint64 bytes
inline constexpr std::string_view kImageOffset = "offset"; ///< uint64 offset into the file
inline constexpr std::string_view kImagePath = "path"; ///< string as in /proc/PID/maps, " (deleted)" kept; "[vdso]"
inline constexpr std::string_view kImageBuildId = "buildID"; ///< lower-case hexadecimal string; absent when unknown
/// uint64 CLOCK_MONOTONIC ns from which the mapping holds; absent or 0: from the start. For an address, the newest
/// mapping that covers it and is not younger than the sample is the right one.
inline constexpr std::string_view kImageTime = "time";
/// uint64 CLOCK_MONOTONIC ns: this entry stands for an exec; images before it end here. Has no other keys.
inline constexpr std::string_view kImageExec = "exec";

inline constexpr std::string_view kVdso = "vdso"; ///< data: the vdso's ELF image, in the kernel's signature

/// The kernel's signature (pid 0).
inline constexpr std::string_view kKernelRelease = "release"; ///< string
inline constexpr std::string_view kKernelBuildId = "buildID"; ///< hexadecimal string; absent when unreadable
/// Array of (uint64 address, string name) alternating, ascending: the symbols of the kernel addresses recorded.
inline constexpr std::string_view kKernelSymbols = "symbols";

/// What a watch of processes gathered: a dictionary of these.
inline constexpr std::string_view kWatchSignatures = "signatures"; ///< array of signatures, ended processes first
inline constexpr std::string_view kWatchDropped = "dropped"; ///< uint64: ended processes that were too many to keep
inline constexpr std::string_view kWatchLost = "lost"; ///< uint64: events that were lost; processes may be missing
inline constexpr std::string_view kWatchSince = "since"; ///< uint64 CLOCK_MONOTONIC ns: the watch's beginning

} // namespace vnt::signature
