#pragma once

#include <cstddef>

namespace vnt {

/// A name and a password typed on the terminal. Both are overwritten with zero bytes when this goes, and no stdio
/// buffer ever holds one. Blocks the calling thread while the user types; throws nothing.
class TerminalCredentials {
public:
    /// Shows `prompt` and asks for both: the name on standard error and input, the password on the terminal itself
    /// (standard input when the process has none) without echo.
    explicit TerminalCredentials(const char* prompt);
    ~TerminalCredentials();
    TerminalCredentials(const TerminalCredentials&) = delete;
    TerminalCredentials& operator=(const TerminalCredentials&) = delete;

    /// Null when nothing was entered and there is no login name.
    [[nodiscard]] const char* user() const { return _user; }
    /// Null when the input ended before one was entered; an empty line is an empty password.
    [[nodiscard]] const char* password() const { return _hasPassword ? _password : nullptr; }

private:
    static constexpr size_t kNameBytes = 255;
    // One line of a terminal is at most as long (N_TTY_BUF_SIZE of the kernel's line discipline).
    static constexpr size_t kPasswordBytes = 4096;

    void readUser(char* loginName);
    void readPassword();

    char* _user = nullptr;
    bool _duplicated = false; // else the login name, in its own place
    bool _hasPassword = false;
    char _password[kPasswordBytes] = {};
};

} // namespace vnt
