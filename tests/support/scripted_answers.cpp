#include "tests/support/scripted_answers.h"

#include "platform/base/Check.h"
#include "platform/messagequeue/sockets.h"

namespace vnt::test {

using queue::FrameHeader;
using queue::FrameKind;

Push Push::data(std::string bytes, std::string service)
{
    return {Kind::kData, std::move(service), std::move(bytes), {}, {}};
}

Push Push::callback(std::string selector, std::vector<Ref<Object>> arguments, std::string service)
{
    return {Kind::kCallback, std::move(service), std::move(selector), {}, std::move(arguments)};
}

Push Push::exception(std::string name, std::string reason, std::string service)
{
    return {Kind::kException, std::move(service), std::move(name), std::move(reason), {}};
}

Answer Answer::object(Ref<Object> object)
{
    Answer answer;
    answer.value = std::move(object);
    return answer;
}

Answer Answer::exception(std::string name, std::string reason)
{
    Answer answer = of(Kind::kException);
    answer.name = std::move(name);
    answer.reason = std::move(reason);
    return answer;
}

Answer Answer::of(Kind kind)
{
    Answer answer;
    answer.kind = kind;
    return answer;
}

Answer Answer::before(Push push) &&
{
    pushesBefore.push_back(std::move(push));
    return std::move(*this);
}

Answer Answer::after(Push push) &&
{
    pushesAfter.push_back(std::move(push));
    return std::move(*this);
}

Answer Answer::held() &&
{
    isHeld = true;
    return std::move(*this);
}

Answer Answer::running(std::function<void()> code) &&
{
    block = std::move(code);
    return std::move(*this);
}

namespace {

std::span<const std::byte> bytesOf(const std::string& text)
{
    return std::as_bytes(std::span(text.data(), text.size()));
}

FrameHeader headerOf(FrameKind kind, uint32_t channel, uint32_t id, size_t payloadBytes)
{
    return {.payloadBytes = static_cast<uint32_t>(payloadBytes), .kind = kind, .channel = channel, .id = id};
}

void sendFrame(int socket, const FrameHeader& header, std::span<const std::byte> payload)
{
    iovec parts[] = {queue::part(std::as_bytes(std::span(&header, 1))), queue::part(payload)};
    (void)queue::sendFully(socket, parts); // a client that has gone is seen by the next read
}

} // namespace

void sendPush(int socket, const Push& push, uint32_t channel)
{
    switch (push.kind) {
    case Push::Kind::kData:
        sendFrame(socket, headerOf(FrameKind::kData, channel, 0, push.text.size()), bytesOf(push.text));
        return;
    case Push::Kind::kCallback: {
        const auto payload = queue::encodeCall(push.text, push.arguments);
        VNT_CHECK(payload.ok());
        sendFrame(socket, headerOf(FrameKind::kCallback, channel, 0, payload.value().size()), payload.value());
        return;
    }
    case Push::Kind::kException: {
        const auto payload = queue::encodeException(Exception(push.text, push.reason));
        sendFrame(socket, headerOf(FrameKind::kException, channel, 0, payload.size()), payload);
        return;
    }
    }
}

bool sendAnswer(int socket, const Answer& answer, const FrameHeader& request)
{
    const uint32_t channel = request.channel;
    switch (answer.kind) {
    case Answer::Kind::kNone:
        return true;
    case Answer::Kind::kClose:
        return false;
    case Answer::Kind::kException: {
        const auto payload = queue::encodeException(Exception(answer.name, answer.reason));
        sendFrame(socket, headerOf(FrameKind::kException, channel, request.id, payload.size()), payload);
        return true;
    }
    case Answer::Kind::kGarbage: {
        const std::string garbage(64, '\x5a');
        sendFrame(socket, headerOf(FrameKind{0x5a5a}, channel, request.id, garbage.size()), bytesOf(garbage));
        return true;
    }
    case Answer::Kind::kOversizedLength:
        sendFrame(socket, headerOf(FrameKind::kReply, channel, request.id, 0xfffffff0U), {});
        return true;
    case Answer::Kind::kMalformedObject: {
        const std::string text = "bplist00 and then nothing of the kind";
        sendFrame(socket, headerOf(FrameKind::kReply, channel, request.id, text.size()), bytesOf(text));
        return true;
    }
    case Answer::Kind::kTornReply:
        sendFrame(socket, headerOf(FrameKind::kReply, channel, request.id, 100), bytesOf(std::string(50, 'x')));
        return false;
    case Answer::Kind::kObject:
    case Answer::Kind::kWrongId: {
        if (request.id == 0)
            return true; // one-way
        const auto payload = queue::encodeAnswer(answer.value.get());
        VNT_CHECK(payload.ok());
        const uint32_t id = answer.kind == Answer::Kind::kWrongId ? request.id + 1000 : request.id;
        sendFrame(socket, headerOf(FrameKind::kReply, channel, id, payload.value().size()), payload.value());
        return true;
    }
    }
    VNT_UNREACHABLE();
}

} // namespace vnt::test
