#include "bundle/ElfSymbols.h"

#include <gelf.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "bundle/PltEntries.h"

namespace vnt {

namespace {

/// Far above the largest programs (some 2 million), so that a forged count cannot take the machine's memory.
constexpr size_t kMaxSymbols = 16u << 20;
/// Longer names exist only in forged files.
constexpr size_t kMaxNameBytes = 64u << 10;
constexpr uint64_t kMaxTableBytes = uint64_t{1} << 30;

struct SectionRange {
    uint64_t start = 0;
    uint64_t end = 0;
    bool executable = false;
};

std::vector<SectionRange> sectionRanges(Elf* elf)
{
    std::vector<SectionRange> ranges(1); // index 0 is the undefined section
    Elf_Scn* section = nullptr;
    while ((section = elf_nextscn(elf, section)) != nullptr) {
        GElf_Shdr header{};
        if (!gelf_getshdr(section, &header))
            header = {};
        const uint64_t end = header.sh_addr + std::min(header.sh_size, ~header.sh_addr);
        ranges.push_back(
            {header.sh_addr, end, (header.sh_flags & SHF_EXECINSTR) != 0 && (header.sh_flags & SHF_ALLOC) != 0});
    }
    return ranges;
}

/// .symtab when there is one, else .dynsym.
Elf_Scn* symbolSection(Elf* elf, GElf_Shdr& header)
{
    Elf_Scn* dynamic = nullptr;
    Elf_Scn* section = nullptr;
    while ((section = elf_nextscn(elf, section)) != nullptr) {
        GElf_Shdr each{};
        if (!gelf_getshdr(section, &each) || each.sh_size > kMaxTableBytes || each.sh_type == SHT_NOBITS)
            continue;
        if (each.sh_type == SHT_SYMTAB) {
            header = each;
            return section;
        }
        if (each.sh_type == SHT_DYNSYM)
            dynamic = section;
    }
    if (dynamic)
        gelf_getshdr(dynamic, &header);
    return dynamic;
}

bool hasFullTable(const ElfFile& file)
{
    GElf_Shdr header{};
    return symbolSection(file.handle(), header) && header.sh_type == SHT_SYMTAB;
}

size_t leadingUnderscores(std::string_view name) { return std::min(name.find_first_not_of('_'), name.size()); }

unsigned visibilityRank(unsigned char binding)
{
    return binding == STB_GLOBAL || binding == STB_GNU_UNIQUE ? 0 : binding == STB_WEAK ? 1 : 2;
}

} // namespace

struct ElfSymbols::Candidate {
    uint64_t start = 0;
    uint64_t size = 0;
    uint64_t sectionEnd = 0;
    uint32_t nameOffset = 0;
    uint32_t nameSize = 0;
    unsigned rank = 0;
};

/// Collects candidates; their names go into the table's name store at once.
struct ElfSymbols::Builder {
    ElfSymbols& table;
    std::vector<Candidate> candidates;

    void add(Candidate candidate, std::string_view name, std::string_view suffix = {})
    {
        const size_t size = name.size() + suffix.size();
        if (name.empty() || candidates.size() >= kMaxSymbols
            || table._names.size() + size > std::numeric_limits<uint32_t>::max())
            return;
        candidate.nameOffset = static_cast<uint32_t>(table._names.size());
        candidate.nameSize = static_cast<uint32_t>(size);
        table._names.insert(table._names.end(), name.begin(), name.end());
        table._names.insert(table._names.end(), suffix.begin(), suffix.end());
        candidates.push_back(candidate);
    }

    void addFrom(const ElfFile& file)
    {
        GElf_Shdr header{};
        Elf_Scn* section = symbolSection(file.handle(), header);
        Elf_Data* data = section ? elf_getdata(section, nullptr) : nullptr;
        if (!data || header.sh_entsize == 0)
            return;
        const std::vector<SectionRange> ranges = sectionRanges(file.handle());
        const size_t count = static_cast<size_t>(std::min<uint64_t>(header.sh_size / header.sh_entsize, kMaxSymbols));
        for (size_t i = 0; i < count; ++i) {
            GElf_Sym symbol{};
            if (!gelf_getsym(data, static_cast<int>(i), &symbol))
                return;
            const auto type = GELF_ST_TYPE(symbol.st_info);
            const bool isFunction =
                type == STT_FUNC || type == STT_GNU_IFUNC || (type == STT_NOTYPE && symbol.st_size > 0);
            if (!isFunction || symbol.st_shndx == SHN_UNDEF || symbol.st_shndx >= ranges.size())
                continue;
            const SectionRange& range = ranges[symbol.st_shndx];
            const char* name = elf_strptr(file.handle(), header.sh_link, symbol.st_name);
            if (!name || !range.executable || symbol.st_value < range.start || symbol.st_value >= range.end)
                continue;
            add({symbol.st_value, symbol.st_size, range.end, 0, 0, visibilityRank(GELF_ST_BIND(symbol.st_info))},
                {name, ::strnlen(name, kMaxNameBytes)});
        }
    }
};

ElfSymbols ElfSymbols::read(const ElfFile& file, const ElfFile* debugFile)
{
    ElfSymbols table;
    Builder builder{table, {}};
    builder.addFrom(debugFile && hasFullTable(*debugFile) ? *debugFile : file);
    for (const PltEntry& entry : readPltEntries(file))
        builder.add({entry.start, entry.size, entry.start + entry.size, 0, 0, 2}, entry.name, "@plt");
    table.flatten(builder.candidates);
    return table;
}

/// Ascending; of those with one start the one to be shown comes first.
bool ElfSymbols::isBefore(const Candidate& a, const Candidate& b) const
{
    if (a.start != b.start)
        return a.start < b.start;
    if (a.rank != b.rank)
        return a.rank < b.rank;
    const std::string_view nameA(_names.data() + a.nameOffset, a.nameSize);
    const std::string_view nameB(_names.data() + b.nameOffset, b.nameSize);
    const size_t underscoresA = leadingUnderscores(nameA);
    const size_t underscoresB = leadingUnderscores(nameB);
    if (underscoresA != underscoresB)
        return underscoresA < underscoresB;
    return nameA.size() != nameB.size() ? nameA.size() < nameB.size() : nameA < nameB;
}

/// Keeps one name per start and cuts nested ranges into pieces; n log n.
void ElfSymbols::flatten(std::vector<Candidate>& candidates)
{
    std::sort(candidates.begin(), candidates.end(),
              [this](const Candidate& a, const Candidate& b) { return isBefore(a, b); });
    struct Open {
        uint64_t end = 0;
        uint32_t symbol = 0;
    };
    std::vector<Open> open; // enclosing functions, innermost last
    uint64_t done = 0; // pieces are complete up to here
    const auto advance = [&](uint64_t limit) {
        while (!open.empty() && done < limit) {
            const uint64_t end = std::min(open.back().end, limit);
            if (end > done) {
                addPiece(done, end, open.back().symbol);
                done = end;
            }
            if (open.back().end <= limit)
                open.pop_back();
        }
        done = std::max(done, limit);
    };
    for (size_t i = 0; i < candidates.size();) {
        const Candidate& best = candidates[i];
        uint64_t size = 0;
        for (; i < candidates.size() && candidates[i].start == best.start; ++i)
            size = std::max(size, candidates[i].size);
        const uint64_t next = i < candidates.size() ? candidates[i].start : best.sectionEnd;
        const uint64_t reach = size > 0 ? best.start + std::min(size, ~best.start) : next;
        const uint64_t end = std::max(best.start + 1, std::min(reach, best.sectionEnd));
        advance(best.start);
        open.push_back({end, static_cast<uint32_t>(_symbols.size())});
        _symbols.push_back({best.start, best.nameOffset, best.nameSize});
    }
    advance(std::numeric_limits<uint64_t>::max());
}

void ElfSymbols::addPiece(uint64_t start, uint64_t end, uint32_t symbol)
{
    _pieceStarts.push_back(start);
    _pieces.push_back({end, symbol});
}

std::optional<ElfSymbols::Symbol> ElfSymbols::find(uint64_t linkedAddress) const
{
    const auto next = std::upper_bound(_pieceStarts.begin(), _pieceStarts.end(), linkedAddress);
    if (next == _pieceStarts.begin())
        return std::nullopt;
    const Piece& piece = _pieces[static_cast<size_t>(next - _pieceStarts.begin()) - 1];
    if (linkedAddress >= piece.end)
        return std::nullopt;
    const NamedStart& symbol = _symbols[piece.symbol];
    return Symbol{symbol.start, {_names.data() + symbol.nameOffset, symbol.nameSize}};
}

} // namespace vnt
