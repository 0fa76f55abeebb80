#include "bundle/SourceLines.h"

#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>

#include <cstdlib>
#include <cstring>
#include <span>

#include "bundle/Demangle.h"
#include "bundle/ElfFile.h"
#include "platform/base/sys.h"

namespace vnt {

namespace {

/// Deeper inlining is a forged file.
constexpr size_t kMaxScopes = 256;

/// libdwfl's own search would ask servers where the environment names them; we have searched already.
int giveDebugFile(Dwfl_Module*, void** userData, const char*, Dwarf_Addr, const char*, const char*, GElf_Word,
                  char** found)
{
    const auto* path = static_cast<const std::string*>(*userData);
    if (!path || path->empty())
        return -1;
    auto fd = sys::openFile(*path, O_RDONLY | O_NONBLOCK);
    if (!fd.ok())
        return -1;
    *found = ::strdup(path->c_str());
    return fd.value().take();
}

/// The file is given, never searched for.
int findNoElf(Dwfl_Module*, void**, const char*, Dwarf_Addr, char**, Elf**) { return -1; }

const Dwfl_Callbacks kCallbacks = {
    .find_elf = findNoElf,
    .find_debuginfo = giveDebugFile,
    .section_address = dwfl_offline_section_address,
    .debuginfo_path = nullptr,
};

std::string functionName(Dwarf_Die* die)
{
    for (const unsigned attribute : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name}) {
        Dwarf_Attribute value;
        if (const char* name = dwarf_formstring(dwarf_attr_integrate(die, attribute, &value)))
            return demangled(name);
    }
    const char* name = dwarf_diename(die);
    return name ? name : "";
}

/// Where an inlined function was called.
void readCallSite(Dwarf_Die* unit, Dwarf_Die* inlined, LineFrame& frame)
{
    Dwarf_Attribute value;
    Dwarf_Word number = 0;
    if (dwarf_formudata(dwarf_attr(inlined, DW_AT_call_line, &value), &number) == 0 && number <= INT32_MAX)
        frame.line = static_cast<int>(number);
    Dwarf_Files* files = nullptr;
    size_t count = 0;
    if (dwarf_formudata(dwarf_attr(inlined, DW_AT_call_file, &value), &number) == 0
        && dwarf_getsrcfiles(unit, &files, &count) == 0 && number < count) {
        const char* file = dwarf_filesrc(files, number, nullptr, nullptr);
        frame.file = file ? file : "";
    }
}

} // namespace

Result<std::unique_ptr<SourceLines>> SourceLines::open(const std::string& path, const std::string& debugFile)
{
    RETURN_IF_ERROR(ElfFile::open(path).status()); // a device must not hold libdwfl up
    std::unique_ptr<SourceLines> lines(new SourceLines);
    lines->_debugFile = debugFile;
    lines->_dwfl = dwfl_begin(&kCallbacks);
    if (!lines->_dwfl)
        return Status(Code::kInvalid, path + ": " + dwfl_errmsg(-1));
    dwfl_report_begin(lines->_dwfl);
    lines->_module = dwfl_report_offline(lines->_dwfl, path.c_str(), path.c_str(), -1);
    if (!lines->_module || dwfl_report_end(lines->_dwfl, nullptr, nullptr) != 0)
        return Status(Code::kInvalid, path + ": " + dwfl_errmsg(-1));
    void** userData = nullptr;
    dwfl_module_info(lines->_module, &userData, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    *userData = &lines->_debugFile;
    GElf_Addr bias = 0;
    Dwarf_Addr dwarfBias = 0;
    if (!dwfl_module_getelf(lines->_module, &bias) || !dwfl_module_getdwarf(lines->_module, &dwarfBias))
        return Status(Code::kNotFound, path + ": has no debug information");
    lines->_bias = bias;
    return lines;
}

SourceLines::~SourceLines()
{
    if (_dwfl)
        dwfl_end(_dwfl);
}

std::vector<LineFrame> SourceLines::find(uint64_t linkedAddress)
{
    std::vector<LineFrame> frames;
    Dwarf_Addr bias = 0;
    Dwarf_Die* unit = dwfl_module_addrdie(_module, linkedAddress + _bias, &bias);
    if (!unit)
        return frames;
    const Dwarf_Addr address = linkedAddress + _bias - bias;
    LineFrame frame;
    if (Dwarf_Line* line = dwarf_getsrc_die(unit, address)) {
        const char* file = dwarf_linesrc(line, nullptr, nullptr);
        frame.file = file ? file : "";
        dwarf_lineno(line, &frame.line);
    }
    auto known = _units.find(dwarf_dieoffset(unit));
    if (known == _units.end())
        known = _units.emplace(dwarf_dieoffset(unit), UnitScopes(unit)).first;
    uint32_t number = known->second.find(address);
    while (number != CodeScope::kNone && frames.size() < kMaxScopes) { // innermost first
        const CodeScope& scope = known->second.scope(number);
        Dwarf_Die die;
        if (!dwarf_offdie(dwfl_module_getdwarf(_module, &bias), scope.entry, &die))
            break;
        frame.function = functionName(&die);
        frame.isInlined = scope.isInlined;
        frames.push_back(frame);
        if (!frame.isInlined)
            return frames;
        frame = {};
        readCallSite(unit, &die, frame);
        number = scope.parent;
    }
    if (!frames.empty() || frame.line != 0) // the real function is not described, but its line is known
        frames.push_back(frame);
    return frames;
}

} // namespace vnt
