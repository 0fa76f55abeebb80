#include "bundle/RustDemangle.h"

#include <gtest/gtest.h>

#include "bundle/Demangle.h"

namespace vnt {
namespace {

TEST(RustDemangle, ReadsBothManglings)
{
    const struct {
        const char* name;
        const char* text;
    } rows[] = {
        {"_ZN4core3fmt5Write9write_fmt17h0123456789abcdefE", "core::fmt::Write::write_fmt"},
        {"_ZN4core3fmt5Write9write_fmt17h0123456789abcdefE.llvm.77", "core::fmt::Write::write_fmt"},
        {"_ZN200_$LT$alloc..vec..Vec$LT$T$GT$$u20$as$u20$core..ops..drop..Drop$GT$4drop17h0123456789abcdefE", "(none)"},
        {"_ZN61_$LT$alloc..vec..Vec$LT$T$GT$$u20$as$u20$core..ops..Deref$GT$5deref17h0123456789abcdefE",
         "<alloc::vec::Vec<T> as core::ops::Deref>::deref"},
        {"_RNvC7mycrate3foo", "mycrate::foo"},
        {"_RNvCs1234_7mycrate3foo", "mycrate::foo"},
        {"_RNvNtC7mycrate6modulo3foo", "mycrate::modulo::foo"},
        {"_RNCNvC7mycrate4main0B3_", "mycrate::main::{closure#0}"},
        {"_RNCNvC7mycrate4mains_0B3_", "mycrate::main::{closure#1}"},
        {"_RINvC7mycrate3fooljE", "mycrate::foo::<i32, usize>"},
        {"_RINvC7mycrate3fooRShTlbEQeE", "mycrate::foo::<&[u8], (i32, bool), &mut str>"},
        {"_RINvC7mycrate3fooAhj10_E", "mycrate::foo::<[u8; 16]>"},
        {"_RINvC7mycrate3fooFUKCllEuE", "mycrate::foo::<unsafe extern \"C\" fn(i32, i32)>"},
        {"_RINvC7mycrate3fooKb1_Kln5_E", "mycrate::foo::<true, -5>"},
        {"_RNvMC7mycrateNtB2_6Struct3new", "<mycrate::Struct>::new"},
        {"_RNvXC7mycrateNtB2_6StructNtC4core5Clone5clone", "<mycrate::Struct as core::Clone>::clone"},
        {"_RINvC7mycrate3fooDNtC4core5CloneEL_E", "mycrate::foo::<dyn core::Clone>"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(rustDemangled(row.name).value_or("(none)"), row.text) << row.name;
    EXPECT_EQ(demangled("_RNvC7mycrate3foo@plt"), "mycrate::foo@plt");
    EXPECT_EQ(demangled("_ZN3foo3barEi"), "foo::bar(int)") << "C++ all the same";
}

TEST(RustDemangle, RefusesWhatIsMalformedOrWouldGrowWithoutBound)
{
    const std::string whole = "_RINvC7mycrate3fooRShTlbEQeDNtC4core5CloneEL_E";
    ASSERT_TRUE(rustDemangled(whole));
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(rustDemangled(whole.substr(0, size))) << size;
    EXPECT_FALSE(rustDemangled("_RB_")) << "refers to itself";
    EXPECT_FALSE(rustDemangled("_RNvC99999999999999999999a"));
    EXPECT_FALSE(rustDemangled("_R" + std::string(100'000, 'R')));
    EXPECT_FALSE(rustDemangled("_RINvC1a1b" + std::string(1000, 'S') + "lE")) << "too deep";
    // Each tuple names the one before twice.
    std::string bomb = "_RINvC1a1bTllE";
    size_t before = 10 - 2;
    for (int level = 0; level < 40; ++level) {
        const auto base62 = [](size_t value) {
            static const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
            std::string text;
            for (value -= 1;; value /= 62) {
                text.insert(text.begin(), kDigits[value % 62]);
                if (value < 62)
                    return text + "_";
            }
        };
        const std::string reference = "B" + base62(before);
        before = bomb.size() - 2;
        bomb += "T" + reference + reference + "E";
    }
    EXPECT_FALSE(rustDemangled(bomb + "E"));
}

} // namespace
} // namespace vnt
