#pragma once

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "platform/mach/PortServer.h"

namespace vnt::test {

/// A reply as a daemon may build it, well or badly: descriptors and body as they stand in memory, sent as a real
/// message.
struct ScriptedReply {
    int32_t idDistance = kReplyIdDistance; ///< from the request's id
    bool complex = false;
    uint32_t descriptorCount = 0;
    std::vector<std::byte> rest; ///< what follows the header, and the descriptor count of a complex reply

    template <typename T> ScriptedReply& add(const T& value)
    {
        const auto* first = reinterpret_cast<const std::byte*>(&value);
        rest.insert(rest.end(), first, first + sizeof value);
        return *this;
    }
    ScriptedReply& addBytes(size_t count)
    {
        rest.resize(rest.size() + count);
        return *this;
    }
    ScriptedReply& addMemory(const std::vector<std::byte>& memory);
    /// A port descriptor with a right made from a receive right of this process.
    ScriptedReply& addPort(mach_port_t port, uint32_t disposition);
    /// NDR record and a number; `swapped`: both as a machine of the other byte order writes them.
    ScriptedReply& addNumber(uint32_t number, bool swapped = false);
    void send(ReceivedMessage& request) const;
};

/// A simple reply with a return code.
ScriptedReply statusReply(int32_t returnCode, bool swapped = false);

/// Serves "quillon.tfp" in a namespace of this test program and answers as it is told.
class ScriptedDaemon {
public:
    using Script = std::function<void(ReceivedMessage&)>;
    explicit ScriptedDaemon(Namespace which = Namespace::kUser);
    ~ScriptedDaemon();

    void onRequest(Script script);
    /// A send right to it, without the library's own look-up.
    [[nodiscard]] mach_port_t connect() const;

private:
    const Namespace _which;
    Mutex _lock;
    Script _script VNT_GUARDED_BY(_lock);
    std::unique_ptr<PortServer> _server;
    std::thread _thread;
};

/// Memory of messages that is mapped into this process and large enough to have come as a file.
size_t mappedMessageFiles();
inline constexpr size_t kFileBytes = size_t{256} * 1024; ///< travels as a file

} // namespace vnt::test
