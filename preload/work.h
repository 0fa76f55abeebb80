#pragma once

#include <stdint.h>

/// What changes the journal's state is done by one thread at a time: the calls of tracers, which may outlive the tracer
/// that made them, and what follows when the target loads modules.
namespace vnt::journal {

/// The calling thread is at work from now on; its id. 0: another one is, which was not waited for. What a thread left
/// undone, because it has ended or its tracer took it out of a call, stands in nobody's way.
uint32_t beginWork();
void endWork();
/// Where the id of the thread at work stands.
const uint32_t* workPlace();

} // namespace vnt::journal
