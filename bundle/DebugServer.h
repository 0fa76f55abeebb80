#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/base/Status.h"

namespace vnt {

/// Fetches executables and debug files by build id from the debuginfod servers that DEBUGINFOD_URLS names, through the
/// system's libdebuginfod (loaded when asked for) and its cache. Made only when the user asks for it: everything that
/// is fetched tells the server which program was recorded. What arrives is untrusted, and proven only by its build id.
/// Blocks up to the limits. One thread.
class DebugServer {
public:
    struct Limits {
        std::chrono::seconds each{60}; ///< for one file
        std::chrono::seconds all{300}; ///< for all of them; afterwards nothing more is fetched
        long maxFileBytes = 2L << 30; ///< debug files of browsers have some 1 GiB
    };
    /// Told while `what` is fetched, some times a second: bytes that are there and to come (0: not known).
    using Progress = std::function<void(const std::string& what, long done, long whole)>;

    /// Errors: kUnsupported when libdebuginfod is not installed, kInvalid when DEBUGINFOD_URLS names no server.
    static Result<std::unique_ptr<DebugServer>> open(Progress progress, const Limits& limits);
    static Result<std::unique_ptr<DebugServer>> open(Progress progress) { return open(std::move(progress), Limits()); }
    ~DebugServer();
    DebugServer(const DebugServer&) = delete;
    DebugServer& operator=(const DebugServer&) = delete;

    /// Path of the file in the local cache. `buildId`: lower-case hexadecimal; `what`: for progress. Errors: kNotFound
    /// when no server has it, kTimedOut when a limit ended it, kInvalid when what came is another file.
    Result<std::string> executable(const std::string& buildId, const std::string& what);
    Result<std::string> debugFile(const std::string& buildId, const std::string& what);

private:
    struct Library;
    using Find = int (*)(void* client, const unsigned char* buildId, int buildIdBytes, char** path);
    DebugServer() = default;
    Result<std::string> find(Find function, const std::string& buildId, const std::string& what);
    static int onProgress(void* client, long done, long whole);

    std::unique_ptr<Library> _library;
    void* _client = nullptr; // owned; ended through _library
    Progress _progress;
    Limits _limits;
    std::string _what;
    std::chrono::steady_clock::time_point _fileEnd;
    std::chrono::steady_clock::time_point _end;
    bool _isOver = false; // a limit ended the present fetch
};

} // namespace vnt
