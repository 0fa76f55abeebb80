#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bundle/ElfSymbols.h"
#include "bundle/Remarks.h"
#include "bundle/SourceLines.h"
#include "bundle/SymbolSources.h"
#include "bundle/VirtualTables.h"

namespace vnt {

/// One file that was mapped into recorded processes, with its symbols.
struct Module {
    std::string name; ///< last part of the path, for people
    std::string path; ///< as recorded; "[vdso]" and the like for what is no file
    std::string buildId; ///< as recorded; may be empty
    std::string file; ///< where the recorded file can be read; empty when it is not there or not the recorded one
    std::string debugFile; ///< its separate debug file, empty when there is none
    std::string remark; ///< what reading it gave to tell
    const StoredSymbols::ModulePart* stored = nullptr; ///< what the bundle itself knows of it; null: nothing
    LoadMap loadMap;
    ElfSymbols symbols;
    bool is64Bit = true;
    bool wasDeleted = false; ///< the file was replaced or removed while it was mapped
};

/// The modules of one bundle, each read once however many processes mapped it. A file that is not the recorded one any
/// more (its build id differs) is not used, and a remark says so. One thread.
class Modules {
public:
    /// Both outlive this.
    Modules(Remarks& remarks, const SymbolSources& sources) : _remarks(remarks), _sources(sources) { }

    /// The recorded image of the kernel's 64-bit vdso, for modules of path "[vdso]".
    void setVdso(std::vector<std::byte> image) { _vdso = std::move(image); }
    /// Number of the module, the same for the same path and build id. Cheap: nothing is read yet.
    uint32_t add(const std::string& path, const std::string& buildId, bool is64Bit);
    /// The module with its symbols, read on the first call for it.
    const Module& loaded(uint32_t number);
    /// The module's source lines, opened on the first call for it; null when it has none.
    SourceLines* lines(uint32_t number);
    /// The module's virtual tables, read on the first call for it; null when its file cannot be read.
    const VirtualTables* virtualTables(uint32_t number);
    [[nodiscard]] const Module& module(uint32_t number) const { return *_modules[number]; }
    [[nodiscard]] size_t count() const { return _modules.size(); }

private:
    void load(Module& module);
    void loadVdso(Module& module);
    void loadFile(Module& module);

    /// Where the recorded file can be read; empty with a remark when nowhere.
    std::string findFile(Module& module);
    std::string fetched(Module& module, bool isDebugFile);
    void remark(Module& module, std::string text);

    Remarks& _remarks;
    const SymbolSources& _sources;
    std::vector<std::byte> _vdso;
    std::vector<std::unique_ptr<Module>> _modules;
    std::vector<bool> _isLoaded;
    std::unordered_map<uint32_t, std::unique_ptr<SourceLines>> _lines; // null: asked for, and has none
    std::unordered_map<uint32_t, std::unique_ptr<const VirtualTables>> _tables; // likewise
    std::map<std::pair<std::string, std::string>, uint32_t> _numbers; // path and build id, width marked in the id
};

} // namespace vnt
