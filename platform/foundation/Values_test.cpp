#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/foundation/Format.h"
#include "platform/foundation/utf8.h"

namespace vnt {
namespace {

TEST(String, ReplacesWhatIsNotUtf8)
{
    const std::string mark = "\xEF\xBF\xBD";
    struct Row {
        const char* what;
        std::string_view bytes;
        std::string expected;
    } rows[] = {
        {"empty", "", ""},
        {"plain", "abc", "abc"},
        {"two, three and four bytes", "é€😀", "é€😀"},
        {"highest code point", "\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},
        {"stray continuation", "a\x80z", "a" + mark + "z"},
        {"overlong slash", "\xC0\xAF", mark + mark},
        {"overlong in three bytes", "\xE0\x80\x80", mark + mark + mark},
        {"surrogate", "\xED\xA0\x80", mark + mark + mark},
        {"above the highest", "\xF4\x90\x80\x80", mark + mark + mark + mark},
        {"cut off at the end", "ab\xE2\x82", "ab" + mark},
        {"cut off by a letter", "\xF0\x9F\x98x", mark + "x"},
        {"bad byte behind eight good ones", "12345678\xFFtail", "12345678" + mark + "tail"},
        {"zero byte kept", std::string_view("a\0b", 3), std::string("a\0b", 3)},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(String::create(row.bytes)->str(), row.expected) << row.what;
        EXPECT_TRUE(isUtf8(row.expected)) << row.what;
    }
}

TEST(Number, ComparesByValueAcrossKindsAndHashesAlike)
{
    const Ref<Number> minusOne = Number::withInt(-1);
    struct Row {
        const char* what;
        Ref<Number> a, b;
        bool equal;
    } rows[] = {
        {"widths", Number::withInt(-4), Number::withInt64(-4), true},
        {"signed and unsigned", Number::withInt64(7), Number::withUint64(7), true},
        {"same bits, other sign", minusOne, Number::withUint64(UINT64_MAX), false},
        {"whole double", Number::withDouble(-3), Number::withInt(-3), true},
        {"fraction", Number::withDouble(3.5), Number::withInt(3), false},
        {"double above 2^63", Number::withDouble(9223372036854775808.0), Number::withUint64(1ULL << 63), true},
        {"double at 2^64", Number::withDouble(18446744073709551616.0), Number::withUint64(0), false},
        {"rounded neighbour", Number::withDouble(9007199254740992.0), Number::withInt64(9007199254740993), false},
        {"minus zero", Number::withDouble(-0.0), Number::withInt(0), true},
        {"no number", Number::withDouble(NAN), Number::withDouble(NAN), true},
        {"boolean and one", Number::withBool(true), Number::withInt(1), false},
        {"booleans", Number::withBool(true), Number::withBool(true), true},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.a->isEqual(*row.b), row.equal) << row.what;
        EXPECT_EQ(row.b->isEqual(*row.a), row.equal) << row.what;
        if (row.equal) {
            EXPECT_EQ(row.a->hash(), row.b->hash()) << row.what;
        }
    }
    EXPECT_FALSE(Number::withInt(1)->isEqual(*String::create("1")));
}

TEST(Number, ConvertsEveryValueWithoutUndefinedBehaviour)
{
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    struct Row {
        Ref<Number> number;
        int32_t asInt;
        int64_t asInt64;
        uint64_t asUint64;
        bool asBool;
        const char* text;
    } rows[] = {
        {Number::withInt64(0x1'0000'0005), 5, 0x1'0000'0005, 0x1'0000'0005, true, "4294967301"},
        {Number::withInt(-1), -1, -1, UINT64_MAX, true, "-1"},
        {Number::withUint64(UINT64_MAX), -1, -1, UINT64_MAX, true, "18446744073709551615"},
        {Number::withDouble(-2.9), -2, -2, 0, true, "-2.9"},
        {Number::withDouble(0.1), 0, 0, 0, true, "0.1"},
        {Number::withDouble(1e300), -1, INT64_MAX, UINT64_MAX, true, "1e+300"},
        {Number::withDouble(-kInfinity), 0, INT64_MIN, 0, true, "-inf"},
        {Number::withDouble(NAN), 0, 0, 0, true, "nan"},
        {Number::withBool(false), 0, 0, 0, false, "0"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.number->intValue(), row.asInt) << row.text;
        EXPECT_EQ(row.number->int64Value(), row.asInt64) << row.text;
        EXPECT_EQ(row.number->uint64Value(), row.asUint64) << row.text;
        EXPECT_EQ(row.number->boolValue(), row.asBool) << row.text;
        EXPECT_EQ(row.number->description(), row.text);
    }
}

TEST(Url, TellsSchemeAndPath)
{
    struct Row {
        const char* text;
        const char* scheme;
        const char* path;
    } rows[] = {
        {"unix:/run/user/1/a?b#c", "unix", "/run/user/1/a?b#c"},
        {"file:///a%20b/%C3%A9?x", "file", "/a b/é"},
        {"file://localhost/a", "file", "/a"},
        {"x+y.z-1:opaque", "x+y.z-1", "opaque"},
        {"http://host", "http", ""},
        {"a:%zz%4", "a", "%zz%4"},
    };
    for (const Row& row : rows) {
        const Ref<Url> url = Url::withString(row.text);
        ASSERT_TRUE(url) << row.text;
        EXPECT_EQ(url->scheme(), row.scheme) << row.text;
        EXPECT_EQ(url->path(), row.path) << row.text;
    }
    for (const char* text : {"", "/no/scheme", ":", "1a:b", "-a:b", "no colon"})
        EXPECT_FALSE(Url::withString(text)) << text;
    EXPECT_EQ(Url::withFilePath("/a b/ü#%")->str(), "file:///a%20b/%C3%BC%23%25");
    EXPECT_EQ(Url::withFilePath("/a b/ü#%")->path(), "/a b/ü#%");
    EXPECT_TRUE(Url::withFilePath("x")->path().ends_with("/x"));
}

TEST(Data, ViewsForeignBytesWithoutACopy)
{
    std::byte bytes[] = {std::byte{1}, std::byte{2}};
    const Ref<Data> view = Data::withoutCopy(bytes);
    EXPECT_EQ(view->bytes().data(), bytes);
    const Ref<Data> copy = Data::create(bytes);
    EXPECT_TRUE(copy->isEqual(*view));
    EXPECT_EQ(copy->hash(), view->hash());
    bytes[0] = std::byte{9};
    EXPECT_FALSE(copy->isEqual(*view));
    EXPECT_TRUE(Data::create({})->isEqual(*Data::withoutCopy({})));
}

TEST(Date, ShowsTheCalendarInstant)
{
    const std::pair<double, const char*> rows[] = {
        {0, "2001-01-01 00:00:00 +0000"},          {-0.5, "2000-12-31 23:59:59 +0000"},
        {-978307200, "1970-01-01 00:00:00 +0000"}, {94867199, "2004-01-03 23:59:59 +0000"},
        {NAN, "2001-01-01 00:00:00 +0000"},        {1e300, "9999-12-31 23:59:59 +0000"},
        {-1e300, "0001-01-01 00:00:00 +0000"},
    };
    for (const auto& [seconds, text] : rows)
        EXPECT_EQ(Date::withSecondsSince2001(seconds)->description(), text);
}

TEST(FormatText, PutsArgumentsIntoDirectives)
{
    const Object* nothing = nullptr;
    EXPECT_EQ(formatText("no directive", {}), "no directive");
    EXPECT_EQ(formatText("%@ %d%% %s|%ld", {String::create("é"), -5, "c", 7L}), "é -5% c|7");
    EXPECT_EQ(formatText("'%@'", {nothing}), "'(null)'");
    EXPECT_EQ(formatText("%@", {Exception("N", "reason")}), "reason");
    EXPECT_EQ(formatText("%@", {"%@ %d"}), "%@ %d"); // an argument is not a format
    EXPECT_EQ(formatText("%@=%@", {Array::create({Number::withInt(1), String::create("b")}), Ref<Dictionary>()}),
              "(1, b)=(null)");
    EXPECT_DEATH((void)formatText("%@", {}), "argument");
    EXPECT_DEATH((void)formatText("", {1}), "argument");
    EXPECT_DEATH((void)formatText("%x", {1}), "length");
    EXPECT_DEATH((void)formatText("100%", {}), "length");
}

TEST(Error, DescribesItself)
{
    const Ref<Error> bare = Error::create(String::create("a.b"), 7, nullptr);
    EXPECT_EQ(bare->localizedDescription()->str(), "a.b error 7");
    const Ref<Error> system = Error::fromErrno(ENOENT, "/x");
    EXPECT_EQ(system->code(), ENOENT);
    EXPECT_EQ(system->localizedDescription()->str(), "/x: No such file or directory");
}

} // namespace
} // namespace vnt
