#include "collectors/unwind/ModuleFrames.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/auxv.h>
#include <unistd.h>

#include "collectors/common/codeMappings.h"
#include "collectors/unwind/AddressSpaces.h"
#include "collectors/unwind/evaluate.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

std::vector<char> vdsoImage()
{
    const auto mappings = procfs::codeMappings(::getpid()).take();
    for (const auto& mapping : mappings) {
        if (mapping.path == "[vdso]") {
            const char* begin = reinterpret_cast<const char*>(::getauxval(AT_SYSINFO_EHDR));
            return {begin, begin + mapping.sizeBytes};
        }
    }
    return {};
}

TEST(ModuleFrames, ADamagedFileIsRefusedOrReadWithinItsBounds)
{
    const std::vector<char> good = vdsoImage();
    if (good.empty())
        GTEST_SKIP() << "no vdso here";
    auto whole = ModuleFrames::fromImage(good);
    ASSERT_TRUE(whole.ok()) << whole.status().message();
    EXPECT_GT(whole.value().functionCount(), 3u);
    frames::Row row;
    bool isSignalFrame = false;
    const auto lookAround = [&](const ModuleFrames& module) {
        for (uint64_t address = 0; address < good.size(); address += 41)
            (void)module.rowAt(address, row, isSignalFrame);
    };
    lookAround(whole.value());
    for (size_t i = 0; i < good.size(); ++i) {
        std::vector<char> spoiled = good;
        spoiled[i] = static_cast<char>(i % 2 ? 0xff : ~spoiled[i]);
        auto module = ModuleFrames::fromImage(std::move(spoiled));
        if (module.ok())
            lookAround(module.value());
    }
    for (size_t size = 0; size < good.size(); size += 61) {
        auto module = ModuleFrames::fromImage({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)});
        if (module.ok())
            lookAround(module.value());
    }
    EXPECT_EQ(ModuleFrames::fromImage({'n', 'o', 'n', 'e'}).code(), Code::kInvalid);
}

TEST(ModuleTable, OneFileIsReadOnceForAllAndOthersAreRefused)
{
    ModuleTable table;
    std::string path;
    uint64_t start = 0, size = 0;
    const auto own = procfs::codeMappings(::getpid()).take();
    for (const auto& mapping : own) {
        if (path.empty() && mapping.path.starts_with('/')) {
            path = mapping.path;
            start = mapping.start;
            size = mapping.sizeBytes;
        }
    }
    const auto module = table.open(::getpid(), start, size, path);
    ASSERT_NE(module, ModuleTable::kNone);
    const size_t held = table.heldBytes();
    EXPECT_EQ(table.open(1 << 30, 0, 4096, path), module) << "a process that is gone";
    EXPECT_EQ(table.heldBytes(), held);
    EXPECT_EQ(table.open(::getpid(), 1, 1, "/dev/zero"), ModuleTable::kNone);
    EXPECT_EQ(table.open(::getpid(), 1, 1, "/proc/self/maps"), ModuleTable::kNone);
    EXPECT_EQ(table.open(::getpid(), 1, 1, path + " (deleted)"), ModuleTable::kNone)
        << "what has the name now is another file";
    EXPECT_EQ(table.open(::getpid(), 1, 1, "[heap]"), ModuleTable::kNone);
    EXPECT_EQ(table.frames(ModuleTable::kNone), nullptr);
}

TEST(AddressSpaces, TheLatestMappingHoldsAsFarAsItReaches)
{
    AddressSpaces spaces;
    constexpr pid_t kPid = (1 << 30) + 1; // beyond any process: only what is told counts
    AddressSpace& space = spaces.of(kPid);
    const auto at = [&](uint64_t address) {
        const auto* mapping = spaces.of(kPid).find(address);
        return mapping ? mapping->path + "+" + std::to_string(address - mapping->start + mapping->fileOffset) : "";
    };
    EXPECT_EQ(at(0x1000), "");
    spaces.onMapping(kPid, 0x1000, 0x3000, 0, "/a");
    const uint64_t version = space.version;
    spaces.onMapping(kPid, 0x2000, 0x1000, 0x500, "/b");
    EXPECT_NE(space.version, version) << "what was known of an address is void";
    EXPECT_EQ(at(0xfff), "");
    EXPECT_EQ(at(0x1fff), "/a+4095");
    EXPECT_EQ(at(0x2000), "/b+1280");
    EXPECT_EQ(at(0x3000), "/a+8192");
    EXPECT_EQ(at(0x4000), "");
    spaces.onMapping(kPid, 0, UINT64_MAX, 0, "/everything");
    EXPECT_EQ(space.mappings.size(), 1u);
    spaces.onMapping(kPid, UINT64_MAX - 1, 4096, 0, "/wraps");
    spaces.onMapping(kPid, 0x1000, 0, 0, "/empty");
    EXPECT_EQ(space.mappings.size(), 1u);

    spaces.onFork(kPid, kPid + 1);
    EXPECT_EQ(spaces.of(kPid + 1).mappings.size(), 1u) << "the child begins with its parent's";
    spaces.onExec(kPid + 1);
    EXPECT_TRUE(spaces.of(kPid + 1).mappings.empty());
    spaces.onExit(kPid + 1);
    spaces.onFork(kPid, kPid + 1);
    EXPECT_EQ(spaces.of(kPid + 1).mappings.size(), 1u) << "the number was given to another process";
}

TEST(Evaluate, ComputesWhatCallFrameInformationUses)
{
    FrameRegisters registers;
    registers.set(7, 1000);
    registers.set(16, 0x401b);
    const uint64_t words[] = {11, 22, 33};
    struct {
        const char* what;
        std::vector<uint8_t> expression;
        std::optional<uint64_t> result;
    } const rows[] = {
        {"register plus", {0x77, 8}, 1008},
        {"register less", {0x77, 0x78}, 992},
        {"saved on the stack", {0x77, 8, 0x06}, 22},
        {"of a PLT entry behind its push", {0x77, 8, 0x80, 0, 0x3f, 0x1a, 0x3b, 0x2a, 0x33, 0x24, 0x22}, 1016},
        {"constants", {0x0a, 0x34, 0x12, 0x09, 0xff, 0x22}, 0x1233},
        {"swap and minus", {0x31, 0x35, 0x16, 0x1c}, 4},
        {"dup, over, drop", {0x32, 0x12, 0x14, 0x13, 0x22}, 4},
        {"a register that is not known", {0x76, 0}, std::nullopt},
        {"a register that does not exist", {0x92, 0xff, 0x7f, 0}, std::nullopt},
        {"beyond the dump", {0x77, 24, 0x06}, std::nullopt},
        {"nothing", {}, std::nullopt},
        {"too little", {0x31, 0x22}, std::nullopt},
        {"too much", std::vector<uint8_t>(40, 0x31), std::nullopt},
        {"cut short", {0x0c, 1, 2}, std::nullopt},
        {"a jump", {0x31, 0x2f, 0xfd, 0xff}, std::nullopt},
    };
    for (const auto& row : rows) {
        StackDump dump(1000, reinterpret_cast<const std::byte*>(words), sizeof words, 8);
        EXPECT_EQ(evaluate(row.expression.data(), row.expression.size(), registers, dump, std::nullopt), row.result)
            << row.what;
    }
    StackDump dump(1000, reinterpret_cast<const std::byte*>(words), sizeof words, 8);
    const uint8_t plus[] = {0x38, 0x22};
    EXPECT_EQ(evaluate(plus, sizeof plus, registers, dump, 5), 13u) << "the canonical address comes first";
}

} // namespace
} // namespace vnt
