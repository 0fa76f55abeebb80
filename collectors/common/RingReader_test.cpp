#include "collectors/common/RingReader.h"
#include "collectors/common/drainInOrder.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vnt {
namespace {

constexpr size_t kRingBytes = 4096;

/// Memory laid out like a perf ring, written the way the kernel does.
class WrittenRing {
public:
    explicit WrittenRing(uint64_t begin)
    {
        const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
        auto mapping =
            Mapping::create(page + kRingBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0).take();
        _page = static_cast<perf_event_mmap_page*>(mapping.address());
        _data = static_cast<std::byte*>(mapping.address()) + page;
        _page->data_head = _page->data_tail = begin;
        _reader = std::make_unique<RingReader>(RingReader::create(std::move(mapping)).take());
    }

    void put(const void* bytes, size_t size)
    {
        for (size_t i = 0; i < size; ++i)
            _data[(_page->data_head + i) % kRingBytes] = static_cast<const std::byte*>(bytes)[i];
        _page->data_head += size;
    }
    void record(uint32_t type, uint16_t size, uint8_t fill)
    {
        std::vector<uint8_t> bytes(size < sizeof(perf_event_header) ? sizeof(perf_event_header) : size, fill);
        const perf_event_header header{type, 0, size};
        std::memcpy(bytes.data(), &header, sizeof header);
        put(bytes.data(), bytes.size());
    }
    /// "type:payload-bytes" of each record, "!" after a payload that is not what was written.
    std::string drain(Status& status)
    {
        std::string text;
        status = _reader->drain([&](const perf_event_header& header, std::span<const std::byte> payload) {
            text += std::to_string(header.type) + ":" + std::to_string(payload.size());
            for (const std::byte b : payload) {
                if (b != static_cast<std::byte>(header.type))
                    return void(text += "! ");
            }
            text += " ";
        });
        return text;
    }
    void timed(uint64_t timeNs)
    {
        const struct {
            perf_event_header header;
            uint64_t timeNs;
        } record{{1, 0, 16}, timeNs};
        put(&record, sizeof record);
    }
    perf_event_mmap_page& page() { return *_page; }
    RingReader& reader() { return *_reader; }

private:
    std::unique_ptr<RingReader> _reader;
    perf_event_mmap_page* _page = nullptr;
    std::byte* _data = nullptr;
};

TEST(RingReader, ReadsRecordsAcrossTheEndWhereverTheyAreSplit)
{
    // Positions before the end so that the split falls into the header, the payload and between records; and one
    // ring whose 64-bit position wraps as well.
    for (const uint64_t begin : {uint64_t{0}, uint64_t{4096 - 8}, uint64_t{4096 - 4}, uint64_t{4096 - 16},
                                 uint64_t{8192 - 40}, uint64_t{0} - 24}) {
        WrittenRing ring(begin);
        ring.record(9, 32, 9);
        ring.record(2, 8, 2);
        ring.record(3, 48, 3);
        Status status;
        EXPECT_EQ(ring.drain(status), "9:24 2:0 3:40 ") << begin;
        EXPECT_TRUE(status.ok()) << status.message();
        EXPECT_EQ(ring.page().data_tail, ring.page().data_head);
        EXPECT_EQ(ring.drain(status), "") << "nothing is read twice";
    }
}

TEST(RingReader, GivesRoomBackWhileItReads)
{
    WrittenRing ring(0);
    for (int i = 0; i < 8; ++i)
        ring.record(1, 512, 1);
    Status status;
    EXPECT_EQ(ring.drain(status), "1:504 1:504 1:504 1:504 1:504 1:504 1:504 1:504 ") << "a full ring";
    ring.record(2, 4096, 2);
    EXPECT_EQ(ring.drain(status), "2:4088 ") << "one record as large as the ring";
}

TEST(RingReader, DropsTheRingOnAnImpossibleRecord)
{
    struct Row {
        const char* what;
        uint16_t size;
    } rows[] = {{"size zero", 0}, {"one less than a header", 7}, {"past what was written", 16}, {"largest", 65535}};
    for (const Row& row : rows) {
        WrittenRing ring(4096 - 16);
        ring.record(5, 16, 5);
        const perf_event_header header{6, 0, row.size};
        ring.put(&header, sizeof header);
        Status status;
        EXPECT_EQ(ring.drain(status), "5:8 ") << row.what;
        EXPECT_EQ(status.code(), Code::kCorrupt) << row.what;
        EXPECT_EQ(ring.drain(status), "") << row.what;
        EXPECT_EQ(status.code(), Code::kCorrupt) << row.what << ": still dead";
    }
    WrittenRing ring(0);
    ring.page().data_head = 3;
    Status status;
    ring.drain(status);
    EXPECT_EQ(status.code(), Code::kCorrupt) << "half a header";
    WrittenRing overrun(0);
    overrun.page().data_head = kRingBytes + 8;
    overrun.drain(status);
    EXPECT_EQ(status.code(), Code::kCorrupt) << "more written than there is room for";
}

TEST(RingReader, SeveralAreReadInTheOrderOfTime)
{
    WrittenRing first(kRingBytes - 24);
    WrittenRing second(0);
    WrittenRing third(0);
    WrittenRing broken(0);
    for (const uint64_t timeNs : {10, 11, 40, 41, 60})
        first.timed(timeNs);
    for (const uint64_t timeNs : {20, 0, 5, 30, 90, 50}) // 0: with its predecessor; 5 and 50 are told late
        second.timed(timeNs);
    broken.timed(15);
    broken.page().data_head += 3;
    RingReader* const rings[] = {&first.reader(), &second.reader(), &third.reader(), &broken.reader()};
    int dead = 0;
    const auto read = [&](uint64_t untilNs) {
        std::string text;
        const auto timeOf = [](const RingReader::Record& record) {
            uint64_t timeNs = 0;
            std::memcpy(&timeNs, record.payload.data(), sizeof timeNs);
            return timeNs;
        };
        drainInOrder(
            rings, untilNs, timeOf,
            [&](const perf_event_header& header, std::span<const std::byte> payload) {
                text += std::to_string(timeOf({header, payload})) + " ";
            },
            [&] { ++dead; });
        return text;
    };
    EXPECT_EQ(read(9), "");
    EXPECT_EQ(read(45), "10 11 15 20 0 5 30 40 41 ");
    EXPECT_EQ(dead, 1);
    third.timed(46);
    EXPECT_EQ(read(89), "46 60 ") << "a record stays behind those before it in its ring";
    EXPECT_EQ(read(UINT64_MAX), "90 50 ");
    EXPECT_EQ(read(UINT64_MAX), "");
    EXPECT_EQ(dead, 1) << "told once";
    EXPECT_EQ(first.page().data_tail, first.page().data_head);
    EXPECT_EQ(second.page().data_tail, second.page().data_head);
}

} // namespace
} // namespace vnt
