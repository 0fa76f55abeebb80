#include <gtest/gtest.h>

#include "platform/foundation/Collections.h"

namespace vnt {
namespace {

std::string keysOf(const Dictionary& dictionary)
{
    std::string keys;
    for (const auto& entry : dictionary.entries())
        keys += entry.first->description() + " ";
    return keys;
}

TEST(Dictionary, KeepsInsertionOrderThroughReplacingAndRemoving)
{
    // Both sides of the size at which the hash index begins.
    for (const int count : {3, 8, 9, 100}) {
        const Ref<MutableDictionary> dictionary = MutableDictionary::create();
        std::string expected;
        for (int i = 0; i < count; ++i) {
            dictionary->set("k" + std::to_string(i), Number::withInt(i));
            if (i != 1 && i != count - 1)
                expected += "k" + std::to_string(i) + " ";
        }
        dictionary->set("k0", String::create("new"));
        dictionary->remove("k1");
        dictionary->remove(*String::create("k" + std::to_string(count - 1)));
        dictionary->remove("absent");
        EXPECT_EQ(keysOf(*dictionary), expected);
        EXPECT_EQ(dictionary->get<String>("k0")->str(), "new");
        for (int i = 2; i < count - 1; ++i)
            EXPECT_EQ(dictionary->get<Number>("k" + std::to_string(i))->intValue(), i);
        EXPECT_FALSE(dictionary->get("k1"));
        dictionary->set("k1", Null::create());
        EXPECT_EQ(keysOf(*dictionary), expected + "k1 ");
        dictionary->removeAll();
        EXPECT_EQ(dictionary->count(), 0u);
        EXPECT_FALSE(dictionary->get("k0"));
    }
}

TEST(Dictionary, FindsKeysOfEveryKindByValue)
{
    const Ref<MutableDictionary> dictionary = MutableDictionary::create();
    for (int i = 0; i < 50; ++i)
        dictionary->set(Number::withInt(i), Number::withInt(i));
    EXPECT_EQ(as<Number>(dictionary->get(*Number::withUint64(7)))->intValue(), 7);
    EXPECT_EQ(as<Number>(dictionary->get(*Number::withDouble(8)))->intValue(), 8);
    EXPECT_FALSE(dictionary->get(*Number::withBool(true)));
    EXPECT_FALSE(dictionary->get("7"));
    dictionary->set(Number::withInt64(7), Number::withInt(70));
    EXPECT_EQ(dictionary->count(), 50u);
    EXPECT_EQ(as<Number>(dictionary->get(*Number::withInt(7)))->intValue(), 70);
}

TEST(Dictionary, HoldsManyEntriesAndMerges)
{
    constexpr int kCount = 100'000;
    const Ref<MutableDictionary> many = MutableDictionary::create();
    for (int i = 0; i < kCount; ++i)
        many->set(Number::withInt(i), Number::withInt(-i));
    const Ref<MutableDictionary> copy = MutableDictionary::copyOf(*many);
    copy->merge(*copy);
    EXPECT_TRUE(copy->isEqual(*many));
    copy->set(Number::withInt(kCount / 2), Number::withInt(1));
    EXPECT_FALSE(copy->isEqual(*many));
    for (int i = 0; i < kCount; i += 997)
        EXPECT_EQ(as<Number>(many->get(*Number::withInt(i)))->intValue(), -i);
}

TEST(Dictionary, RefusesNullParts)
{
    const Ref<MutableDictionary> dictionary = MutableDictionary::create();
    EXPECT_DEATH(dictionary->set("k", nullptr), "value");
    EXPECT_DEATH(MutableArray::create()->append(nullptr), "object");
}

TEST(Collections, CompareByContents)
{
    const auto text = [](const char* value) -> Ref<Object> { return String::create(value); };
    const Ref<Array> ab = Array::create({text("a"), text("b")});
    const Ref<MutableArray> mutableAb = MutableArray::create();
    mutableAb->append(text("a"));
    EXPECT_FALSE(ab->isEqual(*mutableAb));
    mutableAb->append(text("b"));
    EXPECT_TRUE(ab->isEqual(*mutableAb));
    EXPECT_FALSE(ab->isEqual(*Array::create({text("b"), text("a")})));
    EXPECT_TRUE(ab->contains(*text("b")));
    EXPECT_FALSE(ab->contains(*text("c")));

    const Ref<Dictionary> one = Dictionary::create({{text("x"), ab}, {text("y"), text("1")}});
    EXPECT_TRUE(one->isEqual(*Dictionary::create({{text("y"), text("1")}, {text("x"), mutableAb}})));
    EXPECT_FALSE(one->isEqual(*Dictionary::create({{text("y"), text("1")}, {text("z"), mutableAb}})));
    EXPECT_FALSE(one->isEqual(*ab));

    const Ref<Set> set = Set::create({text("a"), text("b"), text("a"), ab, mutableAb});
    EXPECT_EQ(set->count(), 3u);
    EXPECT_TRUE(set->isEqual(*Set::create({ab, text("b"), text("a")})));
    EXPECT_EQ(set->description(), "{(a, b, (a, b))}");
    EXPECT_EQ(one->description(), "{x = (a, b); y = 1; }");
}

/// [[..[leaf, leaf], same]..]: 2^levels leaves when spelled out.
Ref<Object> doubling(int levels, const char* leaf)
{
    Ref<Object> object = String::create(leaf);
    for (int i = 0; i < levels; ++i)
        object = Array::create({object, object});
    return object;
}

TEST(Collections, SharedPartsCostNoMoreThanTheyHold)
{
    EXPECT_TRUE(doubling(60, "leaf")->isEqual(*doubling(60, "leaf")));
    EXPECT_FALSE(doubling(60, "leaf")->isEqual(*doubling(60, "other")));
    EXPECT_LT(doubling(60, "leaf")->description().size(), 1'100'000u);
    EXPECT_LT(doubling(5000, "leaf")->description().size(), 1'100'000u);
}

} // namespace
} // namespace vnt
