#include "bundle/Modules.h"

#include "bundle/DebugFiles.h"
#include "bundle/DebugServer.h"

namespace vnt {

namespace {

/// What /proc/PID/maps puts behind the path of a file that is gone (proc(5)).
constexpr std::string_view kDeletedMark = " (deleted)";

/// Mappings without a file of their own: anonymous memory, memfds, shared memory segments, devices.
bool isOrdinaryFile(const std::string& path)
{
    return path.starts_with("/") && !path.starts_with("//") && !path.starts_with("/memfd:")
        && !path.starts_with("/SYSV") && !path.starts_with("/dev/");
}

std::string displayName(const std::string& path)
{
    if (path.empty() || path == "//anon")
        return "[anonymous]";
    if (!path.starts_with("/"))
        return path;
    return path.substr(path.rfind('/') + 1);
}

} // namespace

uint32_t Modules::add(const std::string& path, const std::string& buildId, bool is64Bit)
{
    const auto [position, isNew] =
        _numbers.try_emplace({path, buildId + (is64Bit ? "" : " 32")}, static_cast<uint32_t>(_modules.size()));
    if (isNew) {
        auto module = std::make_unique<Module>();
        module->wasDeleted = path.ends_with(kDeletedMark);
        module->path = module->wasDeleted ? path.substr(0, path.size() - kDeletedMark.size()) : path;
        module->name = displayName(module->path);
        module->buildId = buildId;
        module->is64Bit = is64Bit;
        if (_sources.stored)
            module->stored = _sources.stored->module(module->path, buildId, is64Bit);
        _modules.push_back(std::move(module));
        _isLoaded.push_back(false);
    }
    return position->second;
}

const Module& Modules::loaded(uint32_t number)
{
    if (!_isLoaded[number]) {
        _isLoaded[number] = true;
        load(*_modules[number]);
    }
    return *_modules[number];
}

SourceLines* Modules::lines(uint32_t number)
{
    const auto [entry, isNew] = _lines.try_emplace(number);
    if (isNew) {
        const Module& module = loaded(number);
        if (!module.file.empty()) {
            if (auto opened = SourceLines::open(module.file, module.debugFile); opened.ok())
                entry->second = opened.take();
        }
    }
    return entry->second.get();
}

const VirtualTables* Modules::virtualTables(uint32_t number)
{
    const auto [entry, isNew] = _tables.try_emplace(number);
    const Module& module = loaded(number);
    if (!isNew || module.file.empty())
        return entry->second.get();
    auto file = ElfFile::open(module.file);
    if (!file.ok())
        return nullptr;
    auto debugFile =
        module.debugFile.empty() ? Result<ElfFile>(Status(Code::kNotFound, "")) : ElfFile::open(module.debugFile);
    entry->second = std::make_unique<const VirtualTables>(
        VirtualTables::read(file.value(), debugFile.ok() ? &debugFile.value() : nullptr));
    return entry->second.get();
}

void Modules::load(Module& module)
{
    if (module.path == "[vdso]")
        loadVdso(module);
    else if (isOrdinaryFile(module.path))
        loadFile(module);
}

void Modules::loadVdso(Module& module)
{
    if (_vdso.empty() || !module.is64Bit) // the recorded image is the 64-bit one
        return;
    auto file = ElfFile::fromImage(_vdso);
    if (!file.ok()) {
        _remarks.add("the recorded vdso is damaged: " + file.status().message());
        return;
    }
    module.loadMap = file.value().loadMap();
    module.symbols = ElfSymbols::read(file.value(), nullptr);
}

void Modules::remark(Module& module, std::string text)
{
    if (_sources.collector && module.stored)
        return; // what is stored of it stays, with its own remark
    module.remark = text;
    _remarks.add(std::move(text));
}

std::string Modules::fetched(Module& module, bool isDebugFile)
{
    if (!_sources.server || module.buildId.empty())
        return {};
    auto path = isDebugFile ? _sources.server->debugFile(module.buildId, "debug file of " + module.name)
                            : _sources.server->executable(module.buildId, module.name);
    if (path.ok())
        return path.take();
    if (!isDebugFile || path.code() != Code::kNotFound) // many files have none, and names all the same
        _remarks.add(path.status().message());
    return {};
}

std::string Modules::findFile(Module& module)
{
    auto file = ElfFile::open(module.path);
    const bool isOther = file.ok() && !module.buildId.empty() && file.value().buildId() != module.buildId;
    const bool isDoubtful = file.ok() && module.buildId.empty() && module.wasDeleted;
    if (file.ok() && !isOther && !isDoubtful)
        return module.path;
    std::string other = fetched(module, /*isDebugFile=*/false);
    if (!other.empty())
        return other;
    if (!file.ok())
        remark(module, "no symbols of " + module.path + ": " + file.status().message());
    else if (isOther)
        remark(module, "module " + module.path + " has changed since it was recorded; its symbols are not used");
    else
        remark(module, "module " + module.path + " was replaced while it was recorded; its symbols are not used");
    return {};
}

void Modules::loadFile(Module& module)
{
    module.file = findFile(module);
    if (module.file.empty())
        return;
    auto file = ElfFile::open(module.file);
    if (!file.ok()) {
        remark(module, "no symbols of " + module.path + ": " + file.status().message());
        module.file.clear();
        return;
    }
    module.debugFile = findDebugFile(file.value(), module.file);
    if (module.debugFile.empty() && !file.value().hasDebugInformation())
        module.debugFile = fetched(module, /*isDebugFile=*/true);
    std::optional<ElfFile> debugFile;
    if (!module.debugFile.empty()) {
        if (auto opened = ElfFile::open(module.debugFile); opened.ok())
            debugFile = opened.take();
    }
    module.loadMap = file.value().loadMap();
    module.symbols = ElfSymbols::read(file.value(), debugFile ? &*debugFile : nullptr);
    if (module.symbols.count() == 0)
        remark(module, "module " + module.path + " has no symbols");
}

} // namespace vnt
