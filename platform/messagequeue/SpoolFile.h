#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

/// One spool on disk: a named 0600 file in the user's state directory, with a flock(2) for as long as this object
/// lives, holding a message stream. It begins with a loss mark, a frame of dropped messages whose count is changed in
/// place, so that a loss can be written down when the disk has no room left. Not locked: one thread at a time.
class SpoolFile {
public:
    static Result<SpoolFile> create(const std::string& identifier);
    SpoolFile(SpoolFile&& other) noexcept;
    SpoolFile& operator=(SpoolFile&&) = delete;
    ~SpoolFile(); // removes the file unless it was archived or kept

    /// Appends as many of the whole frames in `frames` as fit; the rest leaves no trace. The first of the pair is the
    /// number of frames written.
    std::pair<uint64_t, Status> append(std::span<const std::byte> frames);
    /// Appends a frame that says that `count` messages were dropped here.
    Status appendDropped(uint64_t count);
    /// Sets the count of the loss mark; needs no room on the disk.
    void setLossMark(uint64_t count);

    /// Makes the stream the file `path`, replacing what is there, with the mode of any file that the user
    /// creates: by rename within a file system, else by a copy in the kernel under a temporary name.
    Status moveTo(const std::string& path);
    /// Leaves the file where it is when this object goes.
    void keep() { _path.clear(); }

    /// Directory of all spools, created on demand.
    static Result<std::string> directory();

private:
    SpoolFile(UniqueFd file, std::string path) : _file(std::move(file)), _path(std::move(path)) { }
    Status writeAtEnd(const void* data, size_t size, size_t& written);
    Status copyTo(const std::string& path) const;

    UniqueFd _file;
    std::string _path; // empty: nothing to remove
    uint64_t _sizeBytes = 0; // whole frames only
};

} // namespace vnt
