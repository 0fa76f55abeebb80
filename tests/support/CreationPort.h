#pragma once

#include <memory>
#include <string>

namespace vnt::test {

/// Stands at "quillon.server.mig" of the test's private namespace and answers create_server with a given address, on a
/// thread of its own. The authority that a session asks before is the real program.
class CreationPort {
public:
    explicit CreationPort(std::string address);
    ~CreationPort();
    CreationPort(const CreationPort&) = delete;
    CreationPort& operator=(const CreationPort&) = delete;

    /// From now on. Any thread.
    void answerAddress(std::string address);
    void answerStatus(int32_t status);
    /// Drops the request: its client learns that the server died.
    void dieInsteadOfAnswering();

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace vnt::test
