#include <Vantora/Platform.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/foundation/Error.h"
#include "platform/foundation/bridge.h"

// Written as a C caller would: only the header's functions, every reference released (the address sanitizer's build
// finds one that is not).
namespace {

CFStringRef text(const char* value) { return CFStringCreateWithCString(nullptr, value, kCFStringEncodingUTF8); }

std::string taken(CFStringRef string)
{
    const char* characters = CFStringGetCStringPtr(string, kCFStringEncodingUTF8);
    std::string result = characters ? characters : "(none)";
    CFRelease(string);
    return result;
}

TEST(CInterface, BuildsAndReadsACallersArguments)
{
    CFMutableDictionaryRef options =
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
    CFMutableArrayRef arguments = CFArrayCreateMutable(nullptr, 0, &kCFTypeArrayCallBacks);
    const int64_t interval = 1000;
    CFStringRef intervalKey = text("interval");
    CFStringRef argumentsKey = text("arguments");
    CFStringRef flagKey = text("flag");
    CFStringRef argument = text("-v");
    CFNumberRef number = CFNumberCreate(nullptr, kCFNumberSInt64Type, &interval);
    CFArrayAppendValue(arguments, argument);
    CFDictionarySetValue(options, intervalKey, number);
    CFDictionarySetValue(options, argumentsKey, arguments);
    CFDictionarySetValue(options, flagKey, kCFBooleanTrue);
    CFRelease(number);
    CFRelease(arguments);
    CFRelease(argument);

    EXPECT_EQ(CFDictionaryGetCount(options), 3);
    CFNumberRef got = static_cast<CFNumberRef>(CFDictionaryGetValue(options, intervalKey));
    int narrow = 0;
    EXPECT_TRUE(CFNumberGetValue(got, kCFNumberIntType, &narrow));
    EXPECT_EQ(narrow, 1000);
    CFArrayRef list = static_cast<CFArrayRef>(CFDictionaryGetValue(options, argumentsKey));
    ASSERT_EQ(CFArrayGetCount(list), 1);
    char buffer[3];
    EXPECT_TRUE(CFStringGetCString(static_cast<CFStringRef>(CFArrayGetValueAtIndex(list, 0)), buffer, sizeof buffer,
                                   kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer, "-v");
    EXPECT_TRUE(CFBooleanGetValue(static_cast<CFBooleanRef>(CFDictionaryGetValue(options, flagKey))));

    const void* keys[3];
    const void* values[3];
    CFDictionaryGetKeysAndValues(options, keys, values);
    EXPECT_TRUE(CFEqual(keys[0], intervalKey));
    EXPECT_TRUE(CFEqual(values[2], kCFBooleanTrue));
    EXPECT_EQ(taken(CFCopyDescription(options)), "{interval = 1000; arguments = (-v); flag = 1; }");
    CFDictionaryRemoveValue(options, flagKey);
    EXPECT_EQ(CFDictionaryGetValue(options, flagKey), nullptr);

    CFDictionaryRef copy = CFDictionaryCreate(nullptr, keys, values, 2, nullptr, nullptr);
    EXPECT_TRUE(CFEqual(copy, options));
    EXPECT_EQ(CFHash(copy), CFHash(options));
    CFDictionarySetValue(const_cast<CFMutableDictionaryRef>(copy), flagKey, kCFNull); // cannot change
    EXPECT_EQ(CFDictionaryGetCount(copy), 2);
    CFRelease(copy);
    CFArrayRef fixed = CFArrayCreate(nullptr, keys, 2, nullptr);
    CFArrayAppendValue(const_cast<CFMutableArrayRef>(fixed), flagKey); // cannot change
    EXPECT_EQ(CFArrayGetCount(fixed), 2);
    CFRelease(fixed);
    for (CFTypeRef reference :
         {CFTypeRef(intervalKey), CFTypeRef(argumentsKey), CFTypeRef(flagKey), CFTypeRef(options)})
        CFRelease(reference);
}

TEST(CInterface, ConvertsNumbersAndTellsWhatWasLost)
{
    const int64_t big = INT64_C(1) << 40;
    const int32_t small = -5;
    const double fraction = 2.75;
    const float single = 0.5F;
    struct Row {
        const char* what;
        CFNumberRef number;
        CFNumberType kept;
        CFNumberType type;
        bool exact;
        double expected;
    } rows[] = {
        {"wide to wide", CFNumberCreate(nullptr, kCFNumberLongLongType, &big), kCFNumberSInt64Type, kCFNumberSInt64Type,
         true, 1099511627776.0},
        {"wide to narrow", CFNumberCreate(nullptr, kCFNumberSInt64Type, &big), kCFNumberSInt64Type, kCFNumberSInt32Type,
         false, 0},
        {"narrow to short", CFNumberCreate(nullptr, kCFNumberIntType, &small), kCFNumberSInt32Type, kCFNumberShortType,
         true, -5},
        {"narrow to byte", CFNumberCreate(nullptr, kCFNumberSInt32Type, &small), kCFNumberSInt32Type, kCFNumberCharType,
         true, -5},
        {"narrow to double", CFNumberCreate(nullptr, kCFNumberSInt32Type, &small), kCFNumberSInt32Type,
         kCFNumberDoubleType, true, -5},
        {"fraction to integer", CFNumberCreate(nullptr, kCFNumberDoubleType, &fraction), kCFNumberFloat64Type,
         kCFNumberSInt64Type, false, 2},
        {"fraction to float", CFNumberCreate(nullptr, kCFNumberFloat64Type, &fraction), kCFNumberFloat64Type,
         kCFNumberFloatType, true, 2.75},
        {"float", CFNumberCreate(nullptr, kCFNumberFloatType, &single), kCFNumberFloat64Type, kCFNumberDoubleType, true,
         0.5},
    };
    for (const Row& row : rows) {
        unsigned char memory[16] = {}; // odd addresses must do
        EXPECT_EQ(CFNumberGetValue(row.number, row.type, memory + 1), row.exact) << row.what;
        CFNumberRef back = CFNumberCreate(nullptr, row.type, memory + 1);
        double value = -1;
        CFNumberGetValue(back, kCFNumberDoubleType, &value);
        EXPECT_EQ(value, row.expected) << row.what;
        EXPECT_EQ(CFNumberGetType(row.number), row.kept) << row.what;
        CFRelease(back);
        CFRelease(row.number);
    }
    EXPECT_EQ(CFNumberCreate(nullptr, static_cast<CFNumberType>(15), &big), nullptr);
}

TEST(CInterface, MeasuresAndCopiesText)
{
    CFStringRef string = text("aé😀");
    EXPECT_EQ(CFStringGetLength(string), 4);
    EXPECT_GE(CFStringGetMaximumSizeForEncoding(4, kCFStringEncodingUTF8), 7);
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_FALSE(CFStringGetCString(string, buffer, 7, kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(buffer[7], 'x');
    EXPECT_TRUE(CFStringGetCString(string, buffer, 8, kCFStringEncodingUTF8));
    EXPECT_STREQ(buffer, "aé😀");
    EXPECT_FALSE(CFStringGetCString(string, buffer, 8, kCFStringEncodingASCII));
    EXPECT_EQ(CFStringGetCStringPtr(string, kCFStringEncodingASCII), nullptr);
    CFRelease(string);
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "a", 4), nullptr);
    const uint8_t bytes[] = {'a', 0xff};
    EXPECT_EQ(taken(CFStringCreateWithBytes(nullptr, bytes, 2, kCFStringEncodingUTF8, false)), "a\xEF\xBF\xBD");
    EXPECT_EQ(CFStringGetMaximumSizeForEncoding(LONG_MAX, kCFStringEncodingUTF8), 0);
}

TEST(CInterface, ReadsErrorsDataUrlsAndDates)
{
    CFStringRef domain = text("some.domain");
    CFErrorRef error = CFErrorCreate(nullptr, domain, 1561, nullptr);
    EXPECT_TRUE(CFEqual(CFErrorGetDomain(error), domain));
    EXPECT_EQ(CFErrorGetCode(error), 1561);
    EXPECT_EQ(taken(CFErrorCopyDescription(error)), "some.domain error 1561");
    CFDictionaryRef userInfo = CFErrorCopyUserInfo(error);
    CFRelease(domain);
    CFRelease(error);
    EXPECT_EQ(CFDictionaryGetCount(userInfo), 0); // outlives the error
    CFRelease(userInfo);

    uint8_t bytes[] = {1, 2, 3};
    CFDataRef view = CFDataCreateWithBytesNoCopy(nullptr, bytes, 3, kCFAllocatorNull);
    CFDataRef copy = CFDataCreate(nullptr, bytes, 3);
    EXPECT_EQ(CFDataGetBytePtr(view), bytes);
    EXPECT_NE(CFDataGetBytePtr(copy), bytes);
    EXPECT_EQ(CFDataGetLength(copy), 3);
    EXPECT_TRUE(CFEqual(view, copy));
    CFRelease(view);
    CFRelease(copy);
    auto* given = static_cast<uint8_t*>(std::malloc(4));
    std::memset(given, 7, 4);
    CFDataRef owned = CFDataCreateWithBytesNoCopy(nullptr, given, 4, kCFAllocatorDefault);
    EXPECT_EQ(CFDataGetBytePtr(owned)[3], 7);
    CFRelease(owned);

    CFStringRef address = text("unix:/run/x");
    CFURLRef url = CFURLCreateWithString(nullptr, address, nullptr);
    EXPECT_TRUE(CFEqual(CFURLGetString(url), address));
    EXPECT_EQ(CFURLCreateWithString(nullptr, address, url), nullptr);
    CFRelease(url);
    CFRelease(address);
    const char* path = "/a b";
    CFURLRef file = CFURLCreateFromFileSystemRepresentation(nullptr, reinterpret_cast<const uint8_t*>(path), 4, true);
    EXPECT_STREQ(CFStringGetCStringPtr(CFURLGetString(file), kCFStringEncodingUTF8), "file:///a%20b/");
    CFRelease(file);
    CFDateRef date = CFDateCreate(nullptr, 12.5);
    EXPECT_EQ(CFDateGetAbsoluteTime(date), 12.5);
    CFRelease(date);
}

TEST(CInterface, TakesPropertyListsThereAndBack)
{
    const void* values[] = {kCFBooleanFalse, kCFBooleanTrue};
    CFArrayRef list = CFArrayCreate(nullptr, values, 2, nullptr);
    for (const CFPropertyListFormat format : {kCFPropertyListXMLFormat_v1_0, kCFPropertyListBinaryFormat_v1_0}) {
        CFErrorRef error = nullptr;
        CFDataRef data = CFPropertyListCreateData(nullptr, list, format, 0, &error);
        ASSERT_NE(data, nullptr);
        CFPropertyListFormat found{};
        CFPropertyListRef back = CFPropertyListCreateWithData(nullptr, data, kCFPropertyListImmutable, &found, &error);
        EXPECT_TRUE(CFEqual(back, list));
        EXPECT_EQ(found, format);
        EXPECT_EQ(error, nullptr);
        CFRelease(back);
        CFRelease(data);
    }
    CFErrorRef error = nullptr;
    CFArrayRef bad = CFArrayCreate(nullptr, values, 0, nullptr);
    CFDataRef noList = CFDataCreate(nullptr, reinterpret_cast<const uint8_t*>("nothing"), 7);
    EXPECT_EQ(CFPropertyListCreateWithData(nullptr, noList, 0, nullptr, nullptr), nullptr);
    EXPECT_EQ(CFPropertyListCreateWithData(nullptr, noList, 0, nullptr, &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_NE(taken(CFErrorCopyDescription(error)).find("property list: offset 0"), std::string::npos);
    EXPECT_EQ(CFPropertyListCreateData(nullptr, error, kCFPropertyListXMLFormat_v1_0, 0, nullptr), nullptr);
    CFRelease(error);
    CFRelease(noList);
    CFRelease(bad);
    CFRelease(list);
}

TEST(CInterface, TellsTypesApart)
{
    const int value = 1;
    CFStringRef string = text("");
    CFNumberRef number = CFNumberCreate(nullptr, kCFNumberIntType, &value);
    EXPECT_EQ(CFGetTypeID(string), CFStringGetTypeID());
    EXPECT_EQ(CFGetTypeID(number), CFNumberGetTypeID());
    EXPECT_EQ(CFGetTypeID(kCFBooleanTrue), CFBooleanGetTypeID());
    EXPECT_EQ(CFGetTypeID(kCFNull), CFNullGetTypeID());
    EXPECT_EQ(CFGetTypeID(nullptr), 0u);
    EXPECT_FALSE(CFEqual(number, kCFBooleanTrue));
    CFRelease(number);
    CFRelease(string);
}

TEST(CInterface, IsHarmlessWithNullAndWithOtherTypes)
{
    CFStringRef string = text("s");
    const auto* asArray = reinterpret_cast<CFArrayRef>(string);
    const auto* asDictionary = reinterpret_cast<CFDictionaryRef>(string);
    EXPECT_EQ(CFRetain(nullptr), nullptr);
    CFRelease(nullptr);
    EXPECT_TRUE(CFEqual(nullptr, nullptr));
    EXPECT_FALSE(CFEqual(string, nullptr));
    EXPECT_EQ(CFHash(nullptr), 0u);
    EXPECT_EQ(CFCopyDescription(nullptr), nullptr);
    EXPECT_EQ(CFArrayGetCount(asArray), 0);
    EXPECT_EQ(CFArrayGetValueAtIndex(asArray, 0), nullptr);
    EXPECT_EQ(CFDictionaryGetValue(asDictionary, string), nullptr);
    EXPECT_EQ(CFDataGetBytePtr(reinterpret_cast<CFDataRef>(string)), nullptr);
    EXPECT_EQ(CFErrorGetDomain(reinterpret_cast<CFErrorRef>(string)), nullptr);
    EXPECT_EQ(CFErrorCopyUserInfo(nullptr), nullptr);
    EXPECT_FALSE(CFNumberGetValue(reinterpret_cast<CFNumberRef>(string), kCFNumberIntType, nullptr));
    EXPECT_EQ(CFNumberCreate(nullptr, kCFNumberIntType, nullptr), nullptr);
    EXPECT_EQ(CFStringCreateWithCString(nullptr, nullptr, kCFStringEncodingUTF8), nullptr);
    EXPECT_EQ(CFDataCreate(nullptr, nullptr, -1), nullptr);
    EXPECT_EQ(CFURLCreateWithString(nullptr, string, nullptr), nullptr); // no scheme
    const void* values[] = {string, nullptr};
    EXPECT_EQ(CFArrayCreate(nullptr, values, 2, nullptr), nullptr);
    EXPECT_EQ(CFArrayCreate(nullptr, values, -1, nullptr), nullptr);
    EXPECT_EQ(CFDictionaryCreate(nullptr, values, values, 2, nullptr, nullptr), nullptr);
    CFMutableArrayRef array = CFArrayCreateMutable(nullptr, 0, nullptr);
    CFArrayAppendValue(array, nullptr);
    EXPECT_EQ(CFArrayGetCount(array), 0);
    EXPECT_EQ(CFArrayGetValueAtIndex(array, -1), nullptr);
    CFRelease(array);
    CFRelease(string);
}

TEST(CInterface, CompilesAsC)
{
    if (std::system("cc --version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "needs a C compiler called cc";
    const std::string root = std::string(__FILE__).substr(0, std::string(__FILE__).rfind("platform/"));
    const std::string command =
        "echo 'int main(void) { return CFArrayGetCount(0) + !kCFBooleanTrue + (kCFAllocatorNull == 0); }'"
        " | cc -std=c11 -Wall -Wextra -Wpedantic -Wstrict-prototypes -Werror -fsyntax-only"
        " -include '"
        + root + "platform/include/Vantora/Platform.h' -x c -";
    EXPECT_EQ(std::system(command.c_str()), 0);
}

} // namespace
