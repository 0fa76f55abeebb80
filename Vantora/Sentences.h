#pragma once

/// Every sentence and console line of the library, once. "%@" is an object's description, "%d" a 32-bit integer, "%s" a
/// C string. Tools and scripts match these texts: they are part of the interface, their irregular spellings included.
namespace vnt::sentences {

#define VNT_SENTENCE(name, text) inline constexpr char name[] = text

// Public functions.
VNT_SENTENCE(kNotDisposedWithoutSession, "Vantora: Session not disposed because session was not specified");
VNT_SENTENCE(kNotStartedWithoutSession, "Vantora: Session not started because session was not specified");
VNT_SENTENCE(kNotStoppedWithoutSession, "Vantora: Session not stopped because session was not specified");
VNT_SENTENCE(kNotAddedWithoutArguments,
             "Vantora: Instrument not added because session or instrumentID were not specified");

// Server connection.
VNT_SENTENCE(kBootstrapFailure, "Vantora: QuillonServer bootstrap failure: %s - %s");
VNT_SENTENCE(kAuthorizationFailure, "Vantora: QuillonServer authorization failure");
VNT_SENTENCE(kCreationFailure, "Vantora: QuillonServer creation failure: %s");
VNT_SENTENCE(kUnableToConnect, "Vantora: Unable to connect to QuillonServer: %@");

// Recording control.
VNT_SENTENCE(kTargetSpecifiedIncorrectly, "Vantora: Profiling target specified incorrectly");
VNT_SENTENCE(kStartWithoutInstruments, "Vantora: Start requested but no instruments have been added");
VNT_SENTENCE(kCannotStartUnadded, "Vantora: Cannot start %@ instrument without adding it");
VNT_SENTENCE(kStopWithoutInstruments, "Vantora: Stop requested but no instruments have been added");
VNT_SENTENCE(kCannotStopUnadded, "Vantora: Cannot stop %@ instrument without adding it");
VNT_SENTENCE(kLaunchFailedDueTo, "Vantora: Failed to launch '%@' due to %@");
VNT_SENTENCE(kLaunchFailed, "Vantora: Failed to launch '%@'");
VNT_SENTENCE(kNoSymbolicators, "Vantora: Failed to create symbolicators");
VNT_SENTENCE(kInvalidProcessAtStart, "Vantora: Unable to start instruments for invalid process %d");

// Saving.
VNT_SENTENCE(kUnknownPid, "Vantora: Unknown pid; data not saved");
VNT_SENTENCE(kNoSaveFile, "Vantora: Save file was not specified");
VNT_SENTENCE(kUnableToWrite, "Vantora: Unable to write to %@ because %@");

// Target resolution. The name look-up's sentences have no prefix.
VNT_SENTENCE(kMissingTarget, "Vantora: Missing target process identifier");
VNT_SENTENCE(kUndeterminedProcess, "Unable to determine process to profile");
VNT_SENTENCE(kNoProcessNamed, "There is no process named '%@'");
VNT_SENTENCE(kMultipleNamed, "There are multiple processes named '%@'.  Please rerun specifying one of these pids:");
VNT_SENTENCE(kMultipleSimilar,
             "There are multiple processes named similarly to '%@'.  Please rerun specifying one of these pids:");
VNT_SENTENCE(kInvalidTargetPid, "Vantora: Invalid target process pid %@");
VNT_SENTENCE(kNoCurrentProcess, "Vantora: No current process has pid %@");

// Attaching and launching.
VNT_SENTENCE(kCannotAttachToInvalid, "Vantora: Attaching is not supported for invalid process %d");
VNT_SENTENCE(kHeapRecorderCannotAttach, "Vantora: Heap Recorder instrument unable to attach to process %d");
VNT_SENTENCE(kLaunchedTwice, "Vantora: Cannot launch target more than once");
VNT_SENTENCE(kSpawnFailed, "Vantora: posix_spawn failed to launch '%@'");

// Instruments.
VNT_SENTENCE(kNoAllProcesses, "Vantora: %@ does not support profiling all processes");
VNT_SENTENCE(kUnknownInstrument, "Vantora: No instrument added, unknown id %@");
VNT_SENTENCE(kHeapRecorderNoAllProcesses, "Vantora: Heap Recorder does not support profiling all processes");
VNT_SENTENCE(kOrphanFinderNoAllProcesses, "Vantora: Orphan Finder does not support profiling all processes");
VNT_SENTENCE(kUnknownNotStarted, "Vantora: Unknown instrument %@ was not started");
VNT_SENTENCE(kInvalidStartCount, "Vantora: Instrument %@ has invalid start count");
VNT_SENTENCE(kUnknownNotStopped, "Vantora: Unknown instrument %@ was not stopped");
VNT_SENTENCE(kStoppedBeforeStarting, "Vantora: Instrument %@ stopped before starting");
VNT_SENTENCE(kLeaksFailed, "Vantora: Determining leaks failed because: %@");
VNT_SENTENCE(kNotSaved, "Vantora: Instrument %@ not saved [startCount %d and %@]");
VNT_SENTENCE(kDisposedUnsaved, "Vantora: Disposing session before saving profile; startCount of %@ is %d while %@");

// Instrument data files.
VNT_SENTENCE(kUnknownPidForInstrument, "Vantora: Unknown pid; %@ data not saved");
VNT_SENTENCE(kNoDeviceInformation, "Vantora: Failed to determine device information; %@ data not saved");
VNT_SENTENCE(kCompletionTimedOut, "Vantora: %@ instrument completion timed out; data not saved");
VNT_SENTENCE(kNoSymbolicatorsForInstrument, "Vantora: Failed to get symbolicators; %@ data not saved");
VNT_SENTENCE(kUnknownInstrumentData, "Vantora: Unknown instrument %@; data not saved");
VNT_SENTENCE(kMessageQueueSavingFailed, "Vantora: Message queue saving failed for %@ instrument");

// Console lines, inside printRumbelStatus() and printRumbelError()'s formats.
VNT_SENTENCE(kTargetEnded, "Target process ended...");
VNT_SENTENCE(kInterrupted, "Profiling interrupted...");
VNT_SENTENCE(kSessionSaved, "Session saved at %@");
VNT_SENTENCE(kAlreadyReleased, "Failed to save data because session has already been released");
VNT_SENTENCE(kSavingFailed, "Failed to save data due to error: %@");
VNT_SENTENCE(kFoundFromPartialName, "Found process %@ ('%@') from partial name '%@'");
VNT_SENTENCE(kStatusFormat, "rumbel: %s\n");
VNT_SENTENCE(kErrorFormat, "rumbel error: %s\n");

// Warnings on standard error.
VNT_SENTENCE(kShortInterval,
             "Vantora warning: Requested sampling interval is shorter than this configuration of Stack "
             "Sampler's recommended sampling interval of %d microseconds.\n");
VNT_SENTENCE(kNoEvents, "Vantora warning: %s instrument did not collect any events.\n");

// Fatal assertions.
VNT_SENTENCE(kShouldNotReturn, "NO && \"asyncStopSaveAndQuit should not return\"");
VNT_SENTENCE(kNoValidTarget, "[_parentSession pid] != RqInvalidPidIdentifier");

#undef VNT_SENTENCE

} // namespace vnt::sentences
