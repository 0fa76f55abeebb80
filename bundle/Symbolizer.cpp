#include "bundle/Symbolizer.h"

#include <cinttypes>
#include <cstdio>
#include <functional>

#include "bundle/Demangle.h"
#include "records/Signature.h"

namespace vnt {

namespace {

/// x86 kernel addresses are the upper half of the address space.
constexpr uint64_t kFirstKernelAddress = uint64_t{1} << 63;
/// Answers kept; some 64 bytes each. A recording of large programs has some 100,000 addresses.
constexpr size_t kMaxSeen = 1u << 20;
/// Addresses outside every module shown one by one; broken frame pointers can give any number of them.
constexpr size_t kMaxUnmapped = 1000;

/// Addresses whose source frames are kept; beyond, only functions are told.
constexpr size_t kMaxChains = 1u << 20;
/// Paths are limited to 4096 bytes (PATH_MAX); debug information can claim any.
constexpr size_t kMaxFileNameBytes = 4096;

constexpr uint32_t kKernelOwner = ~0u;
constexpr uint32_t kUnmappedOwner = ~0u - 1;
/// In place of a start: no function is known there.
constexpr uint64_t kNoFunction = ~uint64_t{0};

size_t mix(uint64_t a, uint64_t b)
{
    uint64_t value = (a + 0x9e3779b97f4a7c15ULL) ^ (b * 0xff51afd7ed558ccdULL);
    value ^= value >> 32;
    value *= 0xc4ceb9fe1a85ec53ULL;
    return static_cast<size_t>(value ^ (value >> 29));
}

/// A signal handler returns to the very start of this function: nothing called it, so there is no call before it.
bool isSignalReturn(std::string_view name)
{
    return name == "__restore_rt" || name == "__restore" || name == "__kernel_rt_sigreturn"
        || name == "__kernel_sigreturn";
}

} // namespace

size_t Symbolizer::AddressHash::operator()(const AddressKey& key) const
{
    return mix(key.address, (uint64_t{key.pid} << 1) | static_cast<uint64_t>(key.role));
}

size_t Symbolizer::SymbolHash::operator()(const SymbolKey& key) const { return mix(key.start, key.owner); }

Symbolizer::Symbolizer(const Dictionary* signatures, Remarks& remarks, SymbolSources sources)
    : _remarks(remarks),
      _sources(std::move(sources)),
      _modules(remarks, _sources)
{
    _symbols.push_back({"[truncated]", "", "", Symbol::Kind::kTruncated, false});
    _symbols.push_back({"[no stack]", "", "", Symbol::Kind::kNoStack, false});
    if (signatures)
        readSignatures(*signatures);
    else
        remarks.add("the signatures are missing: addresses of processes have no names");
}

void Symbolizer::readSignatures(const Dictionary& signatures)
{
    for (const auto& [key, value] : signatures.entries()) {
        const auto pid = as<Number>(key);
        const auto signature = as<Dictionary>(value);
        if (!pid || !signature) {
            _remarks.add("a damaged signature is left out");
            continue;
        }
        readSignature(pid->int64Value(), *signature);
    }
    // Behind all the others: a process's own entry is better than what its parent's says of it.
    for (const auto& [key, value] : signatures.entries()) {
        if (const auto signature = as<Dictionary>(value))
            readChildren(*signature);
    }
}

void Symbolizer::readSignature(int64_t pid, const Dictionary& signature)
{
    const auto version = signature.get<Number>(signature::kVersionKey);
    if (version && version->int64Value() > signature::kVersion) {
        _remarks.add("the signature of process " + std::to_string(pid) + " was written by a later version");
    } else if (pid == 0) {
        _kernel = KernelSymbols::read(signature, _remarks);
        if (const auto vdso = signature.get<Data>(signature::kVdso))
            _modules.setVdso({vdso->bytes().begin(), vdso->bytes().end()});
    } else {
        _processes[static_cast<uint32_t>(pid)] =
            std::make_shared<const ProcessImages>(ProcessImages::read(signature, _modules, _remarks));
    }
}

void Symbolizer::readChildren(const Dictionary& signature)
{
    const auto children = signature.get<Array>(signature::kChildren);
    if (!children)
        return;
    for (const Ref<Object>& item : children->items()) {
        const auto* child = as<const Dictionary>(static_cast<const Object*>(item.get()));
        const auto pid = child ? child->get<Number>(signature::kPid) : nullptr;
        if (pid && pid->int64Value() > 0 && _processes.count(static_cast<uint32_t>(pid->int64Value())) == 0)
            readSignature(pid->int64Value(), *child);
    }
}

void Symbolizer::noteFork(uint32_t parent, uint32_t child)
{
    if (_processes.count(child) != 0)
        return;
    const auto found = _processes.find(parent);
    if (found != _processes.end())
        _processes[child] = std::shared_ptr<const ProcessImages>(found->second);
}

const ProcessImages* Symbolizer::process(uint32_t pid) const
{
    const auto found = _processes.find(pid);
    return found == _processes.end() ? nullptr : found->second.get();
}

Symbolizer::Resolved Symbolizer::resolve(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role)
{
    const bool isKernel = address >= kFirstKernelAddress;
    const AddressKey key{isKernel ? 0 : pid, role, address};
    const auto found = _seen.find(key);
    if (found != _seen.end() && found->second.valid.contains(timeNs))
        return found->second;
    const Resolved resolved = resolveNew(pid, address, timeNs, role);
    if (_seen.size() >= kMaxSeen)
        _seen.clear();
    _seen[key] = resolved;
    return resolved;
}

Symbolizer::Resolved Symbolizer::resolveNew(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role)
{
    const uint64_t back = role == FrameRole::kReturn && address != 0 ? 1 : 0;
    if (address >= kFirstKernelAddress)
        return {kernelSymbol(address - back), {}};
    const ProcessImages* images = process(pid);
    if (!images)
        return {unmapped(address), {}};
    const ProcessImages::Location location = images->locate(address - back, timeNs);
    if (const auto compiled = images->jit().find(address - back))
        return {jitSymbol(pid, *compiled), location.valid};
    if (!location.known)
        return {unmapped(address), location.valid};
    return {moduleSymbol(location.module, location.fileOffset, role), location.valid};
}

std::span<const SourceFrame> Symbolizer::frames(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role)
{
    const AddressKey key{address >= kFirstKernelAddress ? 0 : pid, role, address};
    const auto found = _seenFrames.find(key);
    if (found != _seenFrames.end() && found->second.valid.contains(timeNs))
        return found->second.frames;
    const Resolved resolved = resolve(pid, address, timeNs, role);
    SeenFrames seen{plainFrame(resolved.symbol), resolved.valid};
    const ProcessImages* images = address < kFirstKernelAddress ? process(pid) : nullptr;
    if (images && !isSignalReturn(_symbols[resolved.symbol].function)) {
        const uint64_t back = role == FrameRole::kReturn && address != 0 ? 1 : 0;
        const ProcessImages::Location location = images->locate(address - back, timeNs);
        if (location.known)
            seen.frames = chainOf(location.module, location.fileOffset, role, resolved.symbol);
    }
    if (_seenFrames.size() >= kMaxSeen)
        _seenFrames.clear();
    _seenFrames[key] = seen;
    return seen.frames;
}

std::span<const SourceFrame> Symbolizer::chainOf(uint32_t number, uint64_t fileOffset, FrameRole role, uint32_t symbol)
{
    const SymbolKey key{number << 1 | static_cast<uint32_t>(role), fileOffset};
    const auto known = _chains.find(key);
    if (known != _chains.end())
        return known->second;
    const bool isStored = _modules.module(number).stored && _modules.module(number).stored->find(fileOffset, role);
    std::vector<SourceFrame> chain;
    if (!isStored || _sources.collector)
        chain = chainOfFile(number, fileOffset, symbol);
    if (isStored && chain.empty())
        chain = storedChain(number, fileOffset, role);
    if (chain.empty() || _chains.size() >= kMaxChains)
        return plainFrame(symbol);
    return _chains.emplace(key, std::move(chain)).first->second;
}

std::vector<SourceFrame> Symbolizer::chainOfFile(uint32_t number, uint64_t fileOffset, uint32_t symbol)
{
    const auto address = _modules.loaded(number).loadMap.linkedAddress(fileOffset);
    SourceLines* lines = address ? _modules.lines(number) : nullptr;
    if (!lines)
        return {};
    const std::vector<LineFrame> found = lines->find(*address);
    std::vector<SourceFrame> chain;
    chain.reserve(found.size());
    for (const LineFrame& frame : found) {
        const std::string& file = *_files.insert(frame.file.substr(0, kMaxFileNameBytes)).first;
        chain.push_back({frame.isInlined ? inlinedSymbol(number, frame.function) : symbol, file,
                         static_cast<uint32_t>(frame.line), frame.isInlined});
    }
    return chain;
}

std::vector<SourceFrame> Symbolizer::storedChain(uint32_t number, uint64_t fileOffset, FrameRole role)
{
    const StoredSymbols::ModulePart& stored = *_modules.module(number).stored;
    const StoredSymbols::Address& address = *stored.find(fileOffset, role);
    std::vector<SourceFrame> chain;
    for (const auto& line : std::span(stored.lines).subspan(address.firstLine, address.lineCount)) {
        const StoredSymbols::Function& function = stored.functions[line.function];
        chain.push_back({storedSymbol(number, function), line.file, line.line,
                         function.kind == StoredSymbols::FunctionKind::kInlined});
    }
    return chain;
}

std::span<const SourceFrame> Symbolizer::plainFrame(uint32_t symbol)
{
    const auto entry = _plain.try_emplace(symbol, SourceFrame{symbol, {}, 0, false}).first;
    return {&entry->second, 1};
}

uint32_t Symbolizer::inlinedSymbol(uint32_t number, std::string_view function)
{
    const auto [entry, isNew] = _inlined.try_emplace(std::to_string(number).append(" ").append(function), 0);
    if (isNew) {
        const Module& module = _modules.module(number);
        entry->second = static_cast<uint32_t>(_symbols.size());
        const bool isNamed = !function.empty();
        _symbols.push_back({isNamed ? std::string(function) : "[unknown] in " + module.name, module.name, module.path,
                            isNamed ? Symbol::Kind::kFunction : Symbol::Kind::kUnknown, false});
    }
    return entry->second;
}

uint32_t Symbolizer::moduleLabel(uint32_t symbol)
{
    if (_symbols[symbol].module.empty())
        return symbol;
    Symbol label = _symbols[symbol];
    const auto [entry, isNew] = _labels.try_emplace(label.module + " " + label.path, 0);
    if (isNew) {
        entry->second = static_cast<uint32_t>(_symbols.size());
        label.function = label.module;
        label.kind = Symbol::Kind::kFunction;
        label.start = 0;
        _symbols.push_back(std::move(label));
    }
    return entry->second;
}

uint32_t Symbolizer::lineLabel(const SourceFrame& frame)
{
    if (frame.file.empty() || frame.line == 0)
        return frame.symbol;
    const std::string file(frame.file);
    const std::string place = ":" + std::to_string(frame.line) + " in ";
    const auto [entry, isNew] = _labels.try_emplace(std::to_string(frame.symbol) + place + file, 0);
    if (isNew) {
        entry->second = static_cast<uint32_t>(_symbols.size());
        Symbol label = _symbols[frame.symbol];
        label.function = file.substr(file.rfind('/') + 1) + place + label.function;
        label.sourceFile = file;
        label.line = frame.line;
        _symbols.push_back(std::move(label));
    }
    return entry->second;
}

uint32_t Symbolizer::kernelSymbol(uint64_t address)
{
    const auto found = _kernel.find(address);
    const SymbolKey key{kKernelOwner, found ? found->start : kNoFunction};
    const auto known = _numbers.find(key);
    if (known != _numbers.end())
        return known->second;
    const std::string kernel(kKernelName);
    if (found)
        return intern(key, {*found->name, *found->module, *found->module, Symbol::Kind::kFunction, true});
    return intern(key, {"[unknown] in " + kernel, kernel, kernel, Symbol::Kind::kUnknown, true});
}

uint32_t Symbolizer::moduleSymbol(uint32_t number, uint64_t fileOffset, FrameRole role)
{
    const Module& module = _modules.module(number);
    const StoredSymbols::Address* stored = module.stored ? module.stored->find(fileOffset, role) : nullptr;
    std::optional<uint32_t> symbol;
    if (!stored || _sources.collector)
        symbol = symbolOfFile(number, fileOffset, role);
    if (!symbol && stored) {
        symbol = storedSymbol(number, module.stored->functions[stored->function]);
        if (!module.stored->remark.empty())
            _remarks.add(std::string(module.stored->remark));
    }
    if (!symbol)
        symbol = storedSymbol(number, {"[unknown] in " + module.name, StoredSymbols::FunctionKind::kUnknown, 0});
    if (_sources.collector)
        collect(number, fileOffset, role, *symbol);
    return *symbol;
}

std::optional<uint32_t> Symbolizer::symbolOfFile(uint32_t number, uint64_t fileOffset, FrameRole role)
{
    const Module& module = _modules.loaded(number);
    const auto address = module.loadMap.linkedAddress(fileOffset);
    if (!address)
        return std::nullopt;
    std::optional<ElfSymbols::Symbol> found = module.symbols.find(*address);
    if (role == FrameRole::kReturn) {
        const auto behind = module.symbols.find(*address + 1);
        if (behind && behind->start == *address + 1 && isSignalReturn(behind->name))
            found = behind;
    }
    if (!found)
        return std::nullopt;
    const SymbolKey key{number, found->start};
    const auto known = _numbers.find(key);
    if (known != _numbers.end())
        return known->second;
    return intern(
        key, {demangled(found->name), module.name, module.path, Symbol::Kind::kFunction, false, {}, 0, found->start});
}

uint32_t Symbolizer::storedSymbol(uint32_t number, const StoredSymbols::Function& function)
{
    const Module& module = _modules.module(number);
    if (function.kind == StoredSymbols::FunctionKind::kInlined)
        return inlinedSymbol(number, function.name);
    const bool isKnown = function.kind == StoredSymbols::FunctionKind::kFunction;
    const SymbolKey key{number, isKnown ? function.start : kNoFunction};
    const auto known = _numbers.find(key);
    if (known != _numbers.end())
        return known->second;
    return intern(key,
                  {std::string(function.name),
                   module.name,
                   module.path,
                   isKnown ? Symbol::Kind::kFunction : Symbol::Kind::kUnknown,
                   false,
                   {},
                   0,
                   function.start});
}

StoredSymbolsWriter::Function Symbolizer::functionOf(uint32_t symbol, bool isInlined) const
{
    const Symbol& of = _symbols[symbol];
    if (isInlined)
        return {of.function, StoredSymbols::FunctionKind::kInlined, 0};
    if (of.kind == Symbol::Kind::kUnknown)
        return {of.function, StoredSymbols::FunctionKind::kUnknown, 0};
    return {of.function, StoredSymbols::FunctionKind::kFunction, of.start};
}

void Symbolizer::collect(uint32_t number, uint64_t fileOffset, FrameRole role, uint32_t symbol)
{
    const Module& module = _modules.module(number);
    const StoredSymbolsWriter::ModuleName name{module.path, module.buildId, module.is64Bit};
    if (_sources.collector->has(name, fileOffset, role))
        return;
    std::vector<StoredSymbolsWriter::Line> lines;
    if (!isSignalReturn(_symbols[symbol].function)) {
        for (const SourceFrame& frame : chainOf(number, fileOffset, role, symbol))
            lines.push_back({functionOf(frame.symbol, frame.inlined), std::string(frame.file), frame.line});
    }
    if (lines.size() == 1 && lines.front().file.empty() && lines.front().line == 0)
        lines.clear();
    _sources.collector->add(name, fileOffset, role, functionOf(symbol, false), lines);
    if (!module.remark.empty())
        _sources.collector->setRemark(name, module.remark);
    else if (module.stored)
        _sources.collector->setRemark(name, std::string(module.stored->remark));
}

uint32_t Symbolizer::jitSymbol(uint32_t pid, const JitSymbols::Symbol& found)
{
    // Process ids have 22 bits at most, and modules are far fewer than 2^31.
    const SymbolKey key{uint32_t{1} << 31 | (pid & 0x3fffffff), found.start};
    const auto known = _numbers.find(key);
    if (known != _numbers.end())
        return known->second;
    return intern(key, {std::string(found.name), "[jit]", "[jit]", Symbol::Kind::kFunction, false});
}

uint32_t Symbolizer::unmapped(uint64_t address)
{
    SymbolKey key{kUnmappedOwner, address};
    const auto known = _numbers.find(key);
    if (known != _numbers.end())
        return known->second;
    if (_unmapped >= kMaxUnmapped) {
        key.start = kNoFunction;
        const auto rest = _numbers.find(key);
        return rest != _numbers.end() ? rest->second
                                      : intern(key, {"[unknown]", "", "", Symbol::Kind::kUnknown, false});
    }
    ++_unmapped;
    char text[32];
    std::snprintf(text, sizeof text, "0x%" PRIx64, address);
    return intern(key, {text, "", "", Symbol::Kind::kUnknown, false});
}

uint32_t Symbolizer::intern(const SymbolKey& key, Symbol symbol)
{
    const auto number = static_cast<uint32_t>(_symbols.size());
    _symbols.push_back(std::move(symbol));
    _numbers.emplace(key, number);
    return number;
}

} // namespace vnt
