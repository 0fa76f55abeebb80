#pragma once

#include <string_view>

/// Names of the keyed-archive format; shared by its writer and its reader.
namespace vnt::archive {

inline constexpr std::string_view kVersionKey = "$version";
inline constexpr std::string_view kArchiverKey = "$archiver";
inline constexpr std::string_view kTopKey = "$top";
inline constexpr std::string_view kObjectsKey = "$objects";
inline constexpr std::string_view kClassKey = "$class";
inline constexpr std::string_view kClassNameKey = "$classname";
inline constexpr std::string_view kClassesKey = "$classes";
inline constexpr std::string_view kNullEntry = "$null";

inline constexpr int kVersion = 100'000;
inline constexpr std::string_view kArchiver = "NSKeyedArchiver";

inline constexpr std::string_view kItemsKey = "NS.objects";
inline constexpr std::string_view kKeysKey = "NS.keys";
inline constexpr std::string_view kTimeKey = "NS.time";
inline constexpr std::string_view kBaseKey = "NS.base";
inline constexpr std::string_view kRelativeKey = "NS.relative";
inline constexpr std::string_view kTextKey = "NS.string";
inline constexpr std::string_view kDataKey = "NS.data";

} // namespace vnt::archive
