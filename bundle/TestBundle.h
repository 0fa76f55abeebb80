#pragma once

#include <string>
#include <vector>

#include "bundle/Instruments.h"
#include "bundle/TestElf.h"
#include "platform/base/Check.h"
#include "platform/base/sys.h"
#include "platform/foundation/KeyedArchive.h"
#include "platform/messagequeue/MessageStream.h"
#include "records/Signature.h"
#include "records/StackRecordWriter.h"

/// For tests and benchmarks: writes bundles as the client library does: the same archiver, stream frames and records.
namespace vnt::test {

inline constexpr uint64_t kSecondNs = 1'000'000'000;
inline constexpr uint64_t kModuleStart = 0x7f0000000000;
inline constexpr uint64_t kKernelStart = 0xffffffff81000000;

inline void writeText(const std::string& path, const std::string& content)
{
    VNT_CHECK(sys::writeFileAtomically(path, std::as_bytes(std::span(content)), 0600).ok());
}

inline std::string freshDirectory(const std::string& name)
{
    const std::string path = sys::environmentOr("TMPDIR", "/tmp") + "/" + name;
    VNT_CHECK(sys::makeDirectories(path, 0700).ok());
    return path;
}

inline Ref<MutableDictionary> image(uint64_t start, uint64_t size, uint64_t offset, const std::string& path,
                                    const std::string& buildId, uint64_t timeNs = 0)
{
    auto dictionary = MutableDictionary::create();
    dictionary->set(signature::kImageStart, Number::withUint64(start));
    dictionary->set(signature::kImageSize, Number::withUint64(size));
    dictionary->set(signature::kImageOffset, Number::withUint64(offset));
    dictionary->set(signature::kImagePath, String::create(path));
    if (!buildId.empty())
        dictionary->set(signature::kImageBuildId, String::create(buildId));
    if (timeNs != 0)
        dictionary->set(signature::kImageTime, Number::withUint64(timeNs));
    return dictionary;
}

inline Ref<MutableDictionary> execEntry(uint64_t timeNs)
{
    auto dictionary = MutableDictionary::create();
    dictionary->set(signature::kImageExec, Number::withUint64(timeNs));
    return dictionary;
}

inline Ref<MutableDictionary> processSignature(int pid, const std::string& name, std::vector<Ref<Object>> images)
{
    auto dictionary = MutableDictionary::create();
    dictionary->set(signature::kVersionKey, Number::withInt(signature::kVersion));
    dictionary->set(signature::kPid, Number::withInt(pid));
    dictionary->set(signature::kName, String::create(name));
    dictionary->set(signature::kExecutable, String::create("/opt/" + name));
    dictionary->set(signature::kIs64Bit, Number::withBool(true));
    dictionary->set(signature::kImages, Array::create(std::move(images)));
    return dictionary;
}

inline Ref<MutableDictionary> kernelSignature()
{
    auto dictionary = MutableDictionary::create();
    dictionary->set(signature::kVersionKey, Number::withInt(signature::kVersion));
    dictionary->set(signature::kPid, Number::withInt(0));
    dictionary->set(signature::kKernelRelease, String::create("6.1.0-test"));
    dictionary->set(signature::kKernelSymbols,
                    Array::create({Number::withUint64(kKernelStart), String::create("do_syscall_64"),
                                   Number::withUint64(kKernelStart + 0x1000), String::create("ext4_read [ext4]")}));
    return dictionary;
}

inline Ref<MutableDictionary> signaturesOf(const std::vector<std::pair<int, Ref<Object>>>& processes)
{
    auto dictionary = MutableDictionary::create();
    for (const auto& [pid, signature] : processes)
        dictionary->set(Number::withInt(pid), signature);
    return dictionary;
}

inline std::string archiveOf(const Object* signatures, int pid, int messageCount)
{
    KeyedArchiver archiver;
    archiver.encodeInt64(1000, archivekey::kSamplingInterval);
    archiver.encodeInt32(0, archivekey::kWindowLimit);
    archiver.encodeInt64(0, archivekey::kOutputRate);
    archiver.encodeInt(2, archivekey::kStackSamplerOptions);
    archiver.encodeInt(kArchiveFileVersion, archivekey::kFileVersion);
    archiver.encodeObject(Url::withString("unix:/run/test").get(), archivekey::kServerAddress);
    archiver.encodeObject(nullptr, archivekey::kServiceVersion);
    archiver.encodeInt(pid, archivekey::kPid);
    archiver.encodeObject(signatures, archivekey::kSignatures);
    archiver.encodeObject(MutableDictionary::create().get(), archivekey::kDeviceTemplate);
    archiver.encodeInt64(1700000000, archivekey::kStartSeconds);
    archiver.encodeInt64(1700000002, archivekey::kStopSeconds);
    archiver.encodeInt64(static_cast<int64_t>(100 * kSecondNs), archivekey::kStartTicks);
    archiver.encodeInt64(static_cast<int64_t>(102 * kSecondNs), archivekey::kStopTicks);
    archiver.encodeInt32(1, archivekey::kTimeBaseNumerator);
    archiver.encodeInt32(1, archivekey::kTimeBaseDenominator);
    archiver.encodeInt32(messageCount, archivekey::kMessageCount);
    auto bytes = archiver.finish();
    VNT_CHECK(bytes.ok());
    return {reinterpret_cast<const char*>(bytes.value().data()), bytes.value().size()};
}

/// A message stream in memory, filled message by message.
class StreamText {
public:
    StreamText()
    {
        const auto header = messageStreamFileHeader();
        _text.assign(reinterpret_cast<const char*>(header.data()), header.size());
    }
    void add(std::span<const std::byte> message, uint32_t kind = kMessageStreamData)
    {
        const MessageStreamFrameHeader header = messageStreamFrameHeader(message, kind);
        _text.append(reinterpret_cast<const char*>(&header), sizeof header);
        _text.append(reinterpret_cast<const char*>(message.data()), message.size());
        ++_messages;
    }
    void addFrom(stacks::StackRecordWriter& writer)
    {
        add(writer.message());
        writer.messageSent();
    }
    [[nodiscard]] const std::string& text() const { return _text; }
    [[nodiscard]] int messages() const { return _messages; }

private:
    std::string _text;
    int _messages = 0;
};

inline void writeBundle(const std::string& directory, const std::string& archive, const std::string& stream)
{
    VNT_CHECK(sys::makeDirectories(directory, 0700).ok());
    writeText(directory + "/" + std::string(kStackSamplerId), archive);
    writeText(directory + "/" + std::string(kStackSamplerId) + std::string(kMessageStreamSuffix), stream);
}

} // namespace vnt::test
