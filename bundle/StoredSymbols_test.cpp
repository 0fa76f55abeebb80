#include "bundle/StoredSymbols.h"

#include <gtest/gtest.h>

#include "bundle/StoredSymbolsWriter.h"
#include "bundle/Symbolizer.h"
#include "bundle/TestBundle.h"
#include "platform/messagequeue/MessageStream.h"

namespace vnt {
namespace {

using Kind = StoredSymbols::FunctionKind;
using test::kModuleStart;
using test::kTextAddress;
using test::kTextOffset;

std::string finished(StoredSymbolsWriter& writer)
{
    auto file = writer.finish();
    VNT_CHECK(file.ok());
    return {reinterpret_cast<const char*>(file.value().data()), file.value().size()};
}

const StoredSymbolsWriter::ModuleName kModule{"/opt/program", "61", true};

std::string smallFile()
{
    StoredSymbolsWriter writer;
    const StoredSymbolsWriter::Function work{"work()", Kind::kFunction, kTextAddress};
    const StoredSymbolsWriter::Line lines[] = {{{"inner()", Kind::kInlined, 0}, "/src/inner.h", 7},
                                               {work, "/src/work.cpp", 12}};
    writer.add(kModule, 0x1010, FrameRole::kReturn, work, lines);
    writer.add(kModule, 0x1010, FrameRole::kExact, {"[unknown] in program", Kind::kUnknown, 0}, {});
    writer.add({"/opt/other", "", false}, 1ull << 40, FrameRole::kExact, work, {});
    writer.setRemark(kModule, "module /opt/program has no symbols");
    return finished(writer);
}

/// The same with a checksum that fits.
std::string resealed(std::string file)
{
    const uint32_t checksum = crc32c(std::as_bytes(std::span(file).subspan(16)));
    std::memcpy(file.data() + 12, &checksum, sizeof checksum);
    return file;
}

TEST(StoredSymbols, GiveBackWhatWasCollected)
{
    auto symbols = StoredSymbols::parse(smallFile());
    ASSERT_TRUE(symbols.ok()) << symbols.status().message();
    const StoredSymbols::ModulePart* part = symbols.value()->module("/opt/program", "61", true);
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(symbols.value()->module("/opt/program", "62", true), nullptr) << "another build";
    EXPECT_EQ(symbols.value()->module("/opt/program", "61", false), nullptr) << "another width";
    EXPECT_EQ(part->remark, "module /opt/program has no symbols");
    const StoredSymbols::Address* address = part->find(0x1010, FrameRole::kReturn);
    ASSERT_NE(address, nullptr);
    EXPECT_EQ(part->functions[address->function].name, "work()");
    EXPECT_EQ(part->functions[address->function].start, kTextAddress);
    ASSERT_EQ(address->lineCount, 2u);
    EXPECT_EQ(part->lines[address->firstLine].file, "/src/inner.h");
    EXPECT_EQ(part->functions[part->lines[address->firstLine].function].kind, Kind::kInlined);
    EXPECT_EQ(part->lines[address->firstLine + 1].line, 12u);
    const StoredSymbols::Address* exact = part->find(0x1010, FrameRole::kExact);
    ASSERT_NE(exact, nullptr);
    EXPECT_EQ(part->functions[exact->function].kind, Kind::kUnknown);
    EXPECT_EQ(part->find(0x1011, FrameRole::kReturn), nullptr);
    EXPECT_NE(symbols.value()->module("/opt/other", "", false)->find(1ull << 40, FrameRole::kExact), nullptr);
}

TEST(StoredSymbols, RefuseWhatIsDamaged)
{
    const std::string whole = smallFile();
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(StoredSymbols::parse(whole.substr(0, size)).ok()) << size;
    for (size_t size = 16; size < whole.size(); ++size)
        EXPECT_FALSE(StoredSymbols::parse(resealed(whole.substr(0, size))).ok()) << size << ", checksum right";
    EXPECT_FALSE(StoredSymbols::parse(resealed(whole + "x")).ok());
    // Every byte changed, with a checksum that fits: refused, or every number in it can be followed.
    size_t accepted = 0;
    for (size_t at = 16; at < whole.size(); ++at) {
        for (const char change : {'\x01', '\x7f', '\xff'}) {
            std::string damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ change);
            EXPECT_EQ(StoredSymbols::parse(damaged).code(), Code::kCorrupt) << at;
            auto symbols = StoredSymbols::parse(resealed(damaged));
            const auto* part = symbols.ok() ? symbols.value()->module("/opt/program", "61", true) : nullptr;
            for (const auto& address : part ? part->addresses : std::vector<StoredSymbols::Address>()) {
                ++accepted;
                EXPECT_LT(address.function, part->functions.size());
                EXPECT_LE(address.firstLine + address.lineCount, part->lines.size());
            }
        }
    }
    EXPECT_GT(accepted, 0u);
    std::string later = whole;
    later[8] = 2;
    EXPECT_EQ(StoredSymbols::parse(later).code(), Code::kUnsupported);
}

TEST(StoredSymbols, NameWithoutTheFilesWhatWasCollectedWithThem)
{
    const std::string path = test::freshDirectory("stored") + "/program";
    test::writeText(
        path,
        test::testElf<test::Elf64>({{"_Z3onei", kTextAddress, 0x100}, {"two", kTextAddress + 0x100, 0x100}}, "a"));
    const auto signatures = test::signaturesOf(
        {{7,
          test::processSignature(7, "program",
                                 {test::image(kModuleStart, test::kTextSize, kTextOffset, path, "61")})}});
    const uint64_t addresses[] = {kModuleStart + 0x10, kModuleStart + 0x100, kModuleStart + 0x300};
    const auto namesOf = [&](Symbolizer& symbolizer) {
        std::string names;
        for (const uint64_t address : addresses) {
            for (const FrameRole role : {FrameRole::kExact, FrameRole::kReturn}) {
                const Symbol& symbol = symbolizer.symbol(symbolizer.resolve(7, address, 1, role).symbol);
                names += symbol.function + " " + symbol.path + " " + std::to_string(symbol.start) + "\n";
            }
        }
        return names;
    };
    StoredSymbolsWriter writer;
    Remarks remarks;
    Symbolizer collecting(signatures.get(), remarks, {nullptr, nullptr, &writer});
    const std::string expected = namesOf(collecting);
    EXPECT_NE(expected.find("one(int) " + path + " 4198400\n"), std::string::npos) << expected;

    ASSERT_EQ(::unlink(path.c_str()), 0);
    std::shared_ptr<const StoredSymbols> stored = StoredSymbols::parse(finished(writer)).take();
    Symbolizer elsewhere(signatures.get(), remarks, {stored, nullptr, nullptr});
    EXPECT_EQ(namesOf(elsewhere), expected);
    EXPECT_TRUE(remarks.texts().empty()) << "nothing was looked for";
    // Collected again without the files: nothing is forgotten.
    StoredSymbolsWriter again;
    Symbolizer recollecting(signatures.get(), remarks, {stored, nullptr, &again});
    EXPECT_EQ(namesOf(recollecting), expected);
    EXPECT_EQ(again.addressCount(), writer.addressCount());
}

} // namespace
} // namespace vnt
