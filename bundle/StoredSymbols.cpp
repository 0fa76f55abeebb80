#include "bundle/StoredSymbols.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "platform/base/sys.h"
#include "platform/messagequeue/MessageStream.h"

namespace vnt {

namespace {

/// Magic, version, checksum of what follows.
constexpr size_t kHeaderBytes = 16;

} // namespace

const StoredSymbols::Address* StoredSymbols::ModulePart::find(uint64_t fileOffset, FrameRole role) const
{
    const auto found =
        std::lower_bound(addresses.begin(), addresses.end(), std::pair(fileOffset, role),
                         [](const Address& a, const auto& b) { return std::pair(a.fileOffset, a.role) < b; });
    return found != addresses.end() && found->fileOffset == fileOffset && found->role == role ? &*found : nullptr;
}

Result<std::unique_ptr<const StoredSymbols>> StoredSymbols::parse(std::string content)
{
    std::unique_ptr<StoredSymbols> symbols(new StoredSymbols);
    symbols->_content = std::move(content);
    const auto bytes = std::as_bytes(std::span(symbols->_content));
    if (bytes.size() < kHeaderBytes || std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0)
        return Status(Code::kInvalid, "not a file of stored symbols");
    ByteCursor header(bytes.subspan(sizeof kMagic, kHeaderBytes - sizeof kMagic));
    const auto version = header.little<uint32_t>();
    const auto checksum = header.little<uint32_t>();
    if (version != kVersion)
        return Status(Code::kUnsupported, "the stored symbols were written by another version");
    if (crc32c(bytes.subspan(kHeaderBytes)) != checksum || !symbols->read(ByteCursor(bytes.subspan(kHeaderBytes))))
        return Status(Code::kCorrupt, "the stored symbols are damaged");
    return std::unique_ptr<const StoredSymbols>(std::move(symbols));
}

Result<std::unique_ptr<const StoredSymbols>> StoredSymbols::open(const std::string& path)
{
    ASSIGN_OR_RETURN(const struct stat status, sys::statFile(path));
    if (!S_ISREG(status.st_mode)) // a pipe must not hold us up
        return Status(Code::kInvalid, path + ": not a regular file");
    ASSIGN_OR_RETURN(std::string content, sys::readFile(path, kMaxFileBytes));
    return parse(std::move(content));
}

const StoredSymbols::ModulePart* StoredSymbols::module(std::string_view path, std::string_view buildId,
                                                       bool is64Bit) const
{
    const auto found = _modules.find({path, buildId, is64Bit});
    return found == _modules.end() ? nullptr : &found->second;
}

/// Counts are not trusted with memory: each item takes a byte at least, and tables grow as items are read.
bool StoredSymbols::read(ByteCursor cursor)
{
    const uint64_t strings = cursor.varint();
    for (uint64_t i = 0; i < strings && !cursor.failed(); ++i)
        _strings.push_back(cursor.text(kMaxNameBytes));
    const uint64_t modules = cursor.varint();
    for (uint64_t i = 0; i < modules; ++i) {
        if (!readModule(cursor))
            return false;
    }
    return cursor.atEnd();
}

std::string_view StoredSymbols::string(ByteCursor& cursor) const
{
    const uint64_t number = cursor.varint();
    if (number < _strings.size())
        return _strings[number];
    cursor.fail();
    return {};
}

bool StoredSymbols::readModule(ByteCursor& cursor)
{
    const std::string_view path = string(cursor);
    const std::string_view buildId = string(cursor);
    const uint64_t flags = cursor.varint();
    ModulePart part;
    part.remark = string(cursor);
    if (!readFunctions(cursor, part) || !readAddresses(cursor, part))
        return false;
    return _modules.try_emplace({path, buildId, (flags & 1) == 0}, std::move(part)).second;
}

bool StoredSymbols::readFunctions(ByteCursor& cursor, ModulePart& part)
{
    const uint64_t count = cursor.varint();
    for (uint64_t i = 0; i < count; ++i) {
        Function function;
        function.name = string(cursor);
        const uint64_t kind = cursor.varint();
        if (kind > static_cast<uint64_t>(FunctionKind::kInlined))
            cursor.fail();
        function.kind = static_cast<FunctionKind>(kind);
        if (function.kind == FunctionKind::kFunction)
            function.start = cursor.varint();
        if (cursor.failed())
            return false;
        part.functions.push_back(function);
    }
    return !cursor.failed();
}

bool StoredSymbols::readAddresses(ByteCursor& cursor, ModulePart& part)
{
    const uint64_t count = cursor.varint();
    uint64_t offset = 0;
    for (uint64_t i = 0; i < count; ++i) {
        Address address;
        const uint64_t difference = cursor.varint();
        const uint64_t role = cursor.varint();
        address.fileOffset = offset + difference;
        address.role = role == 0 ? FrameRole::kExact : FrameRole::kReturn;
        const uint64_t function = cursor.varint();
        const bool isBehind = part.addresses.empty()
            || std::pair(part.addresses.back().fileOffset, part.addresses.back().role)
                < std::pair(address.fileOffset, address.role);
        if (cursor.failed() || address.fileOffset < offset || role > 1 || !isBehind || function >= part.functions.size()
            || ++_addressCount > kMaxAddresses)
            return false;
        address.function = static_cast<uint32_t>(function);
        if (!readLines(cursor, part, address))
            return false;
        offset = address.fileOffset;
        part.addresses.push_back(address);
    }
    return !cursor.failed();
}

bool StoredSymbols::readLines(ByteCursor& cursor, ModulePart& part, Address& address)
{
    const uint64_t count = cursor.varint();
    if (cursor.failed() || count > kMaxInlined)
        return false;
    address.firstLine = static_cast<uint32_t>(part.lines.size());
    address.lineCount = static_cast<uint32_t>(count);
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t function = cursor.varint();
        const std::string_view file = string(cursor);
        const uint64_t line = cursor.varint();
        // The last one is the address's own function, all before it were inlined into it.
        const bool isLast = i + 1 == count;
        if (cursor.failed() || function >= part.functions.size() || line > std::numeric_limits<int32_t>::max()
            || (part.functions[function].kind == FunctionKind::kInlined) == isLast
            || (isLast && function != address.function))
            return false;
        part.lines.push_back({static_cast<uint32_t>(function), static_cast<uint32_t>(line), file});
    }
    return true;
}

} // namespace vnt
