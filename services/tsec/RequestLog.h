#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace vnt {

/// Says on standard error and in the system's log what the daemon granted and refused: at most so many lines a second,
/// so that a client cannot fill the log; what was left out is counted in the next line. The server's thread.
class RequestLog {
public:
    void granted(const char* request, uid_t user, const std::string& what);
    void refused(const char* request, uid_t user, const std::string& why);

private:
    void write(int level, const std::string& line);

    uint64_t _secondNs = 0; // beginning of the present second
    unsigned _lines = 0, _leftOut = 0;
};

} // namespace vnt
