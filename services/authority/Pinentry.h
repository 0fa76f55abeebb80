#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

/// The system's program that asks a person for a secret, spoken to over pipes (the Assuan protocol: a line each way,
/// percent-escaped, at most 1,000 bytes). It runs as whoever starts it. Ended with this object. One thread, blocking
/// for as long as the person takes.
class Pinentry {
public:
    /// `environment` is all that the program gets to see. Errors: what starting it said, or that it does not greet.
    static Result<Pinentry> start(const std::string& program, const std::vector<std::string>& environment);
    ~Pinentry();
    Pinentry(Pinentry&& other) noexcept;
    Pinentry& operator=(Pinentry&&) = delete;

    /// One of the program's options; those it does not know are no error.
    Status option(const std::string& name, const std::string& value);
    /// Asks with an explanation, a label before the field, and what was wrong last time (may be empty). None: the
    /// person closed it. Errors: the program cannot ask here (kUnsupported) or is gone (kPeerGone). The caller wipes.
    Result<std::optional<std::string>> ask(const std::string& text, const std::string& label,
                                           const std::string& problem);

private:
    struct Answer {
        bool isOk = false;
        unsigned error = 0; // of an ERR line
        std::string data;
    };
    Pinentry() = default;
    Result<Answer> command(const std::string& line);
    Result<Answer> answer();
    Result<std::string> readLine();

    pid_t _process = -1;
    UniqueFd _input, _output;
};

} // namespace vnt
