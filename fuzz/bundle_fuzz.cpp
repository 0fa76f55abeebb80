#include <unistd.h>

#include <cstdlib>

#include "bundle/Instruments.h"
#include "bundle/RecordReading.h"
#include "fuzz/fuzz.h"
#include "platform/base/Check.h"
#include "platform/base/sys.h"
#include "platform/messagequeue/MessageStream.h"

namespace {

using namespace vnt;

/// A bundle in memory, made anew with every input.
struct FuzzedBundle {
    FuzzedBundle()
    {
        char pattern[] = "/dev/shm/vnt-fuzz.XXXXXX";
        VNT_CHECK(::mkdtemp(pattern) != nullptr);
        path = pattern;
    }
    ~FuzzedBundle()
    {
        (void)::unlink(stream().c_str());
        (void)::rmdir(path.c_str());
    }
    [[nodiscard]] std::string stream() const { return path + "/" + identifier + std::string(kMessageStreamSuffix); }
    std::string path;
    std::string identifier;
};

void write(const FuzzedBundle& bundle, const std::string& content)
{
    VNT_CHECK(sys::writeFileAtomically(bundle.stream(), std::as_bytes(std::span(content)), 0600).ok());
}

/// Every record of it, looked at as a program would.
void readAll(const FuzzedBundle& fuzzed)
{
    const auto bundle = Bundle::open(fuzzed.path);
    VNT_CHECK(bundle.ok());
    uint64_t sum = 0;
    readRecords(bundle.value(), bundle.value().instrument(fuzzed.identifier), [&](const Record& record) {
        for (size_t i = 0; i < record.stack.size(); ++i)
            sum += record.stack[i] + static_cast<uint64_t>(record.role(i));
        for (const Record::Value& value : record.values)
            sum += static_cast<uint64_t>(value.value) + value.name.size();
        sum += record.name.size() + record.text.size() + record.thread.size();
        return sum != 1;
    });
}

} // namespace

/// The first byte picks the instrument. Read as a stream, then as one message, or two, in frames that fit.
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    FuzzedBundle bundle;
    bundle.identifier = kInstrumentKinds[data[0] % std::size(kInstrumentKinds)].identifier;
    const auto bytes = fuzz::bytesOf(data + 1, size - 1);
    const std::string raw(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    write(bundle, raw);
    readAll(bundle);

    const auto header = messageStreamFileHeader();
    std::string framed(reinterpret_cast<const char*>(header.data()), header.size());
    const size_t middle = data[1] % 2 == 0 ? bytes.size() : bytes.size() / 2;
    for (const auto& message : {bytes.first(middle), bytes.subspan(middle)}) {
        const MessageStreamFrameHeader frame = messageStreamFrameHeader(message);
        framed.append(reinterpret_cast<const char*>(&frame), sizeof frame);
        framed.append(reinterpret_cast<const char*>(message.data()), message.size());
    }
    write(bundle, framed);
    readAll(bundle);
    return 0;
}
