#include "bundle/Symbolizer.h"

#include <gtest/gtest.h>

#include "bundle/TestBundle.h"

namespace vnt {
namespace {

using test::image;
using test::kKernelStart;
using test::kModuleStart;
using test::kTextAddress;

/// Two modules with one function each per 0x100 bytes; ids "61" and "62".
struct SymbolizerTest : testing::Test {
    std::string directory = test::freshDirectory("modules");
    std::string first = directory + "/first";
    std::string second = directory + "/second";
    Remarks remarks;

    void SetUp() override
    {
        test::writeText(first,
                        test::testElf<test::Elf64>({{"_Z3onei", kTextAddress, 0x100},
                                                    {"two", kTextAddress + 0x100, 0x100},
                                                    {"__restore_rt", kTextAddress + 0x210, 0x10}},
                                                   "a"));
        test::writeText(second, test::testElf<test::Elf64>({{"other", kTextAddress, 0x200}}, "b"));
    }
    Ref<MutableDictionary> mapped(const std::string& path, const std::string& buildId, uint64_t timeNs = 0) const
    {
        return image(kModuleStart, test::kTextSize, test::kTextOffset, path, buildId, timeNs);
    }
    std::string nameOf(Symbolizer& symbolizer, uint32_t pid, uint64_t address, uint64_t timeNs,
                       FrameRole role = FrameRole::kExact)
    {
        return symbolizer.symbol(symbolizer.resolve(pid, address, timeNs, role).symbol).function;
    }
};

TEST_F(SymbolizerTest, ChoosesTheMappingThatHeldAtTheTimeOfTheSample)
{
    const auto process =
        test::processSignature(7, "program",
                               {
                                   mapped(first, "61"),
                                   mapped(second, "62", 100),
                                   image(kModuleStart + 0x10000, 0x1000, test::kTextOffset, first, "61", 50),
                                   test::execEntry(200),
                                   mapped(second, "62", 200),
                                   mapped(first, "61", 300),
                               });
    const auto signatures = test::signaturesOf({{7, process}});
    Symbolizer symbolizer(signatures.get(), remarks);
    const struct {
        const char* what;
        uint64_t address;
        uint64_t timeNs;
        const char* name;
    } rows[] = {
        {"from the start", kModuleStart, 10, "one(int)"},
        {"last instant before the newer one", kModuleStart, 99, "one(int)"},
        {"replaced", kModuleStart, 100, "other"},
        {"asked out of order", kModuleStart, 10, "one(int)"},
        {"not mapped yet", kModuleStart + 0x10000, 49, "0x7f0000010000"},
        {"mapped", kModuleStart + 0x10000, 50, "one(int)"},
        {"a new program forgets the old mappings", kModuleStart + 0x10000, 200, "0x7f0000010000"},
        {"the new program's own", kModuleStart, 250, "other"},
        {"and its later one", kModuleStart, 300, "one(int)"},
        {"before the exec again", kModuleStart, 199, "other"},
        {"past the mapping", kModuleStart + test::kTextSize, 10, "0x7f0000001000"},
        {"no function there", kModuleStart + 0x300, 10, "[unknown] in first"},
    };
    for (int round = 0; round < 2; ++round) { // the second time from memory
        for (const auto& row : rows)
            EXPECT_EQ(nameOf(symbolizer, 7, row.address, row.timeNs), row.name) << row.what;
    }
    EXPECT_EQ(nameOf(symbolizer, 8, kModuleStart, 10), "0x7f0000000000") << "a process without signature";
    symbolizer.noteFork(7, 9);
    EXPECT_EQ(nameOf(symbolizer, 9, kModuleStart, 10), "one(int)") << "a child runs what its parent ran";
    EXPECT_TRUE(remarks.texts().empty());
}

TEST_F(SymbolizerTest, ChildrenAndCompiledCodeHaveNames)
{
    auto child = test::processSignature(9, "child", {mapped(first, "61")});
    const std::string map = "garbage\n7f0000200000 100 early\n7f0000200040 20 late one\n7f0000300000 0 empty\n"
                            "ffffffffffffffff 10 wraps\n10 20 \n7f0000200080";
    child->set(signature::kPerfMap, Data::create(std::as_bytes(std::span(map))));
    auto parent = test::processSignature(7, "program", {mapped(second, "62")});
    auto wrong = MutableDictionary::create();
    parent->set(
        signature::kChildren,
        Array::create({child, wrong, Number::withInt(3), test::processSignature(8, "own", {mapped(first, "61")})}));
    const auto signatures =
        test::signaturesOf({{7, parent}, {8, test::processSignature(8, "own", {mapped(second, "62")})}});
    Symbolizer symbolizer(signatures.get(), remarks);
    EXPECT_EQ(nameOf(symbolizer, 9, kModuleStart, 1), "one(int)");
    EXPECT_EQ(nameOf(symbolizer, 8, kModuleStart, 1), "other") << "its own entry is the better one";
    const struct {
        uint64_t address;
        const char* name;
    } rows[] = {{0x7f0000200000, "early"},         {0x7f000020003f, "early"}, {0x7f0000200040, "late one"},
                {0x7f000020005f, "late one"},      {0x7f0000200060, "early"}, {0x7f0000200100, "0x7f0000200100"},
                {0x7f0000300000, "0x7f0000300000"}};
    for (const auto& row : rows)
        EXPECT_EQ(nameOf(symbolizer, 9, row.address, 1), row.name);
    EXPECT_EQ(symbolizer.symbol(symbolizer.resolve(9, 0x7f0000200000, 1, FrameRole::kExact).symbol).module, "[jit]");
}

TEST_F(SymbolizerTest, ReturnAddressesBelongToTheCallBeforeThem)
{
    const auto signatures = test::signaturesOf(
        {{0, test::kernelSignature()}, {7, test::processSignature(7, "program", {mapped(first, "61")})}});
    Symbolizer symbolizer(signatures.get(), remarks);
    EXPECT_EQ(nameOf(symbolizer, 7, kModuleStart + 0x100, 1), "two");
    EXPECT_EQ(nameOf(symbolizer, 7, kModuleStart + 0x100, 1, FrameRole::kReturn), "one(int)")
        << "behind a call that never returns";
    EXPECT_EQ(nameOf(symbolizer, 7, kModuleStart + 0x210, 1, FrameRole::kReturn), "__restore_rt")
        << "nothing called it";
    EXPECT_EQ(nameOf(symbolizer, 7, kKernelStart + 0x1000, 1), "ext4_read");
    EXPECT_EQ(nameOf(symbolizer, 7, kKernelStart + 0x1000, 1, FrameRole::kReturn), "do_syscall_64");
    EXPECT_EQ(nameOf(symbolizer, 7, kKernelStart - 1, 1), "[unknown] in [kernel]");
    EXPECT_EQ(nameOf(symbolizer, 7, ~0ull, 1), "[unknown] in [kernel]");
    EXPECT_EQ(nameOf(symbolizer, 7, 0, 1, FrameRole::kReturn), "0x0");
}

TEST_F(SymbolizerTest, DoesNotNameByFilesThatAreNotTheRecordedOnes)
{
    const struct {
        const char* what;
        std::string path;
        std::string buildId;
        std::string name;
        std::string remark;
    } rows[] = {
        {"same file", first, "61", "one(int)", ""},
        {"recorded without id", first, "", "one(int)", ""},
        {"changed", first, "62", "[unknown] in first",
         "module " + first + " has changed since it was recorded; its symbols are not used"},
        {"deleted, but the same again", first + " (deleted)", "61", "one(int)", ""},
        {"deleted, cannot tell", first + " (deleted)", "", "[unknown] in first",
         "module " + first + " was replaced while it was recorded; its symbols are not used"},
        {"a device", "/dev/null", "61", "[unknown] in null", ""},
        {"a directory", directory, "61", "[unknown] in modules",
         "no symbols of " + directory + ": " + directory + ": not a regular file"},
        {"relative", "first", "61", "[unknown] in first", ""},
        {"anonymous", "//anon", "", "[unknown] in [anonymous]", ""},
        {"no vdso recorded", "[vdso]", "", "[unknown] in [vdso]", ""},
    };
    for (const auto& row : rows) {
        Remarks own;
        const auto signatures =
            test::signaturesOf({{7, test::processSignature(7, "program", {mapped(row.path, row.buildId)})}});
        Symbolizer symbolizer(signatures.get(), own);
        EXPECT_EQ(nameOf(symbolizer, 7, kModuleStart, 1), row.name) << row.what;
        EXPECT_EQ(own.texts(), row.remark.empty() ? std::vector<std::string>() : std::vector<std::string>{row.remark})
            << row.what;
    }
}

TEST_F(SymbolizerTest, NamesTheVdsoByItsRecordedImage)
{
    const std::string vdso = test::testElf<test::Elf64>({{"__vdso_clock_gettime", kTextAddress, 0x100}});
    auto kernel = test::kernelSignature();
    kernel->set(signature::kVdso, Data::create(std::as_bytes(std::span(vdso))));
    const auto signatures =
        test::signaturesOf({{7, test::processSignature(7, "program", {mapped("[vdso]", "")})}, {0, kernel}});
    Symbolizer symbolizer(signatures.get(), remarks);
    EXPECT_EQ(nameOf(symbolizer, 7, kModuleStart + 4, 1), "__vdso_clock_gettime");
}

TEST_F(SymbolizerTest, ReadsWhatItCanOfDamagedSignatures)
{
    auto process = test::processSignature(7, "program",
                                          {String::create("no image"), image(kModuleStart, 0, 0, first, "61"),
                                           image(~0ull - 4, 100, 0, first, "61"), mapped(first, "61")});
    auto later = test::processSignature(8, "later", {});
    later->set(signature::kVersionKey, Number::withInt(99));
    auto kernel = test::kernelSignature();
    kernel->set(
        signature::kKernelSymbols,
        Array::create({Number::withUint64(kKernelStart + 0x1000), String::create("b"), Number::withUint64(kKernelStart),
                       String::create("a"), String::create("x"), String::create("y"), Number::withInt(1)}));
    auto signatures = test::signaturesOf({{7, process}, {8, later}, {0, kernel}, {9, String::create("no signature")}});
    signatures->set("no pid", process);
    Symbolizer symbolizer(signatures.get(), remarks);
    EXPECT_EQ(nameOf(symbolizer, 7, kModuleStart, 1), "one(int)");
    EXPECT_EQ(nameOf(symbolizer, 7, kKernelStart + 0x10, 1), "a");
    const std::vector<std::string> expected = {"the signature of process 8 was written by a later version",
                                               "the recorded kernel symbols are damaged",
                                               "a damaged signature is left out"};
    EXPECT_EQ(remarks.texts(), expected);
}

TEST_F(SymbolizerTest, BrokenStacksCannotFillTheMemory)
{
    const auto signatures = test::signaturesOf({});
    Symbolizer symbolizer(signatures.get(), remarks);
    for (uint64_t i = 0; i < 100'000; ++i)
        symbolizer.resolve(7, 0x1000 + i * 16, i, FrameRole::kReturn);
    EXPECT_LT(symbolizer.symbolCount(), 2000u);
    EXPECT_EQ(nameOf(symbolizer, 7, 0x900000000, 1), "[unknown]");
}

} // namespace
} // namespace vnt
