#include "bundle/exports/ScratchFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/base/sys.h"

namespace vnt {

namespace {

Result<UniqueFd> openNameless(const std::string& directory)
{
    auto file = sys::openFile(directory, O_TMPFILE | O_RDWR | O_EXCL, 0600);
    if (file.ok() || file.code() == Code::kDenied)
        return file;
    // Not every file system can: a name that nobody guesses, removed at once.
    const std::string path = directory + "/.rumbel-" + sys::randomHex(8);
    file = sys::openFile(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (file.ok())
        (void)::unlink(path.c_str()); // cannot fail behind the open
    return file;
}

} // namespace

void ScratchFile::writeOut()
{
    if (_status.ok() && !_file.valid()) {
        auto file = openNameless(_directory);
        if (file.ok())
            _file = file.take();
        else
            _status = Status(file.code(), "no room to sort in: " + file.status().message());
    }
    if (_status.ok())
        _status = sys::writeFully(_file.get(), _buffer.data(), _buffer.size());
    _inFile += _buffer.size();
    _buffer.clear();
}

Result<std::span<char>> ScratchFile::map()
{
    if (!_file.valid() && _status.ok())
        return std::span<char>(_buffer);
    writeOut();
    std::string().swap(_buffer);
    RETURN_IF_ERROR(_status);
    ASSIGN_OR_RETURN(_mapping, Mapping::create(_inFile, PROT_READ | PROT_WRITE, MAP_SHARED, _file.get(), 0));
    return std::span<char>(static_cast<char*>(_mapping.address()), _mapping.size());
}

} // namespace vnt
