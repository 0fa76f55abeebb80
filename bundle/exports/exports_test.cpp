#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <random>

#include "bundle/exports/CensusRates.h"
#include "bundle/exports/JsonWriter.h"
#include "bundle/exports/RecordSpool.h"
#include "bundle/exports/StackTable.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

std::string directory() { return sys::environmentOr("TMPDIR", "/tmp"); }

TEST(Utf8, WhatIsNoCharacterIsReplacedByteByByte)
{
    const std::string bad = "\xef\xbf\xbd";
    struct Row {
        std::string_view text;
        std::string valid;
        const char* what;
    };
    const Row rows[] = {
        {"", "", "empty"},
        {"plain", "plain", "ASCII"},
        {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x90\x9b", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x90\x9b", "two, three, four bytes"},
        {"a\x80z", "a" + bad + "z", "a continuation alone"},
        {"\xc3", bad, "cut after the first byte"},
        {"\xe2\x82z", bad + bad + "z", "cut within"},
        {"\xc0\xaf", bad + bad, "longer than needed"},
        {"\xe0\x80\xaf", bad + bad + bad, "longer than needed, three bytes"},
        {"\xed\xa0\x80", bad + bad + bad, "half of a surrogate pair"},
        {"\xf4\x90\x80\x80", bad + bad + bad + bad, "past the last character"},
        {std::string_view("a\0b", 3), "a" + bad + "b", "null"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(validUtf8(row.text), row.valid) << row.what;
}

/// What `write` makes, read back from a file.
std::string written(Compression compression, const std::function<void(OutputSink&)>& write)
{
    auto pipe = sys::openFile(directory() + "/sink", O_RDWR | O_CREAT | O_TRUNC, 0600);
    EXPECT_TRUE(pipe.ok());
    OutputSink sink(pipe.value().get(), compression);
    write(sink);
    EXPECT_TRUE(sink.finish().ok());
    return sys::readFile(directory() + "/sink", size_t{64} << 20).take();
}

TEST(JsonWriter, WritesWhatAReaderReadsBack)
{
    const std::string odd = std::string("quote\" back\\ \x01\x7f tab\t nl\n ") + "\xff";
    const std::string text = written(Compression::kNone, [&](OutputSink& sink) {
        JsonWriter json(sink);
        json.beginObject().member("text", odd).member(odd, 1).key("list").beginArray();
        json.value(INT64_MIN).value(UINT64_MAX).null().value(true).beginArray().endArray();
        json.milliseconds(12'000'345).milliseconds(-1).milliseconds(5'000'000).milliseconds(0);
        json.newLine().beginObject().endObject().endArray().endObject();
    });
    const auto json = nlohmann::json::parse(text);
    const std::string expected = odd.substr(0, odd.size() - 1) + "\xef\xbf\xbd";
    EXPECT_EQ(json["text"], expected);
    EXPECT_EQ(json[expected], 1);
    EXPECT_EQ(json["list"].dump(), "[-9223372036854775808,18446744073709551615,null,true,[],12.000345,-1e-06,5,0,{}]");
}

TEST(OutputSink, CompressesTheSameBytesWithoutATime)
{
    std::string content;
    for (int i = 0; i < 200'000; ++i)
        content += std::to_string(i);
    const auto write = [&](OutputSink& sink) { sink.write(content); };
    const std::string packed = written(Compression::kGzip, write);
    EXPECT_LT(packed.size(), content.size() / 2);
    EXPECT_EQ(packed.substr(4, 4), std::string(4, '\0')) << "the time in the header (RFC 1952)";
    std::string unpacked(content.size() + 1, '\0');
    const gzFile file = ::gzopen((directory() + "/sink").c_str(), "rb");
    const int bytes = ::gzread(file, unpacked.data(), static_cast<unsigned>(unpacked.size()));
    ::gzclose(file);
    unpacked.resize(static_cast<size_t>(std::max(bytes, 0)));
    EXPECT_EQ(unpacked, content);
}

TEST(OutputSink, RemembersTheFirstFailure)
{
    auto full = sys::openFile("/dev/full", O_WRONLY);
    ASSERT_TRUE(full.ok());
    OutputSink sink(full.value().get(), Compression::kNone);
    sink.write(std::string(size_t{1} << 20, 'x'));
    EXPECT_TRUE(sink.hasFailed());
    EXPECT_EQ(sink.finish().errnoValue(), ENOSPC);
    EXPECT_EQ(sink.writtenBytes(), 0u);
}

struct Numbered {
    uint64_t key = 0;
    uint64_t place = 0;
    bool operator<(const Numbered& other) const { return key != other.key ? key < other.key : place < other.place; }
};

TEST(RecordSpool, SortsInMemoryAndInAFile)
{
    constexpr uint64_t kRecords = 10'000;
    for (const size_t bufferBytes : {size_t{1}, size_t{1000}, size_t{64} << 20}) {
        RecordSpool<Numbered> spool(directory(), bufferBytes);
        std::mt19937_64 random(1); // NOLINT: the same records every time
        for (uint64_t i = 0; i < kRecords; ++i)
            spool.add({random() % 100, i});
        const auto sorted = spool.sorted();
        ASSERT_TRUE(sorted.ok()) << sorted.status().message();
        ASSERT_EQ(sorted.value().size(), kRecords) << bufferBytes;
        EXPECT_TRUE(std::is_sorted(sorted.value().begin(), sorted.value().end())) << bufferBytes;
        uint64_t sum = 0;
        for (const Numbered& record : sorted.value())
            sum += record.place;
        EXPECT_EQ(sum, kRecords * (kRecords - 1) / 2) << "each is there";
    }
    RecordSpool<Numbered> nowhere("/proc/none", 1);
    nowhere.add({1, 1});
    EXPECT_FALSE(nowhere.sorted().ok());
}

TEST(StackTable, ForgedRecordingsCannotMakeItLarge)
{
    Remarks remarks;
    StackTable table(remarks, 100);
    uint32_t stack = 0;
    for (uint32_t i = 0; i < 1000; ++i)
        stack = table.addStack(stack, i % 2);
    EXPECT_EQ(table.stacks().size(), 100u);
    EXPECT_EQ(stack, 99u) << "counted at the caller";
    EXPECT_EQ(remarks.texts().size(), 1u);
}

class Figures final : public CensusRates::Sink {
public:
    void onFigure(uint64_t timeNs, uint32_t pid, size_t metric, double value) override
    {
        told += std::to_string(timeNs) + " " + std::to_string(pid) + " " + std::string(kCensusMetrics[metric].name)
            + " " + std::to_string(static_cast<int64_t>(value)) + "\n";
    }
    std::string told;
};

TEST(CensusRates, AProcessThatIsNotMentionedRests)
{
    using census::Field;
    Figures figures;
    CensusRates rates(figures);
    census::Usage usage{};
    const auto use = [&](uint64_t timeNs, int64_t cpuNs, int64_t kib, uint64_t startNs = 1) {
        at(usage, Field::kCpuNs) = cpuNs;
        at(usage, Field::kResidentKiB) = kib;
        rates.usage(timeNs, 7, startNs, usage);
    };
    rates.sweep(1000);
    use(1000, 500, 4);
    rates.sweep(2000);
    use(2000, 1000, 4);
    rates.sweep(3000); // not mentioned
    rates.sweep(4000);
    use(4000, 1100, 5); // 100 ns in the 1000 since it rested
    use(4500, 90, 5, 2); // another one of that number
    rates.finish();
    EXPECT_EQ(figures.told,
              "1000 7 resident 4096\n"
              "2000 7 cpu 50\n"
              "3000 7 cpu 0\n"
              "4000 7 cpu 10\n"
              "4000 7 resident 5120\n"
              "4500 7 cpu 0\n"
              "4500 7 resident 0\n"
              "4500 7 resident 5120\n");
}

} // namespace
} // namespace vnt
