#include <cmath>
#include <cstdio>

#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/instruments/VntInstrument.h"
#include "platform/base/sys.h"
#include "platform/foundation/Files.h"

/// The two files of an instrument in a bundle: the stream of its messages and the keyed archive that says how to
/// read it. Keys, types, order and spellings are the format.
namespace vnt {
namespace {

constexpr int kFileVersion = 4;
constexpr size_t kInitialArchiveBytes = 256;

int64_t truncated(double seconds) { return static_cast<int64_t>(std::trunc(seconds)); }

/// Null instead of an exception: the caller has its own sentence for what is missing.
Ref<Dictionary> askForDictionary(KxServiceQueue& service, std::string_view selector)
{
    try {
        return as<Dictionary>(service.dispatch(selector));
    } catch (const Exception&) {
        return nullptr;
    }
}

} // namespace

bool VntInstrument::writeToFile(const String& bundlePath)
{
    const std::string dataPath = bundlePath.str() + "/" + _ID->str();
    const std::string queuePath = dataPath + ".messagequeue";
    const auto name = prettyName(_ID);
    const int32_t pid = _parentSession->pid();
    if (pid != kAllProcessesPid && pid < 0)
        return fail(formatText(sentences::kUnknownPidForInstrument, {name}));
    const auto device = deviceTemplate();
    if (!device)
        return fail(formatText(sentences::kNoDeviceInformation, {name}));
    if (_service->waitUntilComplete())
        return fail(formatText(sentences::kCompletionTimedOut, {name}));
    if (service()->messageCount() == 0) {
        std::fprintf(stderr, sentences::kNoEvents, name->utf8());
        return true; // an instrument without data is no failure
    }
    const auto signatures = finalSymbolicatorSignatures();
    if (!signatures)
        return fail(formatText(sentences::kNoSymbolicatorsForInstrument, {name}));

    const uint64_t messages =
        createEmptyFile(queuePath).ok() ? service()->archiveWithFile(*Url::withFilePath(queuePath)) : 0;
    if (messages == 0)
        return fail(formatText(sentences::kMessageQueueSavingFailed, {name}));
    (void)createEmptyFile(dataPath); // the archive replaces it; a failure shows there
    KeyedArchiver archiver(kInitialArchiveBytes);
    if (!archiveKindKeys(archiver))
        return fail(formatText(sentences::kUnknownInstrumentData, {_ID}));
    archiveCommonKeys(archiver, *signatures, *device, messages);
    auto archive = archiver.finish();
    if (archive.ok())
        (void)sys::writeFileAtomically(dataPath, archive.value(), 0666); // not looked at, as the operation promises
    return true;
}

/// The system's description with the hardware's under "_hardwareInfo"; null when either is missing.
Ref<Dictionary> VntInstrument::deviceTemplate()
{
    KxServiceQueue& device = *_parentSession->deviceInfoService();
    const auto hardware = askForDictionary(device, "hardwareInformation");
    const auto system = askForDictionary(device, "systemInformation");
    if (!hardware || !system)
        return nullptr;
    auto both = MutableDictionary::copyOf(*system);
    both->set("_hardwareInfo", hardware);
    return both;
}

bool VntInstrument::archiveKindKeys(KeyedArchiver& archiver)
{
    const auto number = [&](std::string_view key) {
        const auto value = _options->get<Number>(key);
        return value ? value->int64Value() : 0;
    };
    const auto boolean = [&](std::string_view key) {
        const auto value = _options->get<Number>(key);
        return value && value->boolValue();
    };
    if (is(kStackSamplerID)) {
        archiver.encodeInt64(number(option::kSamplingInterval), "quillon.vnt.data.samplinginterval");
        archiver.encodeInt32(static_cast<int32_t>(number(option::kWindowLimit)), "quillon.vnt.data.windowlimit");
        archiver.encodeInt64(number(option::kOutputRate), "quillon.vnt.data.outputrate");
        archiver.encodeInt(static_cast<int>(number(option::kStackSamplerOptions)),
                           "quillon.vnt.data.stacksampleroptions");
    } else if (is(kKernelTracerID)) {
        archiver.encodeInt32(static_cast<int32_t>(number(option::kWindowLimit)), "quillon.vnt.data.windowlimit");
        archiver.encodeObject(_kdebugEventXML.get(), "quillon.vnt.dtaa.kdebugeventxml"); // the format's spelling
    } else if (is(kHeapRecorderID)) {
        archiver.encodeBool(boolean(option::kEnableZombies), "quillon.vnt.data.enablezombies");
        archiver.encodeBool(boolean(option::kReferenceCounting), "quillon.vnt.data.referencecounting");
        archiver.encodeBool(boolean(option::kIdentifyCpp), "quillon.vnt.data.identifycpp");
    } else if (is(kOrphanFinderID)) {
        archiver.encodeBool(boolean(option::kIncludeContext), "quillon.vnt.data.includecontext");
        archiver.encodeBool(boolean(option::kProvideBacktraces), "quillon.vnt.data.providebacktraces");
    } else if (is(kProcessCensusID)) {
        archiver.encodeInt64(number(option::kCensusInterval), "quillon.vnt.data.samplinginterval");
    } else {
        return false;
    }
    return true;
}

void VntInstrument::archiveCommonKeys(KeyedArchiver& archiver, const Dictionary& signatures, const Dictionary& device,
                                      uint64_t messageCount)
{
    archiver.encodeInt(kFileVersion, "quillon.vnt.data.fileversion");
    archiver.encodeObject(_parentSession->serverAddress(), "quillon.vnt.data.serveraddress");
    archiver.encodeObject(version().get(), "quillon.vnt.data.serviceversion");
    archiver.encodeInt(_parentSession->pid(), "quillon.vnt.data.pid");
    archiver.encodeObject(&signatures, "quillon.vnt.data.signatures");
    archiver.encodeObject(&device, "quillon.vnt.data.devicetemplate");
    archiver.encodeInt64(truncated(_startTime_secSince1970), "quillon.vnt.data.starttimesecsince1970");
    archiver.encodeInt64(truncated(_stopTime_secSince1970),
                         "quillon.vnt.data.stoptimessecsince1970"); // the format's spelling
    archiver.encodeInt64(static_cast<int64_t>(_startTime_Mach), "quillon.vnt.data.starttimemach");
    archiver.encodeInt64(static_cast<int64_t>(_stopTime_Mach), "quillon.vnt.data.stoptimemach");
    archiver.encodeInt32(static_cast<int32_t>(_machTimeBaseNumer), "quillon.vnt.data.machtimebasenumer");
    archiver.encodeInt32(static_cast<int32_t>(_machTimeBaseDenom), "quillon.vnt.data.machtimebasedenom");
    archiver.encodeInt32(static_cast<int32_t>(messageCount), "quillon.vnt.data.messagecount");
}

/// Current signatures come before those gathered while recording, and those before the ones of ended processes.
Ref<Dictionary> VntInstrument::finalSymbolicatorSignatures()
{
    try {
        const int32_t pid = _parentSession->pid();
        if (pid != kAllProcessesPid)
            return _parentSession->getCurrentSymbolicatorSignatures(pid, nullptr); // null when the pid is invalid
        const auto& gathered = _parentSession->symbolicatorSignatures();
        auto all = gathered ? MutableDictionary::copyOf(*gathered) : MutableDictionary::create();
        if (const auto current = _parentSession->getCurrentSymbolicatorSignatures(kAllProcessesPid, nullptr))
            all->merge(*current);
        const auto expired =
            as<Dictionary>(_parentSession->deviceInfoService()->dispatch("symbolicatorSignaturesForExpiredPids"));
        if (expired) {
            for (const Dictionary::Entry& entry : expired->entries()) {
                if (!all->get(*entry.first))
                    all->set(entry.first, entry.second);
            }
        }
        return all;
    } catch (const Exception&) {
        return nullptr; // the server went: the caller's sentence says what is missing
    }
}

} // namespace vnt
