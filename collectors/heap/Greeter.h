#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "collectors/heap/JournalReader.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

/// What a process executes.
struct ProgramIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    std::string vector; ///< getauxval(3): holds addresses that differ from one execution to the next; empty: not known

    [[nodiscard]] bool isOther(const ProgramIdentity& now) const
    {
        return device != now.device || inode != now.inode
            || (!vector.empty() && !now.vector.empty() && vector != now.vector);
    }
};
/// Errors: kDenied when it is another user's now.
Result<ProgramIdentity> programOf(pid_t pid);
/// Its short name, as the kernel has it; empty when it is gone.
std::string nameOfProcess(pid_t pid);

/// A journal that reported itself.
struct Greeting {
    pid_t pid = 0;
    bool is32Bit = false;
    bool attached = false; ///< it ran already
    bool again = false; ///< the same process runs another program now (execve(2))
    uint64_t timeNs = 0; ///< before anything of it can be in the rings
    std::string name;
    std::optional<ProgramIdentity> program; ///< as programOf() said while the target waited
    UniqueFd pidFd;
    std::unique_ptr<JournalReader> reader;
};

/// Listens for the journals of a launched program. The first process that reports itself is recorded, and whatever it
/// becomes by exec; every other process (its children) is told to be quiet, at once: they wait for the answer. Has a
/// thread of its own.
class Greeter {
public:
    struct Options {
        uid_t clientUid = 0; ///< whose processes are listened to, beside those of this process's own user
        uint32_t eventsMask = 0;
        uint32_t flags = 0; ///< of journal::Welcome
    };
    /// `onGreeting` runs on the greeter's thread, before the journal gets its answer.
    static Result<std::unique_ptr<Greeter>> start(const Options& options, std::function<void(Greeting)> onGreeting);
    ~Greeter();

    /// Value of the variable journal::kSocketVariable.
    [[nodiscard]] const std::string& socketName() const { return _name; }

private:
    Greeter(const Options& options, std::function<void(Greeting)> onGreeting);
    void run();
    void serve(int socket);
    Result<Greeting> admit(pid_t pid, const journal::Hello& hello);

    const Options _options;
    const std::function<void(Greeting)> _onGreeting;
    std::string _name;
    UniqueFd _listener;
    UniqueFd _quit; ///< eventfd
    pid_t _pid = 0; ///< the recorded process; 0: none yet
    UniqueFd _pidFd;
    std::thread _thread; // keep last: it uses everything above
};

} // namespace vnt
