#include "platform/foundation/PropertyList.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "platform/base/sys.h"
#include "platform/foundation/Error.h"
#include "platform/foundation/KeyedArchive.h"

namespace vnt {
namespace {

std::span<const std::byte> bytesOf(std::string_view text) { return std::as_bytes(std::span(text)); }

Ref<Object> text(std::string_view value) { return String::create(value); }

/// One of everything that both forms hold.
Ref<Dictionary> sample(int manyItems = 400)
{
    const Ref<MutableDictionary> dictionary = MutableDictionary::create();
    dictionary->set("zeta", Array::create({text("a<&>\"'\n\tb"), text("ünï 😀"), text("")}));
    dictionary->set(
        "numbers",
        Array::create({Number::withInt(0), Number::withInt(INT32_MIN), Number::withInt(-3), Number::withInt(INT32_MAX),
                       Number::withInt64(INT64_MIN), Number::withInt64(INT64_MAX), Number::withUint64(UINT64_MAX),
                       Number::withDouble(0.1), Number::withDouble(-1e300)}));
    dictionary->set("alpha", Array::create({Number::withBool(true), Number::withBool(false)}));
    dictionary->set("date", Date::withSecondsSince2001(86400));
    const std::string blob(300, '\x81');
    dictionary->set("blob", Data::create(bytesOf(blob)));
    dictionary->set("nothing in it", Dictionary::create());
    dictionary->set("no items", Array::create());
    dictionary->set("no bytes", Data::create({}));
    const Ref<MutableArray> many = MutableArray::create();
    for (int i = 0; i < manyItems; ++i) // more than one byte of references and counts
        many->append(Number::withInt(i));
    dictionary->set(std::string(40, 'k'), many);
    return dictionary;
}

std::string orderOf(const Object& object)
{
    std::string keys;
    for (const auto& entry : static_cast<const Dictionary&>(object).entries())
        keys += entry.first->description() + "|";
    return keys;
}

class BothForms : public testing::TestWithParam<PropertyListFormat> { };

TEST_P(BothForms, ReadBackWhatWasWritten)
{
    const Ref<Dictionary> written = sample();
    const auto bytes = writePropertyList(*written, GetParam());
    ASSERT_TRUE(bytes.ok()) << bytes.status().message();
    const auto read = readPropertyList(bytes.value());
    ASSERT_TRUE(read.ok()) << read.status().message();
    EXPECT_TRUE(read.value()->isEqual(*written));
    EXPECT_EQ(orderOf(*read.value()), orderOf(*written));

    const auto lineEnds = writePropertyList(*text("a\r\nb\rc"), GetParam());
    EXPECT_EQ(readPropertyList(lineEnds.value()).value()->description(), "a\r\nb\rc");
}

TEST_P(BothForms, ArriveWholeInAndFromPython)
{
    const std::string directory = sys::environmentOr("TMPDIR", "/tmp");
    const std::string path = directory + "/cross.plist";
    const auto bytes = writePropertyList(*sample(), GetParam());
    ASSERT_TRUE(bytes.ok());
    ASSERT_TRUE(sys::writeFileAtomically(path, bytes.value(), 0600).ok());
    const std::string command = "python3 -c '\n"
                                "import plistlib, sys\n"
                                "value = plistlib.load(open(sys.argv[1], \"rb\"))\n"
                                "n = value[\"numbers\"]\n"
                                "assert n[:7] == [0, -2**31, -3, 2**31-1, -2**63, 2**63-1, 2**64-1], n\n"
                                "assert n[7:] == [0.1, -1e300], n\n"
                                "assert value[\"alpha\"][0] is True and value[\"alpha\"][1] is False\n"
                                "assert value[\"zeta\"][1] == \"\\u00fcn\\u00ef \\U0001f600\"\n"
                                "assert value[\"date\"].isoformat() == \"2001-01-02T00:00:00\"\n"
                                "assert value[\"blob\"] == b\"\\x81\" * 300\n"
                                "assert list(value)[0] == \"zeta\"\n"
                                "for form in (plistlib.FMT_BINARY, plistlib.FMT_XML):\n"
                                "    with open(sys.argv[1] + form.name, \"wb\") as f:\n"
                                "        plistlib.dump(value, f, fmt=form, sort_keys=False)\n"
                                "' "
        + path;
    ASSERT_EQ(std::system(command.c_str()), 0);
    for (const char* form : {"FMT_BINARY", "FMT_XML"}) {
        const auto back = sys::readFile(path + form, 1 << 20);
        ASSERT_TRUE(back.ok());
        const auto read = readPropertyList(bytesOf(back.value()));
        ASSERT_TRUE(read.ok()) << form << ": " << read.status().message();
        EXPECT_TRUE(read.value()->isEqual(*sample())) << form;
        EXPECT_EQ(orderOf(*read.value()), orderOf(*sample())) << form;
    }
}

TEST_P(BothForms, RefuseToWriteWhatNobodyCouldRead)
{
    const Ref<MutableArray> holdsItself = MutableArray::create();
    const Ref<Array> between = Array::create({holdsItself});
    holdsItself->append(between);
    Ref<Object> deep = Array::create();
    for (int i = 0; i < 600; ++i)
        deep = Array::create({deep});
    const Ref<MutableArray> deepByParts = MutableArray::create();
    Ref<Object> part = Array::create();
    for (int i = 0; i < 600; ++i)
        deepByParts->append(part = Array::create({part}));
    struct Row {
        const char* what;
        Ref<Object> object;
    } rows[] = {
        {"error object", Error::fromErrno(1, "")},
        {"set inside", Array::create({Set::create()})},
        {"URL as a key", Dictionary::create({{Url::withString("a:b"), text("")}})},
        {"cycle", holdsItself},
        {"deep", deep},
        {"deep, each level also on top", deepByParts},
    };
    for (const Row& row : rows)
        EXPECT_FALSE(writePropertyList(*row.object, GetParam()).ok()) << row.what;
    const_cast<std::vector<Ref<Object>>&>(holdsItself->items()).clear(); // breaks the cycle for the leak checker
}

INSTANTIATE_TEST_SUITE_P(PropertyList, BothForms,
                         testing::Values(PropertyListFormat::kBinary, PropertyListFormat::kXml),
                         [](const auto& form) { return form.param == PropertyListFormat::kBinary ? "Binary" : "Xml"; });

TEST(PropertyList, BinaryKeepsKindsSharingNumberKeysAndNull)
{
    const Ref<Array> shared = Array::create({text("in both")});
    const Ref<Array> kinds = Array::create({Number::withInt(5), Number::withInt64(5), Number::withUint64(5),
                                            Number::withDouble(5), Number::withInt(-5), Number::withInt64(-5),
                                            Number::withDouble(-0.0), Number::withDouble(0), Number::withDouble(NAN)});
    const Ref<Dictionary> root = Dictionary::create({{Number::withInt(12), shared},
                                                     {text("again"), shared},
                                                     {text("kinds"), kinds},
                                                     {text("null"), Null::create()},
                                                     {text("uid"), Uid::create(0x12345)}});
    const auto bytes = writePropertyList(*root, PropertyListFormat::kBinary);
    ASSERT_TRUE(bytes.ok());
    const auto read = readPropertyList(bytes.value());
    ASSERT_TRUE(read.ok()) << read.status().message();
    const Ref<Dictionary> back = as<Dictionary>(read.value());
    ASSERT_TRUE(back && back->isEqual(*root));
    EXPECT_EQ(back->get(*Number::withInt64(12)).get(), back->get("again").get());
    const Ref<Array> backKinds = back->get<Array>("kinds");
    for (size_t i = 0; i < kinds->count(); ++i)
        EXPECT_EQ(as<Number>(backKinds->at(i))->kind(), as<Number>(kinds->at(i))->kind()) << i;
    EXPECT_TRUE(std::signbit(as<Number>(backKinds->at(6))->doubleValue()));
    EXPECT_FALSE(writePropertyList(*root, PropertyListFormat::kXml).ok());
}

TEST(PropertyList, SharedPartsStayShared)
{
    Ref<Object> bomb = text("a leaf of some size");
    for (int i = 0; i < 100; ++i)
        bomb = Array::create({bomb, bomb});
    const auto bytes = writePropertyList(*bomb, PropertyListFormat::kBinary);
    ASSERT_TRUE(bytes.ok());
    EXPECT_LT(bytes.value().size(), 1000u);
    const auto read = readPropertyList(bytes.value());
    ASSERT_TRUE(read.ok());
    EXPECT_TRUE(read.value()->isEqual(*bomb));
}

/// A binary property list made by hand: `objects` one after the other, with one-byte offsets and references.
std::string binary(const std::vector<std::string>& objects, const std::string& offsets = "")
{
    std::string out = "bplist00";
    std::string table;
    for (const std::string& object : objects) {
        table.push_back(static_cast<char>(out.size()));
        out += object;
    }
    if (!offsets.empty())
        table = offsets;
    std::string trailer(32, '\0');
    trailer[6] = trailer[7] = 1;
    trailer[15] = static_cast<char>(table.size());
    trailer[31] = static_cast<char>(out.size());
    return out + table + trailer;
}

std::string patched(std::string bytes, size_t fromEnd, const std::string& with)
{
    return bytes.replace(bytes.size() - fromEnd, with.size(), with);
}

const std::string kOnes(8, '\xff');

TEST(PropertyList, RefusesHostileBinary)
{
    using namespace std::string_literals;
    const std::string good = binary({"\x51x"s});
    ASSERT_TRUE(readPropertyList(bytesOf(good)).ok());
    struct Row {
        const char* what;
        std::string bytes;
        Code code = Code::kInvalid;
    } rows[] = {
        {"empty", ""},
        {"header alone", "bplist00"},
        {"offset width 0", patched(good, 26, "\0"s)},
        {"offset width 9", patched(good, 26, "\x09"s)},
        {"reference width 255", patched(good, 25, "\xff"s)},
        {"no objects", patched(good, 24, std::string(8, '\0'))},
        {"count near 2^64", patched(good, 24, kOnes), Code::kTooLarge},
        {"count one too many", patched(good, 17, "\x02"s)},
        {"top object past the end", patched(good, 9, "\x01"s)},
        {"top object near 2^64", patched(good, 16, kOnes)},
        {"offset table near 2^64", patched(good, 8, kOnes)},
        {"offset table in the header", patched(good, 1, "\x03"s)},
        {"offset into the header", binary({"\x51x"s}, "\x02"s)},
        {"offset into the table", binary({"\x51x"s}, "\x0a"s)},
        {"offset past everything", binary({"\x51x"s}, "\xff"s)},
        {"unknown type", binary({"\x70"s})},
        {"fill byte", binary({"\x0f"s})},
        {"set", binary({"\xc0"s})},
        {"string past the end", binary({"\x55x"s})},
        {"string, count near 2^64", binary({"\x5f\x13"s + kOnes})},
        {"UTF-16, doubled count wraps", binary({"\x6f\x13\x80"s + std::string(7, '\0')})},
        {"array, count times width wraps", binary({"\xaf\x13\x20"s + std::string(7, '\0')})},
        {"dictionary, doubled count wraps", binary({"\xdf\x13\x80"s + std::string(7, '\0')})},
        {"count of no integer", binary({"\x5f\x51x"s})},
        {"count of 16 bytes", binary({"\x5f\x14"s + std::string(16, '\0')})},
        {"integer of 32 bytes", binary({"\x15"s + std::string(32, '\0')})},
        {"integer beyond 64 bits", binary({"\x14"s + std::string(7, '\0') + "\x01"s + std::string(8, '\0')})},
        {"integer below 64 bits", binary({"\x14"s + kOnes + std::string(8, '\0')})},
        {"real of one byte", binary({"\x20x"s})},
        {"date cut off", binary({"\x33xxxx"s})},
        {"reference past the end", binary({"\xa1\x01"s})},
        {"array holds itself", binary({"\xa1\x00"s})},
        {"cycle of two through a dictionary", binary({"\xd1\x02\x01"s, "\xa1\x00"s, "\x51k"s})},
        {"cycle of three below the top", binary({"\xa1\x01"s, "\xa1\x02"s, "\xa1\x03"s, "\xa1\x01"s})},
        {"key is an array", binary({"\xd1\x01\x02"s, "\xa0"s, "\x51v"s})},
        {"objects overlap", binary({"\xa3\x01\x02\x03"s, "\x54zzzz"s}, "\x08\x0c\x0c\x0c"s)},
        {"UID of 16 bytes", binary({"\x8f"s + std::string(16, '\0')})},
        {"text that is no XML", "hello"},
    };
    for (const Row& row : rows) {
        const auto read = readPropertyList(bytesOf(row.bytes));
        EXPECT_EQ(read.code(), row.code) << row.what << ": " << read.status().message();
    }
}

TEST(PropertyList, ReadsWhatOtherWritersUse)
{
    using namespace std::string_literals;
    const auto read = readPropertyList(
        bytesOf(binary({"\xa7\x01\x02\x03\x04\x05\x06\x07"s, "\x10\xff"s, "\x11\xff\xff"s, "\x12\xff\xff\xff\xff"s,
                        "\x22\x3f\xc0\x00\x00"s, "\x13"s + kOnes, "\x62\xd8\x3d\xde\x00"s, "\x61\xd8\x00"s})));
    ASSERT_TRUE(read.ok()) << read.status().message();
    EXPECT_EQ(read.value()->description(), "(255, 65535, 4294967295, 1.5, -1, 😀, \xEF\xBF\xBD)");
    const auto& items = static_cast<const Array&>(*read.value()).items();
    EXPECT_EQ(as<Number>(items[1])->kind(), Number::Kind::kInt32);
    EXPECT_EQ(as<Number>(items[2])->kind(), Number::Kind::kInt64);
    EXPECT_EQ(as<Number>(items[4])->kind(), Number::Kind::kInt64);
}

TEST(PropertyList, KeepsItsLimits)
{
    const auto nested = [](int levels) {
        std::string xml = "<plist>";
        for (int i = 0; i < levels; ++i)
            xml += "<array>";
        for (int i = 0; i < levels; ++i)
            xml += "</array>";
        return xml + "</plist>";
    };
    EXPECT_TRUE(readPropertyList(bytesOf(nested(512))).ok());
    EXPECT_EQ(readPropertyList(bytesOf(nested(513))).code(), Code::kTooLarge);
    EXPECT_EQ(readPropertyList(bytesOf(nested(1'000'000))).code(), Code::kTooLarge);

    const auto bytes = writePropertyList(*sample(), PropertyListFormat::kBinary);
    EXPECT_EQ(readPropertyList(bytes.value(), {.maxBytes = bytes.value().size() - 1}).code(), Code::kTooLarge);
    EXPECT_EQ(readPropertyList(bytes.value(), {.maxObjects = 100}).code(), Code::kTooLarge);
    EXPECT_EQ(readPropertyList(bytes.value(), {.maxDepth = 1}).code(), Code::kTooLarge);
    EXPECT_TRUE(readPropertyList(bytes.value(), {.maxDepth = 2}).ok());
    const auto xml = writePropertyList(*sample(), PropertyListFormat::kXml);
    EXPECT_EQ(readPropertyList(xml.value(), {.maxObjects = 100}).code(), Code::kTooLarge);

    // Every dictionary would hash the one long key anew.
    for (const size_t keyLength : {size_t{40}, size_t{60'000}}) {
        const Ref<Object> key = text(std::string(keyLength, 'k'));
        const Ref<MutableArray> dictionaries = MutableArray::create();
        for (int i = 0; i < 2000; ++i)
            dictionaries->append(Dictionary::create({{key, Number::withInt(i)}}));
        const auto shared = writePropertyList(*dictionaries, PropertyListFormat::kBinary);
        EXPECT_EQ(readPropertyList(shared.value()).ok(), keyLength == 40) << keyLength;
        KeyedArchiver archiver;
        archiver.encodeObject(dictionaries.get(), "list");
        const auto archive = KeyedUnarchiver::open(archiver.finish().value());
        EXPECT_EQ(static_cast<bool>(archive.value().decodeObject("list")), keyLength == 40) << keyLength;
    }

    // The top array meets every level of the chain at depth two, innermost first.
    std::string objects = "bplist00";
    std::string offsets;
    const auto add = [&](const std::string& object) {
        offsets += {static_cast<char>(objects.size() >> 8), static_cast<char>(objects.size())};
        objects += object;
    };
    constexpr int kLevels = 2000;
    const auto reference = [](int i) { return std::string({static_cast<char>(i >> 8), static_cast<char>(i)}); };
    std::string top = "\xaf\x11" + reference(kLevels);
    for (int i = 1; i <= kLevels; ++i)
        top += reference(i);
    add(top);
    add("\xa0");
    for (int i = 2; i <= kLevels; ++i)
        add("\xa1" + reference(i - 1));
    std::string trailer(32, '\0');
    trailer[6] = trailer[7] = 2;
    trailer.replace(14, 2, reference(kLevels + 1));
    trailer.replace(30, 2, {static_cast<char>(objects.size() >> 8), static_cast<char>(objects.size())});
    EXPECT_EQ(readPropertyList(bytesOf(objects + offsets + trailer)).code(), Code::kTooLarge);
}

TEST(PropertyList, SurvivesEveryTruncationAndEveryFlippedByte)
{
    for (const auto format : {PropertyListFormat::kBinary, PropertyListFormat::kXml}) {
        const Ref<Dictionary> small = sample(20);
        const auto written = writePropertyList(*small, format);
        const std::vector<std::byte>& whole = written.value();
        size_t refused = 0;
        for (size_t size = 0; size < whole.size(); ++size)
            refused += readPropertyList(std::span(whole).first(size)).ok() ? 0 : 1;
        // XML without its last line feed is whole still.
        EXPECT_GE(refused, whole.size() - 1);
        for (size_t i = 0; i < whole.size(); ++i) {
            for (const unsigned change : {0x01U, 0x80U, 0xffU}) {
                auto broken = whole;
                broken[i] ^= static_cast<std::byte>(change);
                const auto read = readPropertyList(broken);
                if (read.ok())
                    (void)read.value()->isEqual(*small); // whatever came out must be sound
            }
        }
    }
}

TEST(PropertyList, ReadsXmlAsOthersWriteIt)
{
    struct Row {
        const char* what;
        const char* xml;
        const char* expected; // description, or null when it is refused
    } rows[] = {
        {"header, document type, comment",
         "\xEF\xBB\xBF<?xml version='1.0'?>\n<!DOCTYPE plist SYSTEM \"a>b.dtd\">\n<!-- <x> --><plist version=\"1.0\">"
         "<dict><!-- c --><key>k</key><integer> 7 </integer></dict></plist>\n",
         "{k = 7; }"},
        {"references and sections", "<plist><string>&lt;&#65;&#x1F600;&amp;lt;<![CDATA[<&>]]>&apos;</string></plist>",
         "<A😀&lt;<&>'"},
        {"line ends", "<plist><string>a\r\nb\rc&#13;</string></plist>", "a\nb\nc\r"},
        {"hexadecimal and signs",
         "<plist><array><integer>0x7fffffffffffffff</integer><integer>+1</integer><integer>-9223372036854775808</"
         "integer>"
         "<integer>18446744073709551615</integer></array></plist>",
         "(9223372036854775807, 1, -9223372036854775808, 18446744073709551615)"},
        {"reals", "<plist><array><real>1</real><real>-2.5e3</real><real>+inf</real></array></plist>",
         "(1, -2500, inf)"},
        {"empty elements", "<plist><array><string/><data/><dict/><array /><true/><false></false></array></plist>",
         "(, {length = 0, bytes = 0x}, {}, (), 1, 0)"},
        {"data over lines", "<plist><data>\n\tAQI\n\tD/w==\n</data></plist>", "{length = 4, bytes = 0x010203ff}"},
        {"entity declarations", "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>&a;</string></plist>", nullptr},
        {"empty declarations", "<!DOCTYPE plist []><plist><true/></plist>", nullptr},
        {"undeclared entity", "<plist><string>&a;</string></plist>", nullptr},
        {"reference to a control character", "<plist><string>&#0;</string></plist>", nullptr},
        {"reference past Unicode", "<plist><string>&#x110000;</string></plist>", nullptr},
        {"reference without end", "<plist><string>&amp</string></plist>", nullptr},
        {"control character", "<plist><string>\x01</string></plist>", nullptr},
        {"integer past 64 bits", "<plist><integer>18446744073709551616</integer></plist>", nullptr},
        {"integer below 64 bits", "<plist><integer>-9223372036854775809</integer></plist>", nullptr},
        {"integer with a tail", "<plist><integer>1 2</integer></plist>", nullptr},
        {"empty integer", "<plist><integer/></plist>", nullptr},
        {"real past a double", "<plist><real>1e999</real></plist>", nullptr},
        {"no such day", "<plist><date>2001-02-29T00:00:00Z</date></plist>", nullptr},
        {"base64 after padding", "<plist><data>AQ==AQ==</data></plist>", nullptr},
        {"base64 cut off", "<plist><data>AQI</data></plist>", nullptr},
        {"unknown element", "<plist><set/></plist>", nullptr},
        {"nothing in it", "<plist></plist>", nullptr},
        {"two values", "<plist><true/><true/></plist>", nullptr},
        {"something after", "<plist><true/></plist><plist/>", nullptr},
        {"value without key", "<plist><dict><true/></dict></plist>", nullptr},
        {"key without value", "<plist><dict><key>a</key></dict></plist>", nullptr},
        {"two keys", "<plist><dict><key>a</key><key>a</key><true/></dict></plist>", nullptr},
        {"key in an array", "<plist><array><key>a</key></array></plist>", nullptr},
        {"crossed tags", "<plist><array><dict></array></dict></plist>", nullptr},
        {"element in a text", "<plist><string>a<b/></string></plist>", nullptr},
        {"text between elements", "<plist><array>x</array></plist>", nullptr},
        {"open end", "<plist><array><true/>", nullptr},
        {"tag without end", "<plist", nullptr},
        {"closing tag that is empty too", "<plist><array></array/></plist>", nullptr},
    };
    for (const Row& row : rows) {
        const auto read = readPropertyList(bytesOf(row.xml));
        EXPECT_EQ(read.ok(), row.expected != nullptr) << row.what << ": " << read.status().message();
        if (read.ok() && row.expected) {
            EXPECT_EQ(read.value()->description(), row.expected) << row.what;
        }
    }
}

TEST(PropertyList, XmlRefusesTextThatItCannotHold)
{
    for (const char* bad : {"\x01", "a\x1f", "\xEF\xBF\xBE"})
        EXPECT_EQ(writePropertyList(*text(bad), PropertyListFormat::kXml).code(), Code::kUnsupported);
}

} // namespace
} // namespace vnt
