#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "platform/base/Check.h"

namespace vnt {

enum class Code {
    kOk,
    kInvalid, ///< bad argument or malformed input
    kCorrupt, ///< data that was whole once and no longer is
    kTooLarge, ///< passes a named limit
    kNotFound,
    kExists,
    kDenied, ///< refused by permissions or authorization
    kPeerGone, ///< the other process ended or closed
    kTimedOut,
    kCancelled,
    kSystem, ///< a system call failed; errnoValue() tells which error
    kUnsupported,
};

/// Outcome of an operation without a value. The message is written where the detail is known.
class [[nodiscard]] Status {
public:
    Status() = default;
    Status(Code code, std::string message, int errnoValue = 0)
        : _code(code),
          _errno(errnoValue),
          _message(std::move(message))
    {
    }

    /// "what: error text" with a code derived from `errnoValue` (ENOENT: kNotFound, EACCES/EPERM: kDenied,
    /// EPIPE/ECONNRESET: kPeerGone, EEXIST: kExists, ETIMEDOUT: kTimedOut, else kSystem).
    static Status fromErrno(int errnoValue, const std::string& what);

    [[nodiscard]] bool ok() const { return _code == Code::kOk; }
    [[nodiscard]] Code code() const { return _code; }
    [[nodiscard]] int errnoValue() const { return _errno; }
    [[nodiscard]] const std::string& message() const { return _message; }

private:
    Code _code = Code::kOk;
    int _errno = 0;
    std::string _message;
};

/// A value or the Status that says why there is none.
template <typename T> class [[nodiscard]] Result {
public:
    Result(T value) : _value(std::move(value)) { }
    Result(Status status) : _value(std::move(status)) { VNT_CHECK(!std::get<Status>(_value).ok()); }

    [[nodiscard]] bool ok() const { return _value.index() == 0; }
    [[nodiscard]] T& value()
    {
        VNT_CHECK(ok());
        return std::get<0>(_value);
    }
    [[nodiscard]] const T& value() const
    {
        VNT_CHECK(ok());
        return std::get<0>(_value);
    }
    [[nodiscard]] T take() { return std::move(value()); }
    [[nodiscard]] Status status() const { return ok() ? Status() : std::get<1>(_value); }
    [[nodiscard]] Code code() const { return ok() ? Code::kOk : std::get<1>(_value).code(); }

private:
    std::variant<T, Status> _value;
};

} // namespace vnt

#define VNT_CONCAT_INNER(a, b) a##b
#define VNT_CONCAT(a, b) VNT_CONCAT_INNER(a, b)

#define RETURN_IF_ERROR(expression)                                                                                    \
    do {                                                                                                               \
        ::vnt::Status vntStatus = (expression);                                                                        \
        if (!vntStatus.ok())                                                                                           \
            return vntStatus;                                                                                          \
    } while (false)

#define ASSIGN_OR_RETURN(declaration, expression)                                                                      \
    ASSIGN_OR_RETURN_INNER(declaration, expression, VNT_CONCAT(vntResult, __LINE__))
#define ASSIGN_OR_RETURN_INNER(declaration, expression, result)                                                        \
    auto result = (expression);                                                                                        \
    if (!result.ok())                                                                                                  \
        return result.status();                                                                                        \
    declaration = result.take()
