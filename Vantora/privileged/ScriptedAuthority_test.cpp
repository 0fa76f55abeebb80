#include "Vantora/privileged/ScriptedAuthority_test.h"

#include "platform/base/sys.h"
#include "platform/foundation/PropertyList.h"

namespace vnt::test {
namespace {

std::string textOf(const Object& value)
{
    if (const auto text = as<String>(&value))
        return text->str();
    const auto number = as<Number>(&value);
    if (!number)
        return "?";
    return number->isBool() ? (number->boolValue() ? "true" : "false") : std::to_string(number->int64Value());
}

std::string textOf(const std::vector<AuthorizationItemView>& items)
{
    std::string text;
    for (const AuthorizationItemView& item : items) {
        text += (text.empty() ? "" : ", ") + std::string(item.name);
        if (!item.value.empty())
            text += "=" + std::string(item.value);
        if (item.flags != 0)
            text += " flags " + std::to_string(item.flags);
    }
    return text;
}

std::string textOfDefinition(std::span<const std::byte> bytes)
{
    const auto list = readPropertyList(bytes);
    const auto definition = list.ok() ? as<Dictionary>(list.value()) : nullptr;
    if (!definition)
        return "?";
    std::string text;
    for (const auto& [key, value] : definition->entries())
        text += (text.empty() ? "" : ", ") + textOf(*key) + ": " + textOf(*value);
    return "{" + text + "}";
}

} // namespace

ScriptedAuthority::ScriptedAuthority(Namespace which, Script script) : _script(std::move(script))
{
    PacketServer::Options options;
    options.arguments.which = which;
    options.name = kAuthorityServiceName;
    options.idleExit = std::chrono::milliseconds(-1);
    PacketServer::Handlers handlers;
    handlers.wipesPackets = true;
    handlers.onPacket = [this](PacketServer::ConnectionId id, const sys::PeerCredentials&, Packet& packet) {
        onPacket(id, packet);
    };
    _server = PacketServer::open(std::move(options), std::move(handlers)).take();
}

void ScriptedAuthority::start()
{
    const sys::SignalBlock block;
    _thread = std::thread([this] { (void)_server->run(); });
}

ScriptedAuthority::~ScriptedAuthority()
{
    _server->stop();
    if (_thread.joinable())
        _thread.join();
}

std::vector<std::string> ScriptedAuthority::transcript()
{
    MutexLock lock(_mutex);
    return std::move(_transcript);
}

void ScriptedAuthority::note(std::string line)
{
    MutexLock lock(_mutex);
    _transcript.push_back(std::move(line));
}

void ScriptedAuthority::onPacket(PacketServer::ConnectionId id, const Packet& packet)
{
    ByteCursor cursor(packet.bytes);
    (void)cursor.bytes(6, 6); // magic and version
    const auto request = static_cast<AuthorityRequest>(cursor.little<uint16_t>());
    OSStatus status = errAuthorizationSuccess;
    ByteWriter body;
    if (request == AuthorityRequest::kGetRight) {
        note("get " + std::string(cursor.text(255)));
        status = _script.definition ? errAuthorizationSuccess : errAuthorizationDenied;
        if (_script.definition) {
            const auto bytes = writePropertyList(*_script.definition, PropertyListFormat::kBinary).take();
            body.raw(bytes.data(), bytes.size());
        }
    } else if (request == AuthorityRequest::kSetRight) {
        const std::string name(cursor.text(255));
        note("set " + name + " " + textOfDefinition(cursor.bytes(cursor.remaining(), cursor.remaining())));
        status = _script.setStatus;
    } else if (request == AuthorityRequest::kCopyRights) {
        const auto flags = cursor.little<uint32_t>();
        const std::string rights = textOf(readItems(cursor));
        note("copy [" + rights + "] (" + textOf(readItems(cursor)) + ") " + std::to_string(flags));
        if (!_script.copyStatuses.empty()) {
            status = _script.copyStatuses.front();
            _script.copyStatuses.pop_front();
        }
        body.little(static_cast<uint32_t>(_script.granted.size()));
        for (const std::string& right : _script.granted) {
            body.text(right);
            body.little(uint32_t{0});
            body.text("");
        }
    } else {
        note(request == AuthorityRequest::kDestroyRights ? "destroy" : "?");
    }
    AuthorityPacket answer;
    answer.beginAnswer(static_cast<uint16_t>(request), status);
    if (status == errAuthorizationSuccess)
        answer.body().raw(body.view().data(), body.size());
    (void)_server->send(id, answer.bytes());
}

Ref<MutableDictionary> currentDefinition(int timeoutSec)
{
    return MutableDictionary::copyOf(*Dictionary::create({{String::create("timeout"), Number::withInt(timeoutSec)},
                                                          {String::create("allow-root"), Number::withBool(true)}}));
}

} // namespace vnt::test
