#include "bundle/InstrumentData.h"

#include "bundle/Instruments.h"
#include "platform/base/sys.h"

namespace vnt {

namespace {

/// The signatures of a whole machine take some tens of megabytes.
constexpr size_t kMaxArchiveBytes = size_t{512} << 20;

/// Without these, something cannot be shown.
constexpr std::string_view kExpectedKeys[] = {
    archivekey::kFileVersion,         archivekey::kPid,
    archivekey::kSignatures,          archivekey::kStartSeconds,
    archivekey::kStopSeconds,         archivekey::kStartTicks,
    archivekey::kStopTicks,           archivekey::kTimeBaseNumerator,
    archivekey::kTimeBaseDenominator, archivekey::kMessageCount,
};

/// A pipe or device that stands in a bundle must not hold us up.
Result<std::string> readRegularFile(const std::string& path)
{
    ASSIGN_OR_RETURN(const struct stat status, sys::statFile(path));
    if (!S_ISREG(status.st_mode))
        return Status(Code::kInvalid, path + ": not a regular file");
    return sys::readFile(path, kMaxArchiveBytes);
}

} // namespace

InstrumentData InstrumentData::open(const std::string& directory, std::string_view identifier, Remarks& remarks)
{
    InstrumentData data(directory, identifier);
    auto content = readRegularFile(directory + "/" + data._identifier);
    if (!content.ok()) {
        remarks.add("the archive of " + data._identifier + " cannot be read: " + content.status().message());
        return data;
    }
    PropertyListLimits limits;
    limits.maxBytes = kMaxArchiveBytes;
    limits.maxObjects = size_t{64} << 20;
    auto archive = KeyedUnarchiver::open(std::as_bytes(std::span(content.value())), limits);
    if (!archive.ok()) {
        remarks.add("the archive of " + data._identifier + " is damaged: " + archive.status().message());
        return data;
    }
    data._archive = archive.take();
    data.checkKeys(remarks);
    return data;
}

void InstrumentData::checkKeys(Remarks& remarks) const
{
    for (const std::string_view key : kExpectedKeys) {
        if (!has(key))
            remarks.add("the archive of " + _identifier + " has no " + std::string(key));
    }
    const int64_t version = number(archivekey::kFileVersion, kArchiveFileVersion);
    if (version > kArchiveFileVersion)
        remarks.add("the archive of " + _identifier + " has version " + std::to_string(version)
                    + ", which is later than this reader knows");
}

std::string InstrumentData::messageStreamPath() const
{
    return _directory + "/" + _identifier + std::string(kMessageStreamSuffix);
}

int64_t InstrumentData::number(std::string_view key, int64_t fallback) const
{
    return _archive ? _archive->decodeInt64(key, fallback) : fallback;
}

Ref<Object> InstrumentData::object(std::string_view key) const
{
    return _archive ? _archive->decodeObject(key) : nullptr;
}

std::optional<int32_t> InstrumentData::pid() const
{
    if (!has(archivekey::kPid))
        return std::nullopt;
    return static_cast<int32_t>(number(archivekey::kPid));
}

int64_t InstrumentData::samplingIntervalUs() const { return number(archivekey::kSamplingInterval); }

int64_t InstrumentData::startSeconds() const { return number(archivekey::kStartSeconds); }

int64_t InstrumentData::stopSeconds() const { return number(archivekey::kStopSeconds); }

uint64_t InstrumentData::ticksToNs(std::string_view key) const
{
    const int64_t ticks = number(key);
    const auto numerator = static_cast<uint32_t>(number(archivekey::kTimeBaseNumerator, 1));
    const auto denominator = static_cast<uint32_t>(number(archivekey::kTimeBaseDenominator, 1));
    if (ticks <= 0 || numerator == 0 || denominator == 0)
        return 0;
    const auto count = static_cast<uint64_t>(ticks);
    return count / denominator * numerator + count % denominator * numerator / denominator; // no 128-bit product
}

uint64_t InstrumentData::startNs() const { return ticksToNs(archivekey::kStartTicks); }

uint64_t InstrumentData::stopNs() const { return ticksToNs(archivekey::kStopTicks); }

uint32_t InstrumentData::messageCount() const { return static_cast<uint32_t>(number(archivekey::kMessageCount)); }

Ref<Dictionary> InstrumentData::signatures() const { return as<Dictionary>(object(archivekey::kSignatures)); }

Ref<Dictionary> InstrumentData::deviceTemplate() const { return as<Dictionary>(object(archivekey::kDeviceTemplate)); }

} // namespace vnt
