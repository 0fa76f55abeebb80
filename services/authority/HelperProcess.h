#pragma once

#include <functional>
#include <memory>

#include "platform/base/ByteWriter.h"
#include "platform/mach/PacketServer.h"

namespace vnt {

/// This very program executed anew to do one thing that may wait, crash or be attacked: it inherits none of the
/// authority's memory, one socket, an empty environment. Killed when this object goes. On the server's thread.
class HelperProcess {
public:
    /// Called once with the answer, empty when there was none: it crashed, took too long or answered nonsense. The
    /// object may be destroyed in there.
    using OnEnd = std::function<void(std::span<const std::byte> answer)>;

    /// Starts it and sends the order, which is wiped. About a millisecond. SIGCHLD must be ignored: nobody waits for
    /// the process.
    static Result<std::unique_ptr<HelperProcess>> start(PacketServer& server, const char* mode, ByteWriter& order,
                                                        std::chrono::seconds limit, OnEnd onEnd);
    ~HelperProcess();
    HelperProcess(const HelperProcess&) = delete;
    HelperProcess& operator=(const HelperProcess&) = delete;

private:
    HelperProcess(PacketServer& server, OnEnd onEnd) : _server(server), _onEnd(std::move(onEnd)) { }
    Status spawn(const char* mode);
    Status arm(std::chrono::seconds limit);
    void onEvents(bool isTimeUp);

    PacketServer& _server; // outlives this
    OnEnd _onEnd;
    UniqueFd _process, _socket, _timer;
    PacketServer::WatchId _socketWatch = 0, _timerWatch = 0;
};

/// For the helper's main: the order, taken from its socket and waited for. Wiped by the caller.
Result<Packet> receiveHelperOrder();
/// Sends the result and wipes it.
Status sendHelperResult(ByteWriter& result);

} // namespace vnt
