#pragma once

#include <string>
#include <utility>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

/// A file that appears under its name only when it is whole; gone if it is not kept. What is no ordinary file (a pipe,
/// a device) is written to at once. Only the owner may read it.
class ExportFile {
public:
    /// Errors: those of open(2).
    static Result<ExportFile> create(const std::string& path);
    ExportFile(ExportFile&& other) noexcept
        : _fd(std::move(other._fd)),
          _path(std::move(other._path)),
          _form(std::exchange(other._form, Form::kInPlace)),
          _temporary(std::move(other._temporary))
    {
    }
    ExportFile& operator=(ExportFile&&) = delete;
    ~ExportFile();

    [[nodiscard]] int fd() const { return _fd.get(); }
    /// Gives the file its name; replaces what had it.
    Status keep();

private:
    enum class Form {
        kInPlace, ///< or kept
        kNameless,
        kNamed, ///< by _temporary
    };
    ExportFile(UniqueFd fd, std::string path, Form form, std::string temporary)
        : _fd(std::move(fd)),
          _path(std::move(path)),
          _form(form),
          _temporary(std::move(temporary))
    {
    }

    UniqueFd _fd;
    std::string _path;
    Form _form;
    std::string _temporary; ///< beside _path, on its way to it
};

} // namespace vnt
