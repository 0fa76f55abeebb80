#pragma once

#include <utility>

namespace vnt {

/// Owner of one file descriptor. Closing a descriptor that is not open is a double close and stops the
/// process: another owner's descriptor would be closed next time.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : _fd(fd) { }
    UniqueFd(UniqueFd&& other) noexcept : _fd(std::exchange(other._fd, -1)) { }
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) {
            reset();
            _fd = std::exchange(other._fd, -1);
        }
        return *this;
    }
    ~UniqueFd() { reset(); }

    void reset() noexcept;
    [[nodiscard]] int get() const { return _fd; }
    [[nodiscard]] int take() { return std::exchange(_fd, -1); }
    [[nodiscard]] bool valid() const { return _fd >= 0; }
    explicit operator bool() const { return valid(); }

private:
    int _fd = -1;
};

} // namespace vnt
