#include "services/tsec/RequestLog.h"

#include <cstdio>

#include "platform/base/sys.h"
#include "platform/base/systemLog.h"

namespace vnt {
namespace {

constexpr unsigned kLinesPerSecond = 20;
constexpr uint64_t kSecondNs = 1'000'000'000;

std::string sentence(const char* request, const char* verdict, uid_t user, const std::string& detail)
{
    std::string text = std::string(request) + " " + verdict + " for user " + std::to_string(user) + ": " + detail;
    for (char& letter : text) { // names and paths come from clients: one request, one line
        if (static_cast<unsigned char>(letter) < ' ' || letter == 127)
            letter = '?';
    }
    return text;
}

} // namespace

void RequestLog::granted(const char* request, uid_t user, const std::string& what)
{
    write(ASL_LEVEL_NOTICE, sentence(request, "granted", user, what));
}

void RequestLog::refused(const char* request, uid_t user, const std::string& why)
{
    write(ASL_LEVEL_WARNING, sentence(request, "refused", user, why));
}

void RequestLog::write(int level, const std::string& line)
{
    const uint64_t now = sys::monotonicNs();
    if (now - _secondNs >= kSecondNs) {
        _secondNs = now;
        _lines = 0;
    }
    if (++_lines > kLinesPerSecond) {
        ++_leftOut;
        return;
    }
    const std::string more = _leftOut == 0 ? "" : " (" + std::to_string(_leftOut) + " lines left out before)";
    _leftOut = 0;
    std::fprintf(stderr, "KxTSecD: %s%s\n", line.c_str(), more.c_str());
    asl_log(nullptr, nullptr, level, "KxTSecD: %s%s", line.c_str(), more.c_str());
}

} // namespace vnt
