#include "Vantora/privileged/DaemonRpc.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "Vantora/privileged/RoutineExchange.h"

namespace vnt {
namespace {

constexpr mach_msg_size_t kCreateServerReceiveLimit = 32052;

union CreateServerMessage {
    CreateServerRequest<NativeAddress> request;
    CreateServerReply reply;
    char room[kCreateServerReceiveLimit];
};

kern_return_t checkCreateServerReply(const CreateServerReply& reply)
{
    if (reply.header.msgh_bits & MACH_MSGH_BITS_COMPLEX)
        return MIG_TYPE_ERROR;
    const uint32_t size = reply.header.msgh_size;
    const bool whole = size >= kAddressReplyFixedBytes && size <= kAddressReplyFixedBytes + kMaxRoutineTextBytes;
    if (!whole && size != sizeof(StatusReply))
        return MIG_TYPE_ERROR;
    const int32_t returnCode = inLocalOrder(reply.returnCode, reply.ndr);
    if (returnCode != KERN_SUCCESS)
        return returnCode;
    if (!whole)
        return MIG_TYPE_ERROR;
    const uint32_t count = inLocalOrder(reply.addressCount, reply.ndr);
    if (count > kMaxRoutineTextBytes || size != kAddressReplyFixedBytes + roundedToWord(count))
        return MIG_TYPE_ERROR;
    return KERN_SUCCESS;
}

/// The exchange; on success `address` is the text in the message's memory, at most 32,000 bytes.
kern_return_t askForServer(CreateServerMessage& message, mach_port_t server, const char* authorization, uint32_t length,
                           const char* name, std::string_view& address)
{
    auto& request = message.request;
    beginRoutine(request.header, server, kCreateServerId);
    request.body.msgh_descriptor_count = 1;
    request.authorization = outOfLine(authorization, length);
    request.ndr = NDR_record;
    request.authorizationCount = length;
    request.nameCount = static_cast<uint32_t>(mig_strncpy(request.name, name, kMaxRoutineTextBytes));
    const auto sendSize =
        static_cast<mach_msg_size_t>(kNameRequestFixedBytes<NativeAddress> + roundedToWord(request.nameCount));
    const kern_return_t status = exchangeRoutine(&request.header, sendSize, kCreateServerReceiveLimit, kCreateServerId);
    if (status != KERN_SUCCESS)
        return status;
    const CreateServerReply& reply = message.reply;
    const kern_return_t shape = checkCreateServerReply(reply);
    if (shape != KERN_SUCCESS) {
        mach_msg_destroy(&message.reply.header);
        return shape;
    }
    // The text may come without its NUL; behind the count stand the remains of the request.
    address = {reply.address, ::strnlen(reply.address, inLocalOrder(reply.addressCount, reply.ndr))};
    return KERN_SUCCESS;
}

} // namespace

kern_return_t createServer(mach_port_t server, const char* authorization, uint32_t length, const char* name,
                           char* address, uint32_t addressBytes)
{
    const auto message = std::make_unique<CreateServerMessage>();
    std::string_view text;
    const kern_return_t status = askForServer(*message, server, authorization, length, name, text);
    if (status != KERN_SUCCESS)
        return status;
    if (text.size() >= addressBytes)
        return KERN_RESOURCE_SHORTAGE;
    std::memcpy(address, text.data(), text.size());
    address[text.size()] = '\0';
    return KERN_SUCCESS;
}

} // namespace vnt

extern "C" kern_return_t create_server(mach_port_t server, const char* authorization, uint32_t length, const char* name,
                                       char* address)
{
    using namespace vnt;
    const std::unique_ptr<CreateServerMessage> message(new (std::nothrow) CreateServerMessage{});
    if (!message)
        return KERN_RESOURCE_SHORTAGE;
    std::string_view text;
    const kern_return_t status = askForServer(*message, server, authorization, length, name, text);
    if (status != KERN_SUCCESS)
        return status;
    // As mig_strncpy does it: a text without room for its NUL loses its last byte.
    const size_t copied = std::min<size_t>(text.size(), kMaxRoutineTextBytes - 1);
    std::memcpy(address, text.data(), copied);
    address[copied] = '\0';
    return KERN_SUCCESS;
}
