#include "preload/redirect.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <link.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/uio.h>

#include "preload/counting.h"
#include "preload/definitions.h"
#include "preload/followModules.h"
#include "preload/raw.h"
#include "preload/real.h"

namespace vnt {

namespace {

constexpr uintptr_t kPageBytes = 4096;
constexpr size_t kMaxFunctions = 96; // this library exports half as many
constexpr size_t kMaxRanges = 8;

#ifdef __x86_64__
using Relocation = ElfW(Rela);
constexpr unsigned kJumpSlot = R_X86_64_JUMP_SLOT, kGlobalData = R_X86_64_GLOB_DAT, kAbsolute = R_X86_64_64;
constexpr ElfW(Sxword) kRelocations = DT_RELA, kRelocationBytes = DT_RELASZ;
unsigned typeOf(const Relocation& relocation) { return ELF64_R_TYPE(relocation.r_info); }
size_t symbolOf(const Relocation& relocation) { return ELF64_R_SYM(relocation.r_info); }
#else
using Relocation = ElfW(Rel);
constexpr unsigned kJumpSlot = R_386_JMP_SLOT, kGlobalData = R_386_GLOB_DAT, kAbsolute = R_386_32;
constexpr ElfW(Sword) kRelocations = DT_REL, kRelocationBytes = DT_RELSZ;
unsigned typeOf(const Relocation& relocation) { return ELF32_R_TYPE(relocation.r_info); }
size_t symbolOf(const Relocation& relocation) { return ELF32_R_SYM(relocation.r_info); }
#endif

/// One function of this library that stands for another of the same name.
struct Function {
    const char* name;
    uintptr_t own;
    uintptr_t original; ///< 0: not known
    bool isOperator; ///< of the C++ language
    bool isCounting; ///< see counting.h
};
Function functions[kMaxFunctions];
size_t functionCount;
unsigned long long loadsSeen; // dl_phdr_info::dlpi_adds, at the latest walk that redirected
bool redirectsCounting;

struct Range {
    uintptr_t begin;
    uintptr_t end;
};

/// A module's dynamic section, as far as it matters.
struct Module {
    uintptr_t base;
    const ElfW(Phdr) * segments;
    size_t segmentCount;
    const ElfW(Sym) * symbols;
    const char* strings;
    const Relocation* plain;
    size_t plainCount;
    const Relocation* calls;
    size_t callCount;
    bool hasRunPath; ///< or other ways of its own to find libraries
    bool hasInheritedPath; ///< DT_RPATH: in effect for what its libraries load, too
};

/// One walk over all modules.
struct Walk {
    bool restores;
    Range cxxLibraries[kMaxRanges]; ///< code that a plain operator new is
    size_t cxxCount;
    unsigned long long loads;
    Redirected result;
};

/// Who wants which library.
struct Search {
    const void* caller;
    bool byName; ///< it is searched for
    bool isFirst; ///< the module looked at is the program
    bool isFound; ///< the caller is
    bool isSpecial; ///< who the caller is matters
};

/// Pages that the loader made read-only, made writable for as long as this lives.
class Unprotected {
public:
    explicit Unprotected(const Module& module)
    {
        for (size_t i = 0; i < module.segmentCount; ++i) {
            if (module.segments[i].p_type != PT_GNU_RELRO)
                continue;
            // As the loader rounds (_dl_protect_relro()).
            _begin = (module.base + module.segments[i].p_vaddr) & ~(kPageBytes - 1);
            _end = (module.base + module.segments[i].p_vaddr + module.segments[i].p_memsz) & ~(kPageBytes - 1);
        }
    }
    ~Unprotected()
    {
        if (_writable)
            (void)::mprotect(reinterpret_cast<void*>(_begin), _end - _begin, PROT_READ);
    }
    Unprotected(const Unprotected&) = delete;
    Unprotected& operator=(const Unprotected&) = delete;

    bool store(uintptr_t place, uintptr_t value)
    {
        auto* slot = reinterpret_cast<uintptr_t*>(place);
        if (!_writable && place >= _begin && place < _end) {
            // Another thread may be within the loader's work on this module: then the page is writable still, and has
            // to stay so. The kernel writes as the page allows.
            iovec local{&value, sizeof value};
            iovec remote{slot, sizeof value};
            const long written = raw::call(SYS_process_vm_writev, raw::call(SYS_getpid), raw::argument(&local), 1,
                                           raw::argument(&remote), 1, 0);
            if (written == sizeof value)
                return true;
            if (written != -EFAULT)
                return false;
            _writable = ::mprotect(reinterpret_cast<void*>(_begin), _end - _begin, PROT_READ | PROT_WRITE) == 0;
            if (!_writable)
                return false;
        }
        __atomic_store_n(slot, value, __ATOMIC_RELEASE);
        return true;
    }

private:
    uintptr_t _begin = 0;
    uintptr_t _end = 0;
    bool _writable = false;
};

/// The loader has replaced addresses by where they came to be, except in the kernel's own module.
template <typename T> T* at(const Module& module, ElfW(Addr) address)
{
    return reinterpret_cast<T*>(address < module.base ? address + module.base : address);
}

bool readModule(const dl_phdr_info& info, Module& module)
{
    module = {};
    module.base = info.dlpi_addr;
    module.segments = info.dlpi_phdr;
    module.segmentCount = info.dlpi_phnum;
    const ElfW(Dyn)* entry = nullptr;
    for (size_t i = 0; i < module.segmentCount; ++i) {
        if (module.segments[i].p_type == PT_DYNAMIC)
            entry = reinterpret_cast<const ElfW(Dyn)*>(module.base + module.segments[i].p_vaddr);
    }
    for (; entry && entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_SYMTAB)
            module.symbols = at<const ElfW(Sym)>(module, entry->d_un.d_ptr);
        else if (entry->d_tag == DT_STRTAB)
            module.strings = at<const char>(module, entry->d_un.d_ptr);
        else if (entry->d_tag == kRelocations)
            module.plain = at<const Relocation>(module, entry->d_un.d_ptr);
        else if (entry->d_tag == kRelocationBytes)
            module.plainCount = entry->d_un.d_val / sizeof(Relocation);
        else if (entry->d_tag == DT_JMPREL)
            module.calls = at<const Relocation>(module, entry->d_un.d_ptr);
        else if (entry->d_tag == DT_PLTRELSZ)
            module.callCount = entry->d_un.d_val / sizeof(Relocation);
        else if (entry->d_tag == DT_RPATH)
            module.hasInheritedPath = true;
        else if (entry->d_tag == DT_RUNPATH || (entry->d_tag == DT_FLAGS_1 && (entry->d_un.d_val & DF_1_NODEFLIB) != 0))
            module.hasRunPath = true;
    }
    return module.symbols && module.strings;
}

bool isInSegment(const Module& module, uintptr_t address, unsigned flag)
{
    for (size_t i = 0; i < module.segmentCount; ++i) {
        const ElfW(Phdr)& segment = module.segments[i];
        const uintptr_t begin = module.base + segment.p_vaddr;
        if (segment.p_type == PT_LOAD && (segment.p_flags & flag) != 0 && address >= begin
            && address - begin < segment.p_memsz)
            return true;
    }
    return false;
}

Function* functionNamed(const char* name)
{
    for (size_t i = 0; i < functionCount; ++i) {
        if (functions[i].name[0] == name[0] && ::strcmp(functions[i].name, name) == 0)
            return &functions[i];
    }
    return nullptr;
}

bool isPlainOperator(const Walk& walk, uintptr_t address)
{
    for (size_t i = 0; i < walk.cxxCount; ++i) {
        if (address >= walk.cxxLibraries[i].begin && address < walk.cxxLibraries[i].end)
            return true;
    }
    return false;
}

/// Whether the place leads to what this library stands for: the function itself, or the code that would look it up.
bool leadsToOriginal(const Walk& walk, const Module& module, Function& function, bool isCall, bool isDefined,
                     uintptr_t value)
{
    if (function.isCounting && !redirectsCounting)
        return false;
    if (isCall && !isDefined && isInSegment(module, value, PF_X))
        return function.original != 0;
    if (function.isOperator && function.original == 0 && isPlainOperator(walk, value))
        function.original = value;
    return function.original != 0 && value == function.original;
}

void visit(Walk& walk, const Module& module, Unprotected& pages, const Relocation& relocation)
{
    const unsigned type = typeOf(relocation);
    if (type != kJumpSlot && type != kGlobalData && type != kAbsolute)
        return;
    const ElfW(Sym)& symbol = module.symbols[symbolOf(relocation)];
    Function* function = symbol.st_name == 0 ? nullptr : functionNamed(module.strings + symbol.st_name);
    const uintptr_t place = module.base + relocation.r_offset;
    if (!function || place % sizeof(uintptr_t) != 0 || !isInSegment(module, place, PF_W))
        return;
    auto* slot = reinterpret_cast<uintptr_t*>(place);
    const uintptr_t value = __atomic_load_n(slot, __ATOMIC_RELAXED);
    uintptr_t wanted = function->own;
    if (walk.restores) {
        if (value != function->own || function->original == 0)
            return;
        wanted = function->original;
    } else if (!leadsToOriginal(walk, module, *function, type == kJumpSlot, symbol.st_shndx != SHN_UNDEF, value)) {
        walk.result.places += value == function->own; // done before
        return;
    }
    const bool stored = pages.store(place, wanted);
    walk.result.places += stored;
    walk.result.refused += !stored;
}

int visitModule(dl_phdr_info* info, size_t, void* data)
{
    auto& walk = *static_cast<Walk*>(data);
    walk.loads = info->dlpi_adds;
    Module module;
    if (!readModule(*info, module) || isInSegment(module, reinterpret_cast<uintptr_t>(&functions), PF_W))
        return 0;
    Unprotected pages(module);
    for (size_t i = 0; i < module.plainCount; ++i)
        visit(walk, module, pages, module.plain[i]);
    for (size_t i = 0; i < module.callCount; ++i)
        visit(walk, module, pages, module.calls[i]);
    return 0;
}

/// The C++ libraries, and what this library exports.
int lookAtModule(dl_phdr_info* info, size_t, void* data)
{
    auto& walk = *static_cast<Walk*>(data);
    Module module;
    if (!readModule(*info, module))
        return 0;
    const char* file = info->dlpi_name ? info->dlpi_name : ""; // the program's is empty
    // An allocator that is a library of its own often has the operators, too, which do what its malloc does.
    const bool isAllocator = file[0] != 0 && !::strstr(file, "/libc.so") && !::strstr(file, "/libc-")
        && isInSegment(module, reinterpret_cast<uintptr_t>(realAllocator.malloc), PF_X);
    const bool hasPlainOperators = isAllocator || ::strstr(file, "libstdc++") || ::strstr(file, "libc++");
    for (size_t i = 0; hasPlainOperators && i < module.segmentCount && walk.cxxCount < kMaxRanges; ++i) {
        const ElfW(Phdr)& segment = module.segments[i];
        const uintptr_t begin = module.base + segment.p_vaddr;
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0)
            walk.cxxLibraries[walk.cxxCount++] = {begin, begin + segment.p_memsz};
    }
    if (functionCount != 0 || !isInSegment(module, reinterpret_cast<uintptr_t>(&functions), PF_W))
        return 0;
    // The string table follows the symbol table, as every linker lays them out: that is its end.
    const auto* end = reinterpret_cast<const ElfW(Sym)*>(module.strings);
    for (const ElfW(Sym)* symbol = module.symbols + 1; symbol + 1 <= end && functionCount < kMaxFunctions; ++symbol) {
        const char* name = module.strings + symbol->st_name;
        if (symbol->st_shndx != SHN_UNDEF && (symbol->st_info & 0xf) == STT_FUNC && ::strncmp(name, "vntJ", 4) != 0)
            functions[functionCount++] = {name, module.base + symbol->st_value, 0, name[0] == '_' && name[1] == 'Z',
                                          isCountingFunction(name)};
    }
    for (const LoaderFunction& function : kLoaderFunctions) {
        if (functionCount < kMaxFunctions)
            functions[functionCount++] = {function.name, reinterpret_cast<uintptr_t>(function.own), 0, false, false};
    }
    return 0;
}

/// A C++ library that is gone.
void forgetUnloaded(const Walk& walk)
{
    for (size_t i = 0; i < functionCount; ++i) {
        Function& function = functions[i];
        if (function.isOperator && function.original != 0 && !isPlainOperator(walk, function.original))
            function.original = 0;
    }
}

int lookAtCaller(dl_phdr_info* info, size_t, void* data)
{
    auto& search = *static_cast<Search*>(data);
    Module module;
    if (!readModule(*info, module))
        return 0;
    if (isInSegment(module, reinterpret_cast<uintptr_t>(search.caller), PF_X)) {
        search.isFound = true;
        search.isSpecial |= search.byName && module.hasRunPath;
    }
    search.isSpecial |= !search.isFirst && module.hasInheritedPath; // the program's is in effect for everybody
    search.isFirst = false;
    return 0;
}

int countLoads(dl_phdr_info* info, size_t, void* data)
{
    *static_cast<unsigned long long*>(data) = info->dlpi_adds;
    return 1;
}

/// Takes the loader's lock of its list only.
void findCounting()
{
    for (size_t i = 0; i < functionCount; ++i) {
        Function& function = functions[i];
        if (function.isCounting && redirectsCounting && function.original == 0)
            function.original = reinterpret_cast<uintptr_t>(findDefinition(function.name).function);
    }
}

void findOriginals(const Walk& walk)
{
    findCounting();
    for (size_t i = 0; i < functionCount; ++i) {
        Function& function = functions[i];
        if (function.isCounting || function.original != 0 || (function.isOperator && walk.cxxCount == 0))
            continue; // each look-up takes the lock that whoever loads a module holds
        const auto found = reinterpret_cast<uintptr_t>(::dlsym(RTLD_DEFAULT, function.name));
        if (!found || isOwnCode(reinterpret_cast<void*>(found)))
            continue;
        // A program's own operators are its own affair: what they call is redirected.
        if (!function.isOperator || isPlainOperator(walk, found))
            function.original = found;
    }
}

extern "C" __attribute__((visibility("hidden"))) const ElfW(Ehdr) __ehdr_start; // the linker's
extern "C" __attribute__((visibility("hidden"))) char _end[];

} // namespace

bool isOwnCode(const void* address)
{
    return address >= static_cast<const void*>(&__ehdr_start) && address < static_cast<const void*>(_end);
}

void redirectCounting(bool wanted) { redirectsCounting = wanted; }

Redirected redirectModules()
{
    Walk walk{};
    ::dl_iterate_phdr(lookAtModule, &walk);
    forgetUnloaded(walk);
    findOriginals(walk); // outside the walk: it takes another of the loader's locks
    ::dl_iterate_phdr(visitModule, &walk);
    loadsSeen = walk.loads;
    return walk.result;
}

bool hasNewModules()
{
    unsigned long long loads = 0;
    ::dl_iterate_phdr(countLoads, &loads);
    return loads != __atomic_load_n(&loadsSeen, __ATOMIC_RELAXED);
}

void redirectNewModules()
{
    Walk walk{};
    ::dl_iterate_phdr(lookAtModule, &walk);
    forgetUnloaded(walk);
    findCounting();
    ::dl_iterate_phdr(visitModule, &walk);
    __atomic_store_n(&loadsSeen, walk.loads, __ATOMIC_RELAXED);
}

void restoreModules()
{
    Walk walk{};
    ::dl_iterate_phdr(lookAtModule, &walk);
    forgetUnloaded(walk);
    walk.restores = true;
    ::dl_iterate_phdr(visitModule, &walk);
}

bool isFoundAlike(const char* file, const void* caller)
{
    if (::strchr(file, '$'))
        return false;
    Search search{caller, !::strchr(file, '/'), true, false, false};
    ::dl_iterate_phdr(lookAtCaller, &search);
    return search.isFound && !search.isSpecial;
}

void* redirectedFunction(const char* name)
{
    const Function* function = functionNamed(name);
    return function ? reinterpret_cast<void*>(function->original) : nullptr;
}

} // namespace vnt
