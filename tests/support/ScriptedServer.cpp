#include "tests/support/ScriptedServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <list>
#include <map>
#include <thread>

#include "platform/base/Mutex.h"
#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/messagequeue/FrameReader.h"
#include "platform/messagequeue/sockets.h"
#include "tests/support/scripted_answers.h"

namespace vnt::test {

using queue::Frame;
using queue::FrameHeader;
using queue::FrameKind;

namespace {

constexpr std::chrono::seconds kPatience{30};

auto deadline() { return std::chrono::steady_clock::now() + kPatience; }

std::string described(const Array& arguments)
{
    std::string text = "(";
    for (const Ref<Object>& item : arguments.items())
        text += (text.size() == 1 ? "" : ", ") + item->description();
    return text + ")";
}

} // namespace

struct ScriptedServer::Impl {
    struct Connection {
        explicit Connection(UniqueFd fd) : socket(std::move(fd)) { }
        UniqueFd socket;
        Mutex sending; // one frame at a time
        std::map<uint32_t, std::string> services VNT_GUARDED_BY(sending); // channel -> name, also after its close
        std::map<std::string, uint32_t> open VNT_GUARDED_BY(sending);
        std::thread thread;
        bool ended = false; // guarded by Impl::lock
    };

    std::string directory;
    std::string url;
    UniqueFd listener;
    std::thread acceptor;

    mutable Mutex lock;
    mutable Condition changed;
    std::list<Connection> connections VNT_GUARDED_BY(lock); // kept until the end: pushes hold pointers
    std::map<std::string, Answer> table VNT_GUARDED_BY(lock);
    std::map<std::string, std::deque<Answer>> next VNT_GUARDED_BY(lock);
    std::map<std::string, int> released VNT_GUARDED_BY(lock);
    std::vector<std::string> lines VNT_GUARDED_BY(lock);
    bool stopping VNT_GUARDED_BY(lock) = false;

    void listen();
    void acceptAll();
    void serve(Connection& connection);
    bool handle(Connection& connection, const Frame& frame);
    bool handleCall(Connection& connection, const Frame& frame);
    bool give(Connection& connection, const Answer& answer, const FrameHeader& request);
    Answer answerFor(const std::string& service, const std::string& selector);
    void waitForRelease(const std::string& selector);
    void note(std::string line);
    template <typename Condition> bool waitUntil(MutexLock& held, Condition condition) const;
};

void ScriptedServer::Impl::listen()
{
    directory = temporaryDirectory() + "/scripted.XXXXXX";
    VNT_CHECK(::mkdtemp(directory.data()) != nullptr);
    const std::string path = directory + "/server";
    url = "unix:" + path;
    auto socket = sys::listenUnix(path, SOCK_STREAM, 16);
    VNT_CHECK(socket.ok());
    listener = socket.take();
    acceptor = std::thread([this] { acceptAll(); });
}

void ScriptedServer::Impl::acceptAll()
{
    for (;;) {
        auto socket = sys::acceptOne(listener.get(), std::chrono::milliseconds(-1));
        if (!socket.ok())
            return; // stopListening() shut the listener down
        MutexLock guard(lock);
        Connection& connection = connections.emplace_back(socket.take());
        connection.thread = std::thread([this, &connection] { serve(connection); });
    }
}

void ScriptedServer::Impl::serve(Connection& connection)
{
    queue::FrameReader reader(connection.socket.get(), queue::Direction::kToServer);
    for (;;) {
        const auto frame = reader.next();
        if (!frame.ok() || !handle(connection, frame.value()))
            break;
    }
    queue::shutdownSocket(connection.socket.get());
    MutexLock guard(lock);
    connection.ended = true;
    lines.emplace_back("end");
    changed.notifyAll();
}

bool ScriptedServer::Impl::handle(Connection& connection, const Frame& frame)
{
    const std::string text(reinterpret_cast<const char*>(frame.payload.data()), frame.payload.size());
    const uint32_t channel = frame.header.channel;
    switch (frame.header.kind) {
    case FrameKind::kHello:
        return true;
    case FrameKind::kOpen: {
        {
            MutexLock guard(connection.sending);
            connection.services[channel] = text;
            connection.open[text] = channel;
        }
        note("open " + text);
        return true;
    }
    case FrameKind::kClose: {
        std::string name;
        {
            MutexLock guard(connection.sending);
            name = connection.services[channel];
            const auto entry = connection.open.find(name);
            if (entry != connection.open.end() && entry->second == channel)
                connection.open.erase(entry);
        }
        note("close " + name);
        return true;
    }
    case FrameKind::kHardStop:
        note("hard stop");
        return false;
    default:
        return handleCall(connection, frame);
    }
}

bool ScriptedServer::Impl::handleCall(Connection& connection, const Frame& frame)
{
    const auto call = queue::decodeCall(frame.payload);
    VNT_CHECK(call.ok()); // our own client sent it
    std::string service;
    {
        MutexLock guard(connection.sending);
        service = connection.services[frame.header.channel];
    }
    const std::string& selector = call.value().selector;
    note((frame.header.kind == FrameKind::kCall ? "call " : "send ") + service + " " + selector + " "
         + described(*call.value().arguments));
    const Answer answer = answerFor(service, selector);
    if (answer.block)
        answer.block();
    if (answer.isHeld)
        waitForRelease(selector);
    return give(connection, answer, frame.header);
}

bool ScriptedServer::Impl::give(Connection& connection, const Answer& answer, const FrameHeader& request)
{
    MutexLock guard(connection.sending);
    const auto pushAll = [&](const std::vector<Push>& pushes) {
        for (const Push& push : pushes) {
            const auto other = connection.open.find(push.service);
            sendPush(connection.socket.get(), push, other == connection.open.end() ? request.channel : other->second);
        }
    };
    pushAll(answer.pushesBefore);
    const bool goOn = sendAnswer(connection.socket.get(), answer, request);
    pushAll(answer.pushesAfter);
    return goOn;
}

Answer ScriptedServer::Impl::answerFor(const std::string& service, const std::string& selector)
{
    MutexLock guard(lock);
    auto queued = next.find(selector);
    if (queued != next.end() && !queued->second.empty()) {
        Answer answer = std::move(queued->second.front());
        queued->second.pop_front();
        return answer;
    }
    for (const std::string& key : {service + " " + selector, selector}) {
        const auto entry = table.find(key);
        if (entry != table.end())
            return entry->second;
    }
    return Answer::object(nullptr);
}

void ScriptedServer::Impl::waitForRelease(const std::string& selector)
{
    MutexLock guard(lock);
    while (!stopping && released[selector] == 0)
        changed.wait(guard);
    --released[selector];
}

void ScriptedServer::Impl::note(std::string line)
{
    MutexLock guard(lock);
    lines.push_back(std::move(line));
    changed.notifyAll();
}

template <typename Condition> bool ScriptedServer::Impl::waitUntil(MutexLock& held, Condition condition) const
{
    for (const auto until = deadline(); !condition();) {
        if (!changed.waitUntil(held, until) && !condition())
            return false;
    }
    return true;
}

ScriptedServer::ScriptedServer() : _impl(std::make_unique<Impl>()) { _impl->listen(); }

ScriptedServer::~ScriptedServer()
{
    {
        MutexLock guard(_impl->lock);
        _impl->stopping = true;
        _impl->changed.notifyAll();
    }
    stopListening();
    closeConnections();
    for (Impl::Connection& connection : _impl->connections)
        connection.thread.join();
    (void)removeTree(_impl->directory); // the test's private directory goes at the end anyway
}

const std::string& ScriptedServer::address() const { return _impl->url; }

void ScriptedServer::on(const std::string& selector, Answer answer)
{
    MutexLock guard(_impl->lock);
    _impl->table.insert_or_assign(selector, std::move(answer));
}

void ScriptedServer::on(const std::string& service, const std::string& selector, Answer answer)
{
    on(service + " " + selector, std::move(answer));
}

void ScriptedServer::once(const std::string& selector, Answer answer)
{
    MutexLock guard(_impl->lock);
    _impl->next[selector].push_back(std::move(answer));
}

void ScriptedServer::release(const std::string& selector)
{
    MutexLock guard(_impl->lock);
    ++_impl->released[selector];
    _impl->changed.notifyAll();
}

bool ScriptedServer::push(const Push& push)
{
    Impl::Connection* target = nullptr;
    {
        MutexLock guard(_impl->lock);
        const bool found = _impl->waitUntil(guard, [&] {
            for (auto entry = _impl->connections.rbegin(); entry != _impl->connections.rend() && !target; ++entry) {
                MutexLock sending(entry->sending);
                if (!entry->ended && entry->open.count(push.service) != 0)
                    target = &*entry;
            }
            return target != nullptr;
        });
        if (!found)
            return false;
    }
    MutexLock sending(target->sending);
    const auto open = target->open.find(push.service);
    if (open == target->open.end())
        return false;
    sendPush(target->socket.get(), push, open->second);
    return true;
}

void ScriptedServer::closeConnections()
{
    MutexLock guard(_impl->lock);
    for (Impl::Connection& connection : _impl->connections)
        queue::shutdownSocket(connection.socket.get());
}

void ScriptedServer::stopListening()
{
    if (!_impl->acceptor.joinable())
        return;
    queue::shutdownSocket(_impl->listener.get());
    _impl->acceptor.join();
    _impl->listener.reset();
}

std::vector<std::string> ScriptedServer::transcript() const
{
    MutexLock guard(_impl->lock);
    return _impl->lines;
}

void ScriptedServer::clearTranscript()
{
    MutexLock guard(_impl->lock);
    _impl->lines.clear();
}

bool ScriptedServer::waitFor(const std::string& line) const
{
    MutexLock guard(_impl->lock);
    return _impl->waitUntil(
        guard, [&] { return std::find(_impl->lines.begin(), _impl->lines.end(), line) != _impl->lines.end(); });
}

bool ScriptedServer::waitForLines(size_t lines) const
{
    MutexLock guard(_impl->lock);
    return _impl->waitUntil(guard, [&] { return _impl->lines.size() >= lines; });
}

} // namespace vnt::test
