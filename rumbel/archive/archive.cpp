#include "rumbel/archive/archive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>

#include "bundle/Instruments.h"
#include "bundle/collectSymbols.h"
#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "rumbel/report/debugServer.h"
#include "rumbel/report/textLines.h"

namespace vnt {
namespace {

constexpr size_t kCopyBytes = 1u << 20;

Status copyFile(const std::string& from, const std::string& to)
{
    // O_NONBLOCK: a pipe in an untrusted bundle must not hold us up before it is refused.
    ASSIGN_OR_RETURN(const UniqueFd source, sys::openFile(from, O_RDONLY | O_NONBLOCK));
    ASSIGN_OR_RETURN(const struct stat status, sys::statFd(source.get()));
    if (!S_ISREG(status.st_mode))
        return Status(Code::kInvalid, from + ": not a regular file");
    ASSIGN_OR_RETURN(const UniqueFd target, sys::openFile(to, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    std::vector<std::byte> buffer(kCopyBytes);
    for (;;) {
        ASSIGN_OR_RETURN(const size_t size, sys::readSome(source.get(), buffer.data(), buffer.size()));
        if (size == 0)
            return {};
        RETURN_IF_ERROR(sys::writeFully(target.get(), buffer.data(), size));
    }
}

/// Copies the instruments' files; removes the copy again when that fails.
Status copyBundle(const Bundle& bundle, const std::string& output)
{
    if (::mkdir(output.c_str(), 0700) != 0)
        return Status(errno == EEXIST ? Code::kExists : Code::kSystem,
                      output + ": cannot be created: " + std::strerror(errno));
    ASSIGN_OR_RETURN(const std::vector<std::string> names, sys::listDirectory(bundle.path()));
    for (const std::string& identifier : bundle.instruments()) {
        for (const std::string& name : {identifier, identifier + std::string(kMessageStreamSuffix)}) {
            if (std::find(names.begin(), names.end(), name) == names.end())
                continue;
            const Status status = copyFile(bundle.path() + "/" + name, output + "/" + name);
            if (!status.ok()) {
                (void)removeTree(output); // what is left would look like a recording
                return status;
            }
        }
    }
    return {};
}

Status store(const Bundle& bundle, const ArchiveOptions& options, StoredSymbolsWriter& writer)
{
    ASSIGN_OR_RETURN(const std::vector<std::byte> file, writer.finish());
    std::string directory = bundle.path();
    if (!options.output.empty()) {
        directory = options.output;
        RETURN_IF_ERROR(copyBundle(bundle, directory));
    }
    return sys::writeFileAtomically(directory + "/" + std::string(StoredSymbols::kFileName), file, 0600);
}

} // namespace

int runArchive(const ArchiveOptions& options, std::ostream& out, std::ostream& err)
{
    auto opened = Bundle::open(options.bundlePath);
    if (!opened.ok()) {
        err << "rumbel error: " << printable(opened.status().message()) << "\n";
        return 1;
    }
    Bundle bundle = opened.take();
    StatusLine progress(options.showProgress ? &err : nullptr);
    const auto server = options.debuginfod ? openDebugServer(bundle, progress) : nullptr;
    StoredSymbolsWriter writer;
    collectSymbols(bundle, writer, [&](const std::string& identifier) { progress.show("symbols of " + identifier); });
    const Status status = store(bundle, options, writer);
    progress.clear();
    for (const std::string& text : bundle.remarks().texts())
        err << "rumbel: " << printable(text) << "\n";
    if (!status.ok()) {
        err << "rumbel error: " << printable(status.message()) << "\n";
        return 1;
    }
    out << "stored the symbols of " << grouped(writer.addressCount())
        << (writer.addressCount() == 1 ? " address" : " addresses") << " in " << plural(writer.moduleCount(), "module")
        << "\n";
    return out ? 0 : 1;
}

} // namespace vnt
