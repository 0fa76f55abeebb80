#include "platform/foundation/KeyedArchive.h"

#include <gtest/gtest.h>

#include "platform/base/sys.h"
#include "platform/foundation/Error.h"

namespace vnt {
namespace {

Ref<Object> text(std::string_view value) { return String::create(value); }

Ref<Dictionary> signatures()
{
    const Ref<Data> opaque = Data::adopting(std::vector<std::byte>(50, std::byte{7}));
    return Dictionary::create({{Number::withInt(812), opaque}, {Number::withInt64(-3), opaque}});
}

/// One of every class, in the shape of a recording's data file.
std::vector<std::byte> sampleArchive()
{
    KeyedArchiver archiver(256);
    archiver.encodeInt64(INT64_MIN, "interval");
    archiver.encodeInt32(-3, "pid");
    archiver.encodeInt(4, "fileversion");
    archiver.encodeBool(true, "yes");
    archiver.encodeBool(false, "no");
    archiver.encodeObject(Url::withString("unix:/run/a b").get(), "address");
    archiver.encodeObject(nullptr, "version");
    archiver.encodeObject(Number::withInt(9).get(), "number");
    archiver.encodeObject(signatures().get(), "signatures");
    const Ref<Dictionary> device = Dictionary::create({{text("name"), text("büro")},
                                                       {text("nothing"), Null::create()},
                                                       {text("date"), Date::withSecondsSince2001(1.5)},
                                                       {text("set"), Set::create({text("a"), text("b")})},
                                                       {text("list"), Array::create({text("$null"), signatures()})}});
    archiver.encodeObject(device.get(), "device");
    archiver.encodeObject(device.get(), "device again");
    auto bytes = archiver.finish();
    VNT_CHECK(bytes.ok());
    return bytes.take();
}

TEST(KeyedArchive, ReadsBackKeysTypesOrderAndSharing)
{
    const auto archive = KeyedUnarchiver::open(sampleArchive());
    ASSERT_TRUE(archive.ok()) << archive.status().message();
    const KeyedUnarchiver& reader = archive.value();
    EXPECT_EQ(reader.keys(),
              (std::vector<std::string>{"interval", "pid", "fileversion", "yes", "no", "address", "version", "number",
                                        "signatures", "device", "device again"}));
    EXPECT_EQ(reader.decodeInt64("interval"), INT64_MIN);
    EXPECT_EQ(reader.decodeInt64("pid"), -3);
    EXPECT_EQ(as<Number>(reader.decodeObject("pid"))->kind(), Number::Kind::kInt32);
    EXPECT_TRUE(reader.decodeBool("yes"));
    EXPECT_FALSE(reader.decodeBool("no", true));
    EXPECT_EQ(as<Url>(reader.decodeObject("address"))->str(), "unix:/run/a b");
    EXPECT_TRUE(reader.has("version"));
    EXPECT_FALSE(reader.decodeObject("version"));
    EXPECT_FALSE(reader.has("versions"));
    EXPECT_EQ(reader.decodeInt64("number", -1), 9);
    EXPECT_EQ(reader.decodeInt64("address", -1), -1);
    EXPECT_TRUE(reader.decodeObject("signatures")->isEqual(*signatures()));
    const Ref<Dictionary> device = as<Dictionary>(reader.decodeObject("device"));
    ASSERT_TRUE(device);
    EXPECT_EQ(device->description(),
              "{name = büro; nothing = <null>; date = 2001-01-01 00:00:01 +0000; set = {(a, b)}; "
              "list = ($null, "
                  + signatures()->description() + "); }");
    EXPECT_EQ(device.get(), reader.decodeObject("device again").get());
}

TEST(KeyedArchive, OpensInPythonWithKeysTypesAndOrder)
{
    const std::string path = sys::environmentOr("TMPDIR", "/tmp") + "/archive.plist";
    ASSERT_TRUE(sys::writeFileAtomically(path, sampleArchive(), 0600).ok());
    const std::string command =
        "python3 -c '\n"
        "import plistlib, sys\n"
        "a = plistlib.load(open(sys.argv[1], \"rb\"))\n"
        "assert list(a) == [\"$version\", \"$archiver\", \"$top\", \"$objects\"], list(a)\n"
        "assert a[\"$version\"] == 100000 and a[\"$archiver\"] == \"NSKeyedArchiver\"\n"
        "top, table = a[\"$top\"], a[\"$objects\"]\n"
        "assert table[0] == \"$null\"\n"
        "assert list(top)[:6] == [\"interval\", \"pid\", \"fileversion\", \"yes\", \"no\", \"address\"], top\n"
        "assert [top[k] for k in list(top)[:5]] == [-2**63, -3, 4, True, False]\n"
        "assert top[\"yes\"] is True and type(top[\"pid\"]) is int\n"
        "get = lambda uid: table[uid.data]\n"
        "name = lambda o: get(o[\"$class\"])[\"$classname\"]\n"
        "url = get(top[\"address\"])\n"
        "assert name(url) == \"NSURL\" and get(url[\"NS.relative\"]) == \"unix:/run/a b\", url\n"
        "assert get(url[\"$class\"])[\"$classes\"] == [\"NSURL\", \"NSObject\"]\n"
        "assert url[\"NS.base\"].data == 0 and top[\"version\"].data == 0\n"
        "assert get(top[\"number\"]) == 9\n"
        "sig = get(top[\"signatures\"])\n"
        "assert name(sig) == \"NSDictionary\"\n"
        "assert [get(k) for k in sig[\"NS.keys\"]] == [812, -3]\n"
        "assert [get(o) for o in sig[\"NS.objects\"]] == [bytes([7] * 50)] * 2\n"
        "device = get(top[\"device\"])\n"
        "assert top[\"device\"] == top[\"device again\"]\n"
        "values = [get(o) for o in device[\"NS.objects\"]]\n"
        "assert values[0] == \"b\\u00fcro\" and name(values[1]) == \"NSNull\", values\n"
        "assert name(values[2]) == \"NSDate\" and values[2][\"NS.time\"] == 1.5\n"
        "assert name(values[3]) == \"NSSet\" and name(values[4]) == \"NSArray\"\n"
        "' "
        + path;
    EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST(KeyedArchive, RefusesWhatItCannotHold)
{
    const Ref<MutableArray> holdsItself = MutableArray::create();
    holdsItself->append(holdsItself);
    struct Row {
        const char* what;
        Ref<Object> object;
    } rows[] = {
        {"error", Error::fromErrno(1, "")},
        {"error inside", Array::create({Error::fromErrno(1, "")})},
        {"cycle", holdsItself},
        {"collection as a key", Dictionary::create({{Array::create(), text("")}})},
        {"collection in a set", Set::create({Array::create()})},
    };
    for (const Row& row : rows) {
        KeyedArchiver archiver;
        archiver.encodeObject(row.object.get(), "key");
        EXPECT_EQ(archiver.finish().code(), Code::kUnsupported) << row.what;
    }
    const_cast<std::vector<Ref<Object>>&>(holdsItself->items()).clear(); // breaks the cycle for the leak checker
}

Ref<Object> uid(uint64_t value) { return Uid::create(value); }
Ref<Object> uids(const std::vector<uint64_t>& values)
{
    const Ref<MutableArray> array = MutableArray::create();
    for (const uint64_t value : values)
        array->append(uid(value));
    return array;
}

Ref<Object> entry(uint64_t classUid, const std::vector<std::pair<const char*, Ref<Object>>>& fields)
{
    const Ref<MutableDictionary> dictionary = MutableDictionary::create();
    for (const auto& [key, value] : fields)
        dictionary->set(key, value);
    dictionary->set("$class", uid(classUid));
    return dictionary;
}

/// Archive whose key "x" names table entry 1. Entries 10 to 14 describe the classes.
Result<KeyedUnarchiver> openTable(std::vector<Ref<Object>> table, const PropertyListLimits& limits = {})
{
    table.insert(table.begin(), text("$null"));
    while (table.size() < 10)
        table.push_back(text("filler"));
    for (const char* name : {"NSArray", "NSDictionary", "NSSet", "NSURL", "Mystery"})
        table.push_back(Dictionary::create({{text("$classname"), text(name)}}));
    const Ref<Dictionary> archive = Dictionary::create(
        {{text("$version"), Number::withInt(100'000)},
         {text("$archiver"), text("NSKeyedArchiver")},
         {text("$top"),
          Dictionary::create({{text("x"), uid(1)}, {text("fine"), uid(9)}, {text("wild"), uid(1 << 30)}})},
         {text("$objects"), Array::create(std::move(table))}});
    const auto bytes = writePropertyList(*archive, PropertyListFormat::kBinary);
    VNT_CHECK(bytes.ok());
    return KeyedUnarchiver::open(bytes.value(), limits);
}

constexpr uint64_t kArray = 10;
constexpr uint64_t kDictionary = 11;
constexpr uint64_t kSet = 12;
constexpr uint64_t kUrl = 13;
constexpr uint64_t kMystery = 14;

TEST(KeyedArchive, ReadsDamagedObjectsAsNullAndTheOthersStill)
{
    struct Row {
        const char* what;
        std::vector<Ref<Object>> table;
        const char* expected; // null: refused
    } rows[] = {
        {"sound", {entry(kArray, {{"NS.objects", uids({2, 2})}}), text("v")}, "(v, v)"},
        {"holds itself", {entry(kArray, {{"NS.objects", uids({1})}})}, nullptr},
        {"cycle of two",
         {entry(kArray, {{"NS.objects", uids({2})}}), entry(kArray, {{"NS.objects", uids({1})}})},
         nullptr},
        {"unknown class inside", {entry(kArray, {{"NS.objects", uids({2})}}), entry(kMystery, {})}, nullptr},
        {"class past the table", {entry(999, {{"NS.objects", uids({})}})}, nullptr},
        {"item past the table", {entry(kArray, {{"NS.objects", uids({99})}})}, nullptr},
        {"item that is null", {entry(kArray, {{"NS.objects", uids({0})}})}, nullptr},
        {"items that are no references", {entry(kArray, {{"NS.objects", Array::create({text("v")})}})}, nullptr},
        {"no items", {entry(kArray, {})}, nullptr},
        {"more keys than values", {entry(kDictionary, {{"NS.keys", uids({2})}, {"NS.objects", uids({})}})}, nullptr},
        {"key is a collection",
         {entry(kDictionary, {{"NS.keys", uids({2})}, {"NS.objects", uids({2})}}),
          entry(kArray, {{"NS.objects", uids({})}})},
         nullptr},
        {"set of collections",
         {entry(kSet, {{"NS.objects", uids({2})}}), entry(kArray, {{"NS.objects", uids({})}})},
         nullptr},
        {"URL with a base", {entry(kUrl, {{"NS.base", uid(2)}, {"NS.relative", uid(2)}}), text("a:b")}, nullptr},
        {"URL without scheme", {entry(kUrl, {{"NS.base", uid(0)}, {"NS.relative", uid(2)}}), text("b")}, nullptr},
        {"plain collection in the table", {Array::create({text("a")})}, nullptr},
        {"reference in the table", {uid(2)}, nullptr},
    };
    for (const Row& row : rows) {
        const auto archive = openTable(row.table);
        ASSERT_TRUE(archive.ok()) << row.what;
        const Ref<Object> object = archive.value().decodeObject("x");
        EXPECT_EQ(static_cast<bool>(object), row.expected != nullptr) << row.what;
        if (object && row.expected) {
            EXPECT_EQ(object->description(), row.expected) << row.what;
        }
        EXPECT_EQ(archive.value().decodeObject("fine")->description(), "filler") << row.what;
        EXPECT_FALSE(archive.value().decodeObject("wild")) << row.what;
    }
}

TEST(KeyedArchive, KeepsItsLimits)
{
    std::vector<Ref<Object>> chain;
    for (uint64_t i = 1; i <= 8; ++i)
        chain.push_back(entry(kArray, {{"NS.objects", uids({i + 1})}}));
    EXPECT_TRUE(openTable(chain).value().decodeObject("x"));
    EXPECT_FALSE(openTable(chain, {.maxDepth = 6}).value().decodeObject("x"));

    // The first array meets every level of the chain at depth two, innermost first.
    std::vector<Ref<Object>> stairs{entry(kArray, {{"NS.objects", uids({2, 3, 4, 5, 6, 7, 8})}}),
                                    entry(kArray, {{"NS.objects", uids({})}})};
    for (uint64_t i = 3; i <= 8; ++i)
        stairs.push_back(entry(kArray, {{"NS.objects", uids({i - 1})}}));
    EXPECT_TRUE(openTable(stairs, {.maxDepth = 8}).value().decodeObject("x"));
    EXPECT_FALSE(openTable(stairs, {.maxDepth = 6}).value().decodeObject("x"));

    // One list of references shared by all collections: what they hold together is limited.
    const Ref<Object> shared = uids(std::vector<uint64_t>(300, 9));
    std::vector<Ref<Object>> sharing{entry(kArray, {{"NS.objects", uids({2, 3, 4, 5, 6, 7, 8})}})};
    for (int i = 0; i < 7; ++i)
        sharing.push_back(entry(kArray, {{"NS.objects", shared}}));
    EXPECT_TRUE(openTable(sharing, {.maxObjects = 2200}).value().decodeObject("x"));
    EXPECT_FALSE(openTable(sharing, {.maxObjects = 2000}).value().decodeObject("x"));
}

TEST(KeyedArchive, SurvivesEveryTruncationAndEveryFlippedByte)
{
    const std::vector<std::byte> whole = sampleArchive();
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(KeyedUnarchiver::open(std::span(whole).first(size)).ok()) << size;
    for (size_t i = 0; i < whole.size(); ++i) {
        for (const unsigned change : {0x01U, 0x02U, 0x10U, 0x80U, 0xffU}) {
            auto broken = whole;
            broken[i] ^= static_cast<std::byte>(change);
            const auto archive = KeyedUnarchiver::open(broken);
            if (!archive.ok())
                continue;
            for (const std::string& key : archive.value().keys()) {
                if (const Ref<Object> object = archive.value().decodeObject(key))
                    (void)object->description(); // whatever came out must be sound
            }
        }
    }
}

} // namespace
} // namespace vnt
