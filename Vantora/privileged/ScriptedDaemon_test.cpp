#include "Vantora/privileged/ScriptedDaemon_test.h"

#include <gtest/gtest.h>

#include <fstream>

#include "platform/mach/NameService.h"
#include "platform/mach/PortTable.h"

namespace vnt::test {

ScriptedReply& ScriptedReply::addMemory(const std::vector<std::byte>& memory)
{
    complex = true;
    ++descriptorCount;
    OutOfLineDescriptor<NativeAddress> descriptor{};
    descriptor.address = reinterpret_cast<NativeAddress>(memory.data());
    descriptor.size = static_cast<uint32_t>(memory.size());
    descriptor.flags = outOfLineFlags(false);
    return add(descriptor);
}

ScriptedReply& ScriptedReply::addPort(mach_port_t port, uint32_t disposition)
{
    complex = true;
    ++descriptorCount;
    return add(PortDescriptor{port, 0, portFlags(disposition)});
}

ScriptedReply& ScriptedReply::addNumber(uint32_t number, bool swapped)
{
    NDR_record_t ndr = NDR_record;
    ndr.int_rep = swapped ? 0 : ndr.int_rep;
    add(ndr);
    return add(swapped ? __builtin_bswap32(number) : number);
}

void ScriptedReply::send(ReceivedMessage& request) const
{
    ScriptedReply message;
    message.add(mach_msg_header_t{});
    if (complex)
        message.add(mach_msg_body_t{descriptorCount});
    message.rest.insert(message.rest.end(), rest.begin(), rest.end());
    auto* const header = reinterpret_cast<mach_msg_header_t*>(message.rest.data());
    header->msgh_id = request.header().msgh_id + idDistance;
    EXPECT_EQ(PortServer::sendReply(request.takeReplyPort(), header, message.rest.size(), complex), KERN_SUCCESS);
}

ScriptedReply statusReply(int32_t returnCode, bool swapped)
{
    ScriptedReply reply;
    return reply.addNumber(static_cast<uint32_t>(returnCode), swapped);
}

ScriptedDaemon::ScriptedDaemon(Namespace which) : _which(which)
{
    PortServer::Options options;
    options.arguments.which = which;
    options.name = "quillon.tfp";
    options.idleExit = std::chrono::milliseconds(-1);
    auto server = PortServer::open(std::move(options), [this](ReceivedMessage& message, const sys::PeerCredentials&) {
        Script script;
        {
            MutexLock lock(_lock);
            script = _script;
        }
        if (script)
            script(message);
    });
    EXPECT_TRUE(server.ok()) << server.status().message();
    _server = server.take();
    const sys::SignalBlock block;
    _thread = std::thread([this] { EXPECT_TRUE(_server->run().ok()); });
}

ScriptedDaemon::~ScriptedDaemon()
{
    _server->packets().stop();
    _thread.join();
}

void ScriptedDaemon::onRequest(Script script)
{
    MutexLock lock(_lock);
    _script = std::move(script);
}

mach_port_t ScriptedDaemon::connect() const
{
    auto connection = connectToService(_which, "quillon.tfp");
    EXPECT_TRUE(connection.ok()) << connection.status().message();
    return PortTable::shared().insertSend(connection.take()).take();
}

size_t mappedMessageFiles()
{
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("memfd:vantora-message") != std::string::npos ? 1 : 0;
    return count;
}

} // namespace vnt::test
