#pragma once

#include "platform/foundation/Collections.h"

namespace vnt {

inline constexpr std::string_view kLocalizedDescriptionKey = "NSLocalizedDescription";

/// Error object: domain, code, user information.
class Error final : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kError;
    [[nodiscard]] static Ref<Error> create(Ref<String> domain, int64_t code, Ref<Dictionary> userInfo);
    /// Domain "NSPOSIXErrorDomain", the errno value, and its text as the description.
    [[nodiscard]] static Ref<Error> fromErrno(int errnoValue, std::string_view message);

    [[nodiscard]] const Ref<String>& domain() const { return _domain; }
    [[nodiscard]] int64_t code() const { return _code; }
    [[nodiscard]] const Ref<Dictionary>& userInfo() const { return _userInfo; }
    /// The localized-description entry, or "domain error code" without one.
    [[nodiscard]] Ref<String> localizedDescription() const;
    [[nodiscard]] std::string description() const override;

private:
    VNT_MAKE_REF_FRIEND;
    Error(Ref<String> domain, int64_t code, Ref<Dictionary> userInfo)
        : Object(kTypeId),
          _domain(std::move(domain)),
          _code(code),
          _userInfo(std::move(userInfo))
    {
    }
    const Ref<String> _domain;
    const int64_t _code;
    const Ref<Dictionary> _userInfo;
};

/// The one C++ exception of ours: raised by a synchronous remote call when the peer raised, the connection
/// broke or the wait was given up. Caught exactly where the session has something to say about it.
class Exception {
public:
    Exception(std::string name, std::string reason) : _name(std::move(name)), _reason(std::move(reason)) { }
    [[nodiscard]] const std::string& name() const { return _name; }
    /// What "%@" shows of it.
    [[nodiscard]] const std::string& reason() const { return _reason; }

private:
    std::string _name;
    std::string _reason;
};

} // namespace vnt
