#pragma once

#include <cstddef>
#include <span>
#include <utility>

#include "platform/base/Status.h"

namespace vnt {

/// Owner of one memory mapping (mmap(2)).
class Mapping {
public:
    Mapping() = default;
    Mapping(void* address, size_t sizeBytes) : _address(address), _size(sizeBytes) { }
    Mapping(Mapping&& other) noexcept
        : _address(std::exchange(other._address, nullptr)),
          _size(std::exchange(other._size, 0))
    {
    }
    Mapping& operator=(Mapping&& other) noexcept
    {
        std::swap(_address, other._address);
        std::swap(_size, other._size);
        return *this;
    }
    ~Mapping();

    /// Private read-only mapping of a whole regular file; an empty file gives an empty mapping.
    static Result<Mapping> ofFile(const std::string& path);
    /// `protection` and `flags` as in mmap(2).
    static Result<Mapping> create(size_t sizeBytes, int protection, int flags, int fd, off_t offset);

    [[nodiscard]] void* address() const { return _address; }
    [[nodiscard]] size_t size() const { return _size; }
    [[nodiscard]] std::span<const std::byte> bytes() const { return {static_cast<const std::byte*>(_address), _size}; }
    [[nodiscard]] bool valid() const { return _address != nullptr; }

private:
    void* _address = nullptr;
    size_t _size = 0;
};

} // namespace vnt
