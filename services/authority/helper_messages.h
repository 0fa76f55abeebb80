#pragma once

#include <Vantora/Authorization.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/base/ByteCursor.h"
#include "platform/base/ByteWriter.h"

/// What the authority and its helper processes say to each other: one packet with an order, one with the result. Both
/// ends are the same program; the result of a prompt comes from a process of the asking user and is checked like any
/// stranger's.
namespace vnt {

inline constexpr const char* kCheckMode = "--check-credentials";
inline constexpr const char* kAskMode = "--ask-user";
inline constexpr int kHelperSocket = 3;
inline constexpr size_t kMaxHelperPacketBytes = size_t{64} * 1024;

/// Is the password that of the user, may the user log in, is the user in one of the groups?
struct CheckOrder {
    std::string asker; ///< the asking user's number, for PAM's log
    std::string userName, password;
    std::string pamDirectory; ///< empty: the system's
    std::vector<std::string> groups;

    CheckOrder() = default;
    CheckOrder(CheckOrder&&) = default;
    ~CheckOrder();
    void write(ByteWriter& writer) const;
    static CheckOrder read(ByteCursor& cursor);
};

struct CheckResult {
    bool isGranted = false;
    std::string userName; ///< as the machine knows it
    uint32_t user = 0;
    std::vector<std::string> groups;

    void write(ByteWriter& writer) const;
    static CheckResult read(ByteCursor& cursor);
};

/// Ask the user at `process` for the password of `userName`; an empty name is asked for too unless the user itself is
/// in one of the groups.
struct AskOrder {
    uint32_t user = 0, group = 0;
    int32_t process = 0;
    std::string userName, text, problem, pinentry;
    std::vector<std::string> groups;

    void write(ByteWriter& writer) const;
    static AskOrder read(ByteCursor& cursor);
};

struct AskResult {
    OSStatus status = errAuthorizationInteractionNotAllowed;
    std::string userName, password;

    AskResult() = default;
    AskResult(AskResult&&) = default;
    AskResult& operator=(AskResult&&) = default;
    ~AskResult();
    void write(ByteWriter& writer) const;
    static AskResult read(ByteCursor& cursor);
};

/// Overwrites a text's whole memory, also what a shorter content left unused.
void wipe(std::string& text);

} // namespace vnt
