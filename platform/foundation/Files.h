#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Status.h"
#include "platform/foundation/Error.h"

namespace vnt {

/// $TMPDIR when it is an absolute path of an existing directory, else "/tmp".
[[nodiscard]] std::string temporaryDirectory();
[[nodiscard]] std::string homeDirectory();
/// Text after the last slash, trailing slashes ignored ("/a/b.app/" gives "b.app").
[[nodiscard]] std::string lastPathComponent(std::string_view path);
[[nodiscard]] std::string withoutLastPathComponent(std::string_view path);
/// Removes the last ".ext"; a leading dot is not an extension.
[[nodiscard]] std::string withoutPathExtension(std::string_view path);
[[nodiscard]] bool fileExists(const std::string& path);
[[nodiscard]] bool isDirectory(const std::string& path);

/// Creates `path` with all missing parents; null on success.
[[nodiscard]] Ref<Error> createDirectory(const std::string& path);
/// Creates or empties a regular file. An existing symbolic link is replaced, not followed.
Status createEmptyFile(const std::string& path);
/// Removes a directory with everything in it, following no symbolic links.
Status removeTree(const std::string& path);

/// The user's own directory for state that outlives a process: $XDG_STATE_HOME/vantora or
/// ~/.local/state/vantora, created 0700; its ownership is checked.
Result<std::string> stateDirectory();

/// User defaults: a property list (binary or XML) at $XDG_CONFIG_HOME/vantora/defaults.plist or
/// ~/.config/vantora/defaults.plist. An absent or damaged file, an absent key: false.
[[nodiscard]] bool userDefaultBool(std::string_view key);

/// The calling process's environment in its own order; later duplicates of a name win.
[[nodiscard]] Ref<MutableDictionary> processEnvironment();

/// `getprogname()` of the calling process.
[[nodiscard]] std::string programName();

} // namespace vnt
