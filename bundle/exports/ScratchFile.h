#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/base/Mapping.h"
#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

/// A file without a name, for what is too much for the memory; gone with its owner. Made with the first flush of its
/// buffer, so that small contents stay in memory. First written, then mapped and read. One thread.
class ScratchFile {
public:
    /// `directory`: where the file is made, if one is needed. `bufferBytes`: what is held in memory.
    explicit ScratchFile(std::string directory, size_t bufferBytes = kBufferBytes)
        : _directory(std::move(directory)),
          _bufferBytes(bufferBytes)
    {
    }
    static constexpr size_t kBufferBytes = size_t{4} << 20;

    /// Failures are told by map().
    void append(std::string_view bytes)
    {
        _buffer.append(bytes);
        if (_buffer.size() >= _bufferBytes)
            writeOut();
    }
    [[nodiscard]] uint64_t sizeBytes() const { return _inFile + _buffer.size(); }
    /// The whole content, which may be changed; valid as long as this. Nothing may be appended afterwards. What does
    /// not fit the memory is mapped, so that the system can put it back into the file.
    Result<std::span<char>> map();

private:
    void writeOut();

    std::string _directory;
    size_t _bufferBytes;
    std::string _buffer;
    UniqueFd _file;
    uint64_t _inFile = 0;
    Mapping _mapping;
    Status _status;
};

} // namespace vnt
