#include "bundle/SourceLines.h"

#include <gtest/gtest.h>
#include <link.h>

#include "bundle/Symbolizer.h"
#include "bundle/TestBundle.h"
#include "platform/base/sys.h"

namespace {

constexpr int kInlinedLine = __LINE__ + 4;
__attribute__((always_inline)) inline const void* inlinedAddress()
{
    const void* here;
    __asm__ volatile("lea 0(%%rip), %0" : "=r"(here));
    return here;
}

constexpr int kCallLine = __LINE__ + 3;
__attribute__((noinline)) const void* addressInInlinedCode()
{
    const void* address = inlinedAddress();
    __asm__ volatile("" : "+r"(address));
    return address;
}

uint64_t programBias()
{
    uint64_t bias = 0;
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* result) {
            *static_cast<uint64_t*>(result) = info->dlpi_addr;
            return 1; // the program itself comes first
        },
        &bias);
    return bias;
}

} // namespace

namespace vnt {
namespace {

TEST(SourceLines, TellFileAndLineWithInlinedFrames)
{
    auto lines = SourceLines::open("/proc/self/exe", "");
    if (lines.code() == Code::kNotFound)
        GTEST_SKIP() << "the tests were built without debug information";
    ASSERT_TRUE(lines.ok()) << lines.status().message();
    const uint64_t address = reinterpret_cast<uint64_t>(addressInInlinedCode()) - programBias() - 1;
    const std::vector<LineFrame> frames = lines.value()->find(address);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_TRUE(frames[0].file.ends_with("bundle/SourceLines_test.cpp")) << frames[0].file;
    EXPECT_EQ(frames[0].line, kInlinedLine);
    EXPECT_TRUE(frames[0].isInlined);
    EXPECT_NE(frames[0].function.find("inlinedAddress"), std::string::npos) << frames[0].function;
    EXPECT_TRUE(frames[1].file.ends_with("bundle/SourceLines_test.cpp")) << frames[1].file;
    EXPECT_EQ(frames[1].line, kCallLine);
    EXPECT_NE(frames[1].function.find("addressInInlinedCode"), std::string::npos) << frames[1].function;
    EXPECT_TRUE(lines.value()->find(~0ull).empty());
}

/// The symbolizer on this program's own mapping.
TEST(SourceLines, AreFramesOfTheSymbolizersAddresses)
{
    const std::string path = sys::executablePath().take();
    const uint64_t address = reinterpret_cast<uint64_t>(addressInInlinedCode());
    auto file = ElfFile::open(path);
    ASSERT_TRUE(file.ok());
    if (SourceLines::open(path, "").code() == Code::kNotFound)
        GTEST_SKIP() << "the tests were built without debug information";
    std::vector<Ref<Object>> images;
    for (const auto& segment : file.value().loadMap().segments) {
        if (segment.executable)
            images.push_back(test::image(programBias() + segment.address, segment.size, segment.offset, path, ""));
    }
    const auto signatures = test::signaturesOf({{7, test::processSignature(7, "self", std::move(images))}});
    Remarks remarks;
    Symbolizer symbolizer(signatures.get(), remarks);
    for (int round = 0; round < 2; ++round) { // the second time from memory
        const auto frames = symbolizer.frames(7, address, 1, FrameRole::kReturn);
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_TRUE(frames[0].inlined);
        EXPECT_EQ(frames[0].line, static_cast<uint32_t>(kInlinedLine));
        EXPECT_TRUE(frames[0].file.ends_with("bundle/SourceLines_test.cpp")) << frames[0].file;
        EXPECT_NE(symbolizer.symbol(frames[0].symbol).function.find("inlinedAddress"), std::string::npos);
        EXPECT_EQ(symbolizer.symbol(frames[0].symbol).path, path);
        EXPECT_FALSE(frames[1].inlined);
        EXPECT_EQ(frames[1].line, static_cast<uint32_t>(kCallLine));
        EXPECT_EQ(frames[1].symbol, symbolizer.resolve(7, address, 1, FrameRole::kReturn).symbol);
    }
    const auto unknown = symbolizer.frames(7, 1, 1, FrameRole::kExact);
    ASSERT_EQ(unknown.size(), 1u);
    EXPECT_EQ(unknown[0].file, "");
    EXPECT_EQ(unknown[0].symbol, symbolizer.resolve(7, 1, 1, FrameRole::kExact).symbol);
}

TEST(SourceLines, RefuseWhatHasNone)
{
    EXPECT_EQ(SourceLines::open("/dev/null", "").code(), Code::kInvalid);
    EXPECT_EQ(SourceLines::open("/absent", "").code(), Code::kNotFound);
}

} // namespace
} // namespace vnt
