#pragma once

#include <Vantora/Authorization.h>

#include <string_view>

#include "platform/base/ByteCursor.h"
#include "platform/base/ByteWriter.h"

/// Requests to the authority and its answers, one packet each (docs/protocol-ports.md). A connection is a reference:
/// it begins empty and ends with the connection.
namespace vnt {

inline constexpr const char* kAuthorityServiceName = "quillon.authority";
inline constexpr uint32_t kAuthorityMagic = 0x54554156; // "VAUT"
inline constexpr uint16_t kAuthorityVersion = 1;

enum class AuthorityRequest : uint16_t {
    kCopyRights = 1, ///< flags, rights, environment -> granted rights
    kMakeForm = 2, ///< -> 32 bytes
    kGetRight = 3, ///< name -> definition as a binary property list
    kSetRight = 4, ///< name, definition
    kCheckForm = 5, ///< 32 bytes, uid, right; for servers
    kDestroyRights = 6 ///< the rights held are given up
};

// What a request may hold: a handful of rights, a name, a password, a prompt.
inline constexpr uint32_t kMaxAuthorizationItems = 64;
inline constexpr size_t kMaxAuthorizationNameBytes = 255;
inline constexpr size_t kMaxAuthorizationValueBytes = 4096;
inline constexpr size_t kMaxRightDefinitionBytes = size_t{32} * 1024;
inline constexpr size_t kMaxAuthorityPacketBytes = size_t{64} * 1024;

/// One item of a set in a received packet; the views are into the packet.
struct AuthorizationItemView {
    std::string_view name, value;
    uint32_t flags = 0;
};

/// A request or answer being written. It may hold a password: the memory never moves while it grows, and is wiped.
class AuthorityPacket {
public:
    AuthorityPacket() { _writer.reserve(kMaxAuthorityPacketBytes); }
    ~AuthorityPacket();
    AuthorityPacket(const AuthorityPacket&) = delete;
    AuthorityPacket& operator=(const AuthorityPacket&) = delete;

    void beginRequest(AuthorityRequest request);
    void beginAnswer(uint16_t request, OSStatus status);
    ByteWriter& body() { return _writer; }
    /// False when the set, which may be null, is past a limit or has an item without a name.
    [[nodiscard]] bool addItems(const AuthorizationItemSet* set);
    [[nodiscard]] std::span<const std::byte> bytes() const { return _writer.view(); }

private:
    ByteWriter _writer;
};

/// Reads a set; the cursor has failed afterwards when it was damaged.
std::vector<AuthorizationItemView> readItems(ByteCursor& cursor);

} // namespace vnt
