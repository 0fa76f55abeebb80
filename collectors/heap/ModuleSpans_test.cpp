#include "collectors/heap/ModuleSpans.h"

#include <gtest/gtest.h>

namespace vnt {
namespace {

constexpr std::string_view kMaps = "400000-401000 r--p 00000000 08:01 11 /opt/a program\n"
                                   "401000-405000 r-xp 00001000 08:01 11 /opt/a program\n"
                                   "405000-406000 r--p 00005000 08:01 11 /opt/a program\n"
                                   "406000-407000 rw-p 00006000 08:01 11 /opt/a program\n"
                                   "407000-409000 rw-p 00000000 00:00 0 \n"
                                   "1000000-1021000 rw-p 00000000 00:00 0 [heap]\n"
                                   "2000000-2004000 r--s 00000000 08:01 12 /usr/share/data\n"
                                   "2004000-2006000 rw-p 00000000 00:00 0 \n"
                                   "7f0000000000-7f0000010000 r-xp 00000000 08:01 13 /lib/libx.so\n"
                                   "7f0000010000-7f0000011000 r--p 00010000 08:01 13 /lib/libx.so\n"
                                   "7f0000011000-7f0000012000 r-xp 00000000 08:01 14 /lib/liby.so\n"
                                   "nonsense\n"
                                   "7f0000012000-7f0000013000 rw-p 00001000 08:01 14 /lib/liby.so";

TEST(ModuleSpans, AnAddressIsOfTheModuleWhoseDataItIsIn)
{
    const ModuleSpans spans = ModuleSpans::parse(kMaps);
    const struct {
        const char* what;
        uint64_t address;
        uint64_t code;
    } rows[] = {
        {"before all", 0x3fffff, 0},
        {"constants before the code", 0x400000, 0x401000},
        {"code", 0x401000, 0},
        {"constants behind the code", 0x405010, 0x401000},
        {"data", 0x406ff8, 0x401000},
        {"memory right behind the data", 0x408000, 0x401000},
        {"behind that", 0x409000, 0},
        {"heap", 0x1000010, 0},
        {"file without code", 0x2000010, 0},
        {"memory behind such a file", 0x2004010, 0},
        {"library", 0x7f0000010000, 0x7f0000000000},
        {"its neighbour's code", 0x7f0000011008, 0},
        {"its neighbour, behind a line that is none", 0x7f0000012008, 0x7f0000011000},
        {"last byte of all", ~uint64_t{0}, 0},
    };
    for (const auto& row : rows)
        EXPECT_EQ(spans.codeOf(row.address), row.code) << row.what;
}

TEST(ModuleSpans, NonsenseIsNoModule)
{
    for (const std::string_view text : {"", "\n\n", "1-2", "1000-2000 r-xp", "2000-1000 rw-p 0 0:0 0 /x",
                                        "zz-ff rw-p 00000000 00:00 0 /x", "1000-2000 rw-p 00000000 00:00 0 /x"})
        EXPECT_EQ(ModuleSpans::parse(text).codeOf(0x1000), 0u) << text;
}

} // namespace
} // namespace vnt
