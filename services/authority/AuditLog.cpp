#include "services/authority/AuditLog.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr unsigned kLinesPerMinute = 20; // of one user
constexpr size_t kMaxUsers = 1024; // whose lines are counted one by one
constexpr size_t kMaxLineBytes = 1000; // what every log takes whole (RFC 3164)

} // namespace

AuditLog::AuditLog(std::string path) : _path(std::move(path)) { }

void AuditLog::write(Level level, uid_t user, const std::string& text)
{
    const Instant now = std::chrono::steady_clock::now();
    if (_allowances.size() >= kMaxUsers)
        std::erase_if(_allowances,
                      [&](const auto& entry) { return now - entry.second.begin > std::chrono::minutes(1); });
    if (_allowances.size() >= kMaxUsers)
        _allowances.clear();
    Allowance& allowance = _allowances.try_emplace(user, Allowance{now}).first->second;
    std::string suffix;
    if (now - allowance.begin > std::chrono::minutes(1)) {
        if (allowance.suppressed != 0)
            suffix = " (" + std::to_string(allowance.suppressed) + " more lines about this user were left out)";
        allowance = Allowance{now};
    }
    if (++allowance.lines > kLinesPerMinute) {
        ++allowance.suppressed;
        return;
    }
    if (_lost != 0)
        suffix += " (" + std::to_string(_lost) + " lines were lost before)";
    if (put(level, "uid " + std::to_string(user) + ": " + text + suffix))
        _lost = 0;
    else
        ++_lost;
}

bool AuditLog::put(Level level, const std::string& text)
{
    std::string line = _path.empty() ? "<" + std::to_string(LOG_AUTHPRIV | static_cast<int>(level))
            + ">VantoraAuthority[" + std::to_string(::getpid()) + "]: "
                                     : "";
    line += text.substr(0, kMaxLineBytes);
    for (char& c : line)
        c = static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    if (!_path.empty()) {
        const auto file = sys::openFile(_path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0600);
        line += "\n";
        return file.ok() && sys::writeFully(file.value().get(), line.data(), line.size()).ok();
    }
    // Not syslog(3), which waits for a log that has stopped reading.
    if (!_socket)
        _socket = UniqueFd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, "/dev/log"};
    return ::sendto(_socket.get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&address), sizeof address)
        >= 0;
}

} // namespace vnt
