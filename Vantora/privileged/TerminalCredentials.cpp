#include "Vantora/privileged/TerminalCredentials.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "platform/base/UniqueFd.h"

namespace vnt {
namespace {

/// One line of at most `size - 1` characters with its end, as fgets() would read it, but byte by byte from the
/// descriptor: a stdio buffer would keep a copy of what was typed. Returns how many were read; a NUL follows them.
size_t readLine(int fd, char* line, size_t size)
{
    size_t length = 0;
    while (length < size - 1) {
        char c = 0;
        if (TEMP_FAILURE_RETRY(::read(fd, &c, 1)) <= 0)
            break;
        line[length++] = c;
        if (c == '\n')
            break;
    }
    line[length] = '\0';
    return length;
}

void show(int fd, const char* text) { (void)TEMP_FAILURE_RETRY(::write(fd, text, ::strlen(text))); }

/// Nothing typed is shown, and no key makes a signal that would leave the terminal so, while this lives. What was
/// typed ahead is dropped, as is the rest of a name that was too long.
class QuietTerminal {
public:
    explicit QuietTerminal(int fd) : _fd(fd), _changed(::tcgetattr(fd, &_before) == 0)
    {
        if (!_changed)
            return;
        termios quiet = _before;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
        _changed = TEMP_FAILURE_RETRY(::tcsetattr(_fd, TCSAFLUSH, &quiet)) == 0;
    }
    ~QuietTerminal()
    {
        if (_changed)
            (void)TEMP_FAILURE_RETRY(::tcsetattr(_fd, TCSAFLUSH, &_before)); // the terminal may be gone
    }
    QuietTerminal(const QuietTerminal&) = delete;
    QuietTerminal& operator=(const QuietTerminal&) = delete;
    [[nodiscard]] bool isQuiet() const { return _changed; }

private:
    int _fd;
    termios _before{};
    bool _changed;
};

} // namespace

TerminalCredentials::TerminalCredentials(const char* prompt)
{
    char* loginName = ::getlogin();
    std::fprintf(stderr, "%s: %s Type your password to allow this.\n", ::program_invocation_short_name, prompt);
    if (loginName)
        std::fprintf(stderr, "Name (%s): ", loginName);
    else
        std::fprintf(stderr, "Name: ");
    readUser(loginName);
    readPassword();
    std::fputc('\n', stderr);
}

void TerminalCredentials::readUser(char* loginName)
{
    char line[kNameBytes];
    const size_t length = readLine(STDIN_FILENO, line, sizeof line);
    if (length == 0)
        return;
    if (line[0] == '\n') {
        _user = loginName;
        return;
    }
    line[length - 1] = '\0'; // the last character goes, line end or not
    _user = ::strdup(line);
    if (!_user)
        std::abort();
    ::explicit_bzero(line, length);
    _duplicated = true;
}

/// Like getpass(3), but for its copies: a stream's buffer, and memory it gave back as a long line grew.
void TerminalCredentials::readPassword()
{
    const UniqueFd terminal(static_cast<int>(TEMP_FAILURE_RETRY(::open("/dev/tty", O_RDWR | O_CLOEXEC))));
    const int input = terminal ? terminal.get() : STDIN_FILENO;
    const int output = terminal ? terminal.get() : STDERR_FILENO;
    const QuietTerminal quiet(input);
    show(output, "Password: ");
    const size_t length = readLine(input, _password, sizeof _password);
    _hasPassword = length > 0;
    if (_hasPassword && _password[length - 1] == '\n')
        _password[length - 1] = '\0';
    if (quiet.isQuiet())
        show(output, "\n"); // the one that was typed was not shown
}

TerminalCredentials::~TerminalCredentials()
{
    if (_user)
        ::explicit_bzero(_user, ::strlen(_user)); // also the login name, in place
    ::explicit_bzero(_password, sizeof _password);
    if (_duplicated)
        ::free(_user);
}

} // namespace vnt
