#include "platform/authorization/AuthorityClient.h"

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr std::chrono::seconds kAnswerPatience{30};
// A wrong password costs a second, by intent, and a directory service that is down some twenty.
constexpr std::chrono::seconds kCheckPatience{300};

} // namespace

std::unique_ptr<AuthorityClient> AuthorityClient::connect(Namespace which)
{
    auto connection = connectToService(which, kAuthorityServiceName);
    if (!connection.ok())
        return nullptr;
    return std::unique_ptr<AuthorityClient>(new AuthorityClient(connection.take()));
}

AuthorityClient::Answer AuthorityClient::exchange(AuthorityRequest request, const AuthorityPacket& packet,
                                                  Patience patience)
{
    Answer answer;
    Deadline deadline;
    if (patience != Patience::kUser)
        deadline =
            std::chrono::steady_clock::now() + (patience == Patience::kAnswer ? kAnswerPatience : kCheckPatience);
    MutexLock lock(_mutex);
    if (!_connection)
        return answer;
    const auto bytes = packet.bytes();
    const iovec part{const_cast<std::byte*>(bytes.data()), bytes.size()}; // only read
    if (!sendPacket(_connection.get(), {&part, 1}, {}, deadline).ok() || !awaitAnswer(request, deadline, answer)) {
        // An answer that comes later would be taken for that of the next request.
        _connection.reset();
        return Answer();
    }
    return answer;
}

bool AuthorityClient::awaitAnswer(AuthorityRequest request, const Deadline& deadline, Answer& answer)
{
    ReceiveOutcome outcome = ReceiveOutcome::kNothing;
    while (outcome == ReceiveOutcome::kNothing) {
        pollfd ready{_connection.get(), POLLIN, 0};
        const auto count = sys::pollFds({&ready, 1}, timeLeft(deadline));
        if (!count.ok() || count.value() == 0)
            return false;
        outcome = tryReceivePacket(_connection.get(), kMaxAuthorityPacketBytes, answer.packet);
    }
    if (outcome != ReceiveOutcome::kPacket || !answer.packet.descriptors.empty())
        return false;
    ByteCursor cursor(answer.packet.bytes);
    const auto magic = cursor.little<uint32_t>();
    const auto version = cursor.little<uint16_t>();
    const auto answered = cursor.little<uint16_t>();
    answer.status = cursor.little<int32_t>();
    answer.body = cursor;
    return !cursor.failed() && magic == kAuthorityMagic && version == kAuthorityVersion
        && answered == static_cast<uint16_t>(request);
}

} // namespace vnt
