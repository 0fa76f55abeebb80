#include "services/authority/Pinentry.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "platform/base/sys.h"
#include "services/authority/helper_messages.h" // wipe()

namespace vnt {
namespace {

constexpr size_t kMaxLineBytes = 1000; // of the Assuan protocol, the line end not counted
constexpr int kMaxLinesPerAnswer = 64; // status lines and comments may come before the end
constexpr unsigned kErrorCodeMask = 0xffff; // the upper bits tell the source (gpg-error.h)
constexpr unsigned kCancelled = 99; // GPG_ERR_CANCELED
constexpr unsigned kFullyCancelled = 198; // GPG_ERR_FULLY_CANCELED

std::string escaped(const std::string& text)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '%' || byte < 0x20 || byte == 0x7f) {
            result += '%';
            result += kDigits[byte >> 4];
            result += kDigits[byte & 15];
        } else {
            result += c;
        }
    }
    return result;
}

void appendUnescaped(std::string_view text, std::string& result)
{
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned value = 0;
        const char* const end = text.data() + i + 3;
        if (text[i] == '%' && i + 2 < text.size() && std::from_chars(text.data() + i + 1, end, value, 16).ptr == end) {
            result += static_cast<char>(value);
            i += 2;
        } else {
            result += text[i];
        }
    }
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (const std::string& text : texts)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Result<Pinentry> Pinentry::start(const std::string& program, const std::vector<std::string>& environment)
{
    ASSIGN_OR_RETURN(auto input, sys::makePipe());
    ASSIGN_OR_RETURN(auto output, sys::makePipe());
    const std::vector<char*> variables = pointersTo(environment);
    char* const arguments[] = {const_cast<char*>(program.c_str()), nullptr};
    const pid_t child = ::fork();
    if (child == 0) {
        (void)::prctl(PR_SET_PDEATHSIG, SIGTERM); // the prompt goes with who asked
        // Its own end may stand where a standard file goes: both first to places above.
        const int in = ::fcntl(input.first.get(), F_DUPFD_CLOEXEC, 10);
        const int out = ::fcntl(output.second.get(), F_DUPFD_CLOEXEC, 10);
        if (::dup2(in, STDIN_FILENO) >= 0 && ::dup2(out, STDOUT_FILENO) >= 0) {
            (void)::signal(SIGPIPE, SIG_DFL);
            (void)::execve(program.c_str(), arguments, variables.data());
        }
        ::_exit(127);
    }
    if (child < 0)
        return Status::fromErrno(errno, "fork");
    Pinentry pinentry;
    pinentry._process = child;
    pinentry._input = std::move(input.second);
    pinentry._output = std::move(output.first);
    ASSIGN_OR_RETURN(const Answer greeting, pinentry.answer());
    if (!greeting.isOk)
        return Status(Code::kUnsupported, program + ": does not greet");
    return pinentry;
}

Pinentry::Pinentry(Pinentry&& other) noexcept
    : _process(std::exchange(other._process, -1)),
      _input(std::move(other._input)),
      _output(std::move(other._output))
{
}

Pinentry::~Pinentry()
{
    if (_process < 0)
        return;
    _input.reset();
    (void)::kill(_process, SIGTERM);
    while (::waitpid(_process, nullptr, 0) < 0 && errno == EINTR) { }
}

Result<std::string> Pinentry::readLine()
{
    std::string line;
    line.reserve(kMaxLineBytes + 1); // no copy is left behind as it grows
    for (char c = 0; line.size() <= kMaxLineBytes; line += c) {
        ASSIGN_OR_RETURN(const size_t count, sys::readSome(_output.get(), &c, 1));
        if (count == 0)
            return Status(Code::kPeerGone, "the prompt's program is gone");
        if (c == '\n')
            return line;
    }
    return Status(Code::kInvalid, "the prompt's program sends too long a line");
}

Result<Pinentry::Answer> Pinentry::answer()
{
    Answer result;
    result.data.reserve(kMaxLineBytes * 8);
    for (int i = 0; i < kMaxLinesPerAnswer; ++i) {
        ASSIGN_OR_RETURN(std::string line, readLine());
        const std::string_view text = line;
        const bool isData = text.substr(0, 2) == "D ";
        if (isData && result.data.size() + text.size() < kMaxLineBytes * 8)
            appendUnescaped(text.substr(2), result.data);
        const bool isError = text.substr(0, 4) == "ERR ";
        if (isError)
            (void)std::from_chars(text.data() + 4, text.data() + text.size(), result.error);
        result.isOk = text == "OK" || text.substr(0, 3) == "OK ";
        wipe(line);
        if (result.isOk || isError)
            return result;
    }
    return Status(Code::kInvalid, "the prompt's program does not come to an end");
}

Result<Pinentry::Answer> Pinentry::command(const std::string& line)
{
    std::string cut = line.substr(0, kMaxLineBytes);
    if (const size_t escape = cut.rfind('%'); escape != std::string::npos && escape + 3 > cut.size())
        cut.resize(escape); // half an escape is none
    cut += '\n';
    RETURN_IF_ERROR(sys::writeFully(_input.get(), cut.data(), cut.size()));
    return answer();
}

Status Pinentry::option(const std::string& name, const std::string& value)
{
    return command("OPTION " + name + (value.empty() ? "" : "=" + escaped(value))).status();
}

Result<std::optional<std::string>> Pinentry::ask(const std::string& text, const std::string& label,
                                                 const std::string& problem)
{
    const std::string lines[] = {"SETTITLE Vantora", "SETDESC " + escaped(text), "SETPROMPT " + escaped(label),
                                 problem.empty() ? "NOP" : "SETERROR " + escaped(problem)};
    for (const std::string& line : lines)
        RETURN_IF_ERROR(command(line).status());
    ASSIGN_OR_RETURN(Answer answer, command("GETPIN"));
    if (answer.isOk)
        return std::optional<std::string>(std::move(answer.data));
    const unsigned code = answer.error & kErrorCodeMask;
    if (code == kCancelled || code == kFullyCancelled)
        return std::optional<std::string>();
    return Status(Code::kUnsupported, "the prompt's program cannot ask here");
}

} // namespace vnt
