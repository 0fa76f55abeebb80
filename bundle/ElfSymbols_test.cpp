#include "bundle/ElfSymbols.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cstdlib>
#include <random>
#include <set>

#include "bundle/DebugFiles.h"
#include "bundle/Demangle.h"
#include "bundle/TestElf.h"
#include "platform/base/sys.h"

extern "C" __attribute__((noinline, used, visibility("default"))) int vntTestOuter(int value)
{
    __asm__ volatile("");
    return value + 1;
}

namespace vnt {
namespace {

using test::kTextAddress;
using test::TestSymbol;

__attribute__((noinline, used)) int vntTestStatic(int value)
{
    __asm__ volatile("");
    return value * 3;
}

std::vector<std::byte> toBytes(const std::string& text)
{
    const auto bytes = std::as_bytes(std::span(text));
    return {bytes.begin(), bytes.end()};
}

std::string nameAt(const ElfSymbols& symbols, uint64_t address)
{
    const auto found = symbols.find(address);
    return found ? std::string(found->name) + "+" + std::to_string(address - found->start) : "-";
}

const std::vector<TestSymbol> kSymbols = {
    {"outer", kTextAddress + 0x100, 0x100},
    {"inner", kTextAddress + 0x140, 0x10},
    {"__longAlias", kTextAddress + 0x140, 0x10},
    {"aLocal", kTextAddress + 0x100, 0x100, STT_FUNC, STB_LOCAL},
    {"aWeak", kTextAddress + 0x140, 0x10, STT_FUNC, STB_WEAK},
    {"sizeless", kTextAddress + 0x300, 0},
    {"next", kTextAddress + 0x340, 8},
    {"label", kTextAddress + 0x400, 4, STT_NOTYPE},
    {"sizelessLabel", kTextAddress + 0x500, 0, STT_NOTYPE},
    {"indirect", kTextAddress + 0x600, 4, STT_GNU_IFUNC},
    {"object", kTextAddress + 0x700, 4, STT_OBJECT},
    {"inData", kTextAddress + 0x1010, 4, STT_FUNC, STB_GLOBAL, 2},
    {"outsideItsSection", 0x10, 4},
    {"undefined", kTextAddress + 0x800, 4, STT_FUNC, STB_GLOBAL, SHN_UNDEF},
    {"endless", kTextAddress + 0x900, ~0ull},
    {"inEndless", kTextAddress + 0xa00, 0x10},
    {"last", kTextAddress + 0xff0, 0},
};

template <typename Format> void expectRules()
{
    auto file = ElfFile::fromImage(toBytes(test::testElf<Format>(kSymbols, std::string("\x0a\xbc", 2))));
    ASSERT_TRUE(file.ok());
    EXPECT_EQ(file.value().buildId(), "0abc");
    const ElfSymbols symbols = ElfSymbols::read(file.value(), nullptr);
    const struct {
        const char* what;
        uint64_t offset;
        const char* name;
    } rows[] = {
        {"below all", 0x0, "-"},
        {"first byte; the global name wins", 0x100, "outer+0"},
        {"before the nested one", 0x13f, "outer+63"},
        {"nested, the plainest global name", 0x140, "inner+0"},
        {"nested, last byte", 0x14f, "inner+15"},
        {"behind the nested one", 0x150, "outer+80"},
        {"last byte", 0x1ff, "outer+255"},
        {"gap", 0x200, "-"},
        {"without size: up to the next", 0x33f, "sizeless+63"},
        {"next", 0x340, "next+0"},
        {"sized label", 0x403, "label+3"},
        {"label without size is no function", 0x500, "-"},
        {"indirect function", 0x600, "indirect+0"},
        {"data", 0x700, "-"},
        {"undefined", 0x800, "-"},
        {"size that wraps", 0x900, "endless+0"},
        {"within it", 0xa0f, "inEndless+15"},
        {"within it, again itself", 0xa10, "endless+272"},
        {"without size: to the section's end", 0xfff, "last+15"},
        {"sizes end with the section", 0x1010, "-"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(nameAt(symbols, kTextAddress + row.offset), row.name) << row.what;
    EXPECT_EQ(nameAt(symbols, 0x10), "-");
    EXPECT_EQ(nameAt(symbols, 0), "-");
    EXPECT_EQ(file.value().loadMap().linkedAddress(test::kTextOffset + 0x123), kTextAddress + 0x123);
    EXPECT_EQ(file.value().loadMap().linkedAddress(test::kTextOffset + test::kTextSize), std::nullopt);
}

TEST(ElfSymbols, FollowTheRulesForNestedAliasedAndSizelessSymbols)
{
    expectRules<test::Elf64>();
    expectRules<test::Elf32>();
}

TEST(ElfSymbols, FindFunctionsOfTheRunningProgramAndTheCLibrary)
{
    auto self = ElfFile::open("/proc/self/exe");
    ASSERT_TRUE(self.ok());
    const ElfSymbols symbols = ElfSymbols::read(self.value(), nullptr);
    uint64_t bias = 0;
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* result) {
            *static_cast<uint64_t*>(result) = info->dlpi_addr;
            return 1; // the program itself comes first
        },
        &bias);
    EXPECT_EQ(nameAt(symbols, reinterpret_cast<uint64_t>(&vntTestOuter) - bias), "vntTestOuter+0");
    const auto local = symbols.find(reinterpret_cast<uint64_t>(&vntTestStatic) - bias + 1);
    ASSERT_TRUE(local);
    EXPECT_EQ(demangled(local->name), "vnt::(anonymous namespace)::vntTestStatic(int)");

    Dl_info libc{};
    ASSERT_NE(::dladdr(::dlsym(RTLD_DEFAULT, "getenv"), &libc), 0);
    const std::string libcPath = libc.dli_fname;
    auto file = ElfFile::open(libcPath);
    ASSERT_TRUE(file.ok());
    const ElfSymbols exported = ElfSymbols::read(file.value(), nullptr);
    EXPECT_GT(exported.count(), 1000u);
    for (const char* name : {"qsort", "strtol", "fopen", "getenv"}) {
        void* address = ::dlsym(RTLD_DEFAULT, name);
        ASSERT_NE(::dladdr(address, &libc), 0);
        if (libc.dli_fname != libcPath)
            continue; // a sanitizer stands before it
        const auto found =
            exported.find(reinterpret_cast<uint64_t>(address) - reinterpret_cast<uint64_t>(libc.dli_fbase));
        ASSERT_TRUE(found) << name;
        EXPECT_EQ(demangled(found->name), name);
    }
}

TEST(ElfSymbols, NamePltEntriesAfterTheirTargets)
{
    auto self = ElfFile::open("/proc/self/exe");
    ASSERT_TRUE(self.ok());
    const ElfSymbols symbols = ElfSymbols::read(self.value(), nullptr);
    std::set<std::string_view> names;
    const auto size = static_cast<uint64_t>(sys::statFile("/proc/self/exe").take().st_size);
    for (uint64_t offset = 0; offset < size; offset += 8) {
        const auto address = self.value().loadMap().linkedAddress(offset);
        const auto found = address ? symbols.find(*address) : std::nullopt;
        if (found && found->name.ends_with("@plt"))
            names.insert(found->name);
    }
    if (names.empty())
        GTEST_SKIP() << "this program was linked without a procedure linkage table";
    EXPECT_TRUE(names.count("dl_iterate_phdr@plt")) << "called by the test above";
}

TEST(ElfSymbols, HostileFilesGiveFewerSymbolsAndNoCrash)
{
    for (const std::string& whole :
         {test::testElf<test::Elf64>(kSymbols, "0123456789"), test::testElf<test::Elf32>(kSymbols, "0123")}) {
        const auto tryImage = [](const std::string& image) {
            auto file = ElfFile::fromImage(toBytes(image));
            if (!file.ok())
                return;
            const ElfSymbols symbols = ElfSymbols::read(file.value(), &file.value());
            for (uint64_t address = kTextAddress; address < kTextAddress + 0x1100; address += 7)
                (void)symbols.find(address);
            (void)file.value().debugLink();
        };
        for (size_t size = 0; size < whole.size();
             size += size < 600 || size > test::kTextOffset + test::kTextSize ? 1 : 97)
            tryImage(whole.substr(0, size));
        std::mt19937 random(1); // NOLINT: the same files every time
        for (int round = 0; round < 4000; ++round) {
            std::string image = whole;
            for (int flips = 0; flips < 1 + round % 4; ++flips) {
                // Headers and tables only: the code section's zeros say nothing.
                const size_t tables = image.size() - (test::kTextOffset + test::kTextSize);
                size_t at = random() % (200 + tables);
                at = at < 200 ? at : at - 200 + test::kTextOffset + test::kTextSize;
                image[at] = static_cast<char>(round % 3 == 0 ? 0xff : random());
            }
            tryImage(image);
        }
    }
}

TEST(DebugFiles, AreTakenOnlyWhenTheyBelongToTheFile)
{
    const std::string root = sys::environmentOr("TMPDIR", "/tmp") + "/debug";
    ASSERT_TRUE(sys::makeDirectories(root + "/.build-id/61", 0700).ok());
    const std::string path = root + "/program";
    const auto write = [](const std::string& where, const std::string& content) {
        ASSERT_TRUE(sys::writeFileAtomically(where, std::as_bytes(std::span(content)), 0600).ok());
    };
    write(path, test::testElf<test::Elf64>({}, "abcd"));
    auto file = ElfFile::open(path);
    ASSERT_TRUE(file.ok());
    EXPECT_EQ(findDebugFile(file.value(), path, root), "");
    write(root + "/.build-id/61/626364.debug", test::testElf<test::Elf64>({{"foreign", kTextAddress, 4}}, "dcba"));
    EXPECT_EQ(findDebugFile(file.value(), path, root), "") << "another build id";
    write(root + "/.build-id/61/626364.debug",
          test::testElf<test::Elf64>({{"fromDebugFile", kTextAddress, 4}}, "abcd"));
    EXPECT_EQ(findDebugFile(file.value(), path, root), root + "/.build-id/61/626364.debug");
    auto debugFile = ElfFile::open(root + "/.build-id/61/626364.debug");
    ASSERT_TRUE(debugFile.ok());
    EXPECT_EQ(nameAt(ElfSymbols::read(file.value(), &debugFile.value()), kTextAddress), "fromDebugFile+0");
}

TEST(Demangle, LeavesNamesThatWouldGrowWithoutBound)
{
    EXPECT_EQ(demangled("_ZN3foo3barEi"), "foo::bar(int)");
    EXPECT_EQ(demangled("_ZN3foo3barEi@plt"), "foo::bar(int)@plt");
    EXPECT_EQ(demangled("clock_gettime@@GLIBC_2.17"), "clock_gettime");
    EXPECT_EQ(demangled("malloc@plt"), "malloc@plt");
    EXPECT_EQ(demangled("_Znonsense"), "_Znonsense");
    EXPECT_EQ(demangled(""), "");
    EXPECT_EQ(demangled("@"), "@");
    // Each level names the one before twice: 250 bytes stand for half a gigabyte.
    std::string bomb = "_Z1f1AIiiE";
    for (int level = 0; level < 24; ++level) {
        const std::string before = level == 0 ? "S0_" : std::string("S") + "0123456789ABCDEFGHIJKLMNOPQ"[level] + "_";
        bomb += "S_I" + before + before + "E";
    }
    EXPECT_EQ(demangled(bomb), bomb);
    EXPECT_EQ(demangled("_Z" + std::string(1 << 20, 'P')).size(), (1u << 20) + 2);
}

} // namespace
} // namespace vnt
