#include "tests/support/CreationPort.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/mach/NameService.h"
#include "platform/mach/PortServer.h"

namespace vnt::test {

struct CreationPort::Impl {
    Mutex lock;
    std::string address VNT_GUARDED_BY(lock);
    int32_t status VNT_GUARDED_BY(lock) = 0;
    bool dies VNT_GUARDED_BY(lock) = false;
    std::unique_ptr<PortServer> server;
    std::thread thread;

    void answer(ReceivedMessage& message)
    {
        MutexLock guard(lock);
        if (dies)
            return;
        if (status != 0)
            PortServer::replyStatus(message, status);
        else
            PortServer::replyAddress(message, address);
    }
};

CreationPort::CreationPort(std::string address) : _impl(std::make_unique<Impl>())
{
    _impl->address = std::move(address);
    PortServer::Options options;
    options.arguments.which = currentNamespace();
    options.name = "quillon.server.mig";
    options.idleExit = std::chrono::milliseconds(-1);
    auto server = PortServer::open(
        std::move(options),
        [impl = _impl.get()](ReceivedMessage& message, const sys::PeerCredentials&) { impl->answer(message); });
    EXPECT_TRUE(server.ok()) << server.status().message();
    _impl->server = server.take();
    const sys::SignalBlock block;
    _impl->thread = std::thread([impl = _impl.get()] { EXPECT_TRUE(impl->server->run().ok()); });
}

CreationPort::~CreationPort()
{
    _impl->server->packets().stop();
    _impl->thread.join();
}

void CreationPort::answerAddress(std::string address)
{
    MutexLock guard(_impl->lock);
    _impl->address = std::move(address);
    _impl->status = 0;
    _impl->dies = false;
}

void CreationPort::answerStatus(int32_t status)
{
    MutexLock guard(_impl->lock);
    _impl->status = status;
    _impl->dies = false;
}

void CreationPort::dieInsteadOfAnswering()
{
    MutexLock guard(_impl->lock);
    _impl->dies = true;
}

} // namespace vnt::test
