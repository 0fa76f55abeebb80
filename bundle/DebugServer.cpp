#include "bundle/DebugServer.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "bundle/ElfFile.h"
#include "platform/base/UniqueFd.h"
#include "platform/base/sys.h"

namespace vnt {

namespace {
/// Whose fetch runs on this thread: the library's callback is given nothing of ours.
thread_local DebugServer* tFetching = nullptr;
} // namespace

/// The functions of elfutils/debuginfod.h that are used, by its ABI.
struct DebugServer::Library {
    void* handle = nullptr;
    void* (*begin)() = nullptr;
    void (*end)(void* client) = nullptr;
    Find findExecutable = nullptr;
    Find findDebugInfo = nullptr;
    void (*setProgress)(void* client, int (*function)(void* client, long done, long whole)) = nullptr;

    Library() = default;
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library()
    {
        if (handle)
            ::dlclose(handle);
    }

    template <typename Function> bool take(Function& function, const char* name)
    {
        function = reinterpret_cast<Function>(::dlsym(handle, name));
        return function != nullptr;
    }
    bool load()
    {
        handle = ::dlopen("libdebuginfod.so.1", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        return handle && take(begin, "debuginfod_begin") && take(end, "debuginfod_end")
            && take(findExecutable, "debuginfod_find_executable") && take(findDebugInfo, "debuginfod_find_debuginfo")
            && take(setProgress, "debuginfod_set_progressfn");
    }
};

Result<std::unique_ptr<DebugServer>> DebugServer::open(Progress progress, const Limits& limits)
{
    if (sys::environmentOr("DEBUGINFOD_URLS", "").find_first_not_of(' ') == std::string::npos)
        return Status(Code::kInvalid, "DEBUGINFOD_URLS names no server to fetch debug files from");
    std::unique_ptr<DebugServer> server(new DebugServer);
    server->_library = std::make_unique<Library>();
    if (!server->_library->load())
        return Status(Code::kUnsupported, "libdebuginfod is not installed (package libdebuginfod1)");
    server->_client = server->_library->begin();
    if (!server->_client)
        return Status(Code::kUnsupported, "libdebuginfod cannot be used");
    server->_progress = std::move(progress);
    server->_limits = limits;
    server->_end = std::chrono::steady_clock::now() + limits.all;
    server->_library->setProgress(server->_client, &onProgress);
    return server;
}

DebugServer::~DebugServer()
{
    if (_client)
        _library->end(_client);
}

int DebugServer::onProgress(void* /*client*/, long done, long whole)
{
    DebugServer& server = *tFetching;
    const auto now = std::chrono::steady_clock::now();
    server._isOver =
        now >= server._fileEnd || done > server._limits.maxFileBytes || whole > server._limits.maxFileBytes;
    if (!server._isOver && server._progress)
        server._progress(server._what, done, whole);
    return server._isOver ? 1 : 0; // not 0 ends the fetch
}

Result<std::string> DebugServer::find(Find function, const std::string& buildId, const std::string& what)
{
    const auto now = std::chrono::steady_clock::now();
    if (now >= _end)
        return Status(Code::kTimedOut, "no more time for fetching debug files");
    if (buildId.empty() || buildId.find_first_not_of("0123456789abcdef") != std::string::npos)
        return Status(Code::kNotFound, what + ": has no build id to fetch it by");
    _what = what;
    _fileEnd = std::min(_end, now + _limits.each);
    _isOver = false;
    char* found = nullptr;
    tFetching = this;
    // Length 0: the id is text (debuginfod_find_debuginfo(3)).
    const int fd = function(_client, reinterpret_cast<const unsigned char*>(buildId.c_str()), 0, &found);
    tFetching = nullptr;
    const UniqueFd owner(fd >= 0 ? fd : -1);
    const std::unique_ptr<char, decltype(&std::free)> path(found, &std::free);
    if (fd < 0)
        return _isOver ? Status(Code::kTimedOut, what + ": fetching it took too long or it is too large")
                       : Status(Code::kNotFound, what + ": no server has it (" + std::strerror(-fd) + ")");
    if (!path)
        return Status(Code::kNotFound, what + ": was fetched, but is not kept");
    auto file = ElfFile::open(path.get());
    if (!file.ok() || file.value().buildId() != buildId)
        return Status(Code::kInvalid, what + ": a server sent another file");
    return std::string(path.get());
}

Result<std::string> DebugServer::executable(const std::string& buildId, const std::string& what)
{
    return find(_library->findExecutable, buildId, what);
}

Result<std::string> DebugServer::debugFile(const std::string& buildId, const std::string& what)
{
    return find(_library->findDebugInfo, buildId, what);
}

} // namespace vnt
