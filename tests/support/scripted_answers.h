#pragma once

#include "platform/messagequeue/frames.h"
#include "tests/support/ScriptedServer.h"

namespace vnt::test {

/// Sends what `push` says on `channel`.
void sendPush(int socket, const Push& push, uint32_t channel);
/// Sends the answer itself, without its pushes; false when the connection is to be closed.
bool sendAnswer(int socket, const Answer& answer, const queue::FrameHeader& request);

} // namespace vnt::test
