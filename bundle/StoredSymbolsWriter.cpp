#include "bundle/StoredSymbolsWriter.h"

#include "platform/messagequeue/MessageStream.h"

namespace vnt {

uint32_t StoredSymbolsWriter::string(const std::string& text)
{
    if (text.size() > StoredSymbols::kMaxNameBytes)
        return string(text.substr(0, StoredSymbols::kMaxNameBytes));
    const auto [entry, isNew] = _stringNumbers.try_emplace(text, static_cast<uint32_t>(_strings.size()));
    if (isNew)
        _strings.push_back(text);
    return entry->second;
}

uint32_t StoredSymbolsWriter::functionNumber(Part& part, const Function& function)
{
    return part.functions.try_emplace(function, static_cast<uint32_t>(part.functions.size())).first->second;
}

bool StoredSymbolsWriter::has(const ModuleName& module, uint64_t fileOffset, FrameRole role) const
{
    const auto part = _modules.find(module);
    return part != _modules.end() && part->second.addresses.count({fileOffset, role}) != 0;
}

void StoredSymbolsWriter::add(const ModuleName& module, uint64_t fileOffset, FrameRole role, const Function& function,
                              std::span<const Line> lines)
{
    if (_addressCount >= StoredSymbols::kMaxAddresses)
        return;
    Part& part = _modules[module];
    const auto [entry, isNew] = part.addresses.try_emplace({fileOffset, role});
    if (!isNew)
        return;
    ++_addressCount;
    entry->second.function = functionNumber(part, function);
    if (lines.size() > StoredSymbols::kMaxInlined)
        return;
    for (const Line& line : lines)
        entry->second.lines.push_back({functionNumber(part, line.function), string(line.file), line.line});
}

void StoredSymbolsWriter::setRemark(const ModuleName& module, const std::string& remark)
{
    _modules[module].remark = string(remark);
}

Result<std::vector<std::byte>> StoredSymbolsWriter::finish()
{
    ByteWriter modules; // first: writing them can add strings
    for (const auto& [name, part] : _modules)
        writeModule(name, part, modules);
    ByteWriter content;
    content.varint(_strings.size());
    for (const std::string& text : _strings)
        content.text(text);
    content.varint(_modules.size());
    content.raw(modules.view().data(), modules.size());
    ByteWriter file;
    file.raw(StoredSymbols::kMagic, sizeof StoredSymbols::kMagic);
    file.little(StoredSymbols::kVersion);
    file.little(crc32c(content.view()));
    file.raw(content.view().data(), content.size());
    if (file.size() > StoredSymbols::kMaxFileBytes)
        return Status(Code::kTooLarge, "the symbols of this bundle pass the size that a reader takes");
    return file.take();
}

void StoredSymbolsWriter::writeModule(const ModuleName& name, const Part& part, ByteWriter& out)
{
    out.varint(string(name.path));
    out.varint(string(name.buildId));
    out.varint(name.is64Bit ? 0 : 1);
    out.varint(part.remark);
    std::vector<const Function*> inOrder(part.functions.size());
    for (const auto& [function, number] : part.functions)
        inOrder[number] = &function;
    out.varint(inOrder.size());
    for (const Function* function : inOrder) {
        out.varint(string(function->name));
        out.varint(static_cast<uint64_t>(function->kind));
        if (function->kind == StoredSymbols::FunctionKind::kFunction)
            out.varint(function->start);
    }
    writeAddresses(part, out);
}

void StoredSymbolsWriter::writeAddresses(const Part& part, ByteWriter& out)
{
    out.varint(part.addresses.size());
    uint64_t before = 0;
    for (const auto& [place, address] : part.addresses) {
        out.varint(place.first - before);
        out.varint(static_cast<uint64_t>(place.second));
        out.varint(address.function);
        out.varint(address.lines.size());
        for (const StoredLine& line : address.lines) {
            out.varint(line.function);
            out.varint(line.file);
            out.varint(line.line);
        }
        before = place.first;
    }
}

} // namespace vnt
