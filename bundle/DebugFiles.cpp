#include "bundle/DebugFiles.h"

#include <fcntl.h>

#include <array>
#include <vector>

#include "platform/base/sys.h"

namespace vnt {

namespace {

/// Checksums are taken of files without build id only; larger ones are not worth the seconds.
constexpr size_t kMaxChecksummedBytes = size_t{1} << 30;

/// CRC-32 (IEEE 802.3), as .gnu_debuglink stores it.
uint32_t crc32(std::string_view bytes)
{
    static constexpr std::array<uint32_t, 256> kTable = [] {
        std::array<uint32_t, 256> table{};
        for (uint32_t i = 0; i < table.size(); ++i) {
            uint32_t value = i;
            for (int bit = 0; bit < 8; ++bit)
                value = (value >> 1) ^ ((value & 1) != 0 ? 0xedb88320u : 0);
            table[i] = value;
        }
        return table;
    }();
    uint32_t crc = ~0u;
    for (const char byte : bytes)
        crc = kTable[(crc ^ static_cast<uint8_t>(byte)) & 0xff] ^ (crc >> 8);
    return ~crc;
}

bool belongs(const ElfFile& file, const std::string& debugPath, const ElfFile::DebugLink& link)
{
    auto opened = ElfFile::open(debugPath);
    if (!opened.ok())
        return false;
    if (!file.buildId().empty())
        return opened.value().buildId() == file.buildId();
    auto content = sys::readFile(debugPath, kMaxChecksummedBytes);
    return content.ok() && crc32(content.value()) == link.crc;
}

std::string directoryOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

} // namespace

std::string findDebugFile(const ElfFile& file, const std::string& path, const std::string& debugRoot)
{
    std::vector<std::string> places;
    const std::string& id = file.buildId();
    if (id.size() > 2)
        places.push_back(debugRoot + "/.build-id/" + id.substr(0, 2) + "/" + id.substr(2) + ".debug");
    const ElfFile::DebugLink link = file.debugLink();
    // The name is a plain file name; one that leads elsewhere is not followed.
    if (!link.name.empty() && link.name.find('/') == std::string::npos && link.name != "." && link.name != "..") {
        const std::string directory = directoryOf(path);
        places.push_back(directory + "/" + link.name);
        places.push_back(directory + "/.debug/" + link.name);
        places.push_back(debugRoot + directory + "/" + link.name);
    }
    for (const std::string& place : places) {
        if (place != path && belongs(file, place, link))
            return place;
    }
    return {};
}

} // namespace vnt
