#include <exception>

#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/VntInstrument.h"

/// The exported session functions: thin shells that make the handle current, point the error slot at a local
/// variable, run one operation and turn the local into the result. The only place where exceptions become errors.
namespace vnt {
namespace {

Vantora* makeCurrent(VantoraSession handle) { return VntGlobal_CurrentSession = static_cast<Vantora*>(handle); }

/// Runs `body`; an exception that leaves it is stored through `slot`.
template <typename Body> void guarded(CFErrorRef* slot, Body body) noexcept
{
    try {
        body();
    } catch (const Exception& exception) {
        storeError(slot, exception.reason());
    } catch (const std::exception& exception) {
        storeError(slot, exception.what());
    }
}

/// As guarded(), for queries without an error channel: `fallback` is the answer after an exception.
template <typename Value, typename Body> Value queried(Value fallback, Body body) noexcept
{
    try {
        return body();
    } catch (const Exception&) {
        return fallback;
    } catch (const std::exception&) {
        return fallback;
    }
}

/// Success is decided by the recorded error alone. Without an out-pointer the error is dropped, not released.
bool finished(CFErrorRef recorded, CFErrorRef* out)
{
    if (!recorded)
        return true;
    if (out)
        *out = recorded;
    return false;
}

bool refused(const char* sentence, CFErrorRef* out)
{
    storeError(out, sentence);
    return false;
}

String* unknownDevice()
{
    static String* const unknown = String::create("UNKNOWN").leakRef(); // outlives every session
    return unknown;
}

} // namespace
} // namespace vnt

using namespace vnt;

extern "C" {

// "what(1)" finds the version by this string's first bytes.
const char VantoraVersionString[] = "@(#)PROGRAM:Vantora  PROJECT:Vantora-108\n";
const double VantoraVersionNumber = 108.0;

int32_t Vantora_Option_StackSamplerOptions_CollectUserStacks = 0;
int32_t Vantora_Option_StackSamplerOptions_CollectKernelStacks = 1;
int32_t Vantora_Option_StackSamplerOptions_CollectUserAndKernelStacks = 2;
int32_t Vantora_Option_StackSamplerOptions_AllThreadStates = 4;

VantoraSession VantoraCreate(CFStringRef deviceID, CFStringRef target, CFDictionaryRef options, CFErrorRef* error)
{
    CFErrorRef recorded = nullptr;
    Ref<Vantora> session;
    guarded(&recorded, [&] {
        auto* device = fromC<String>(deviceID);
        if (!device || device->empty())
            device = unknownDevice();
        session = Vantora::initWithDevice(device, fromC<String>(target), fromC<Dictionary>(options), &recorded);
    });
    if (!finished(recorded, error))
        return nullptr;
    return VntGlobal_CurrentSession = session.leakRef();
}

bool VantoraDispose(VantoraSession session, CFErrorRef* error)
{
    if (!session)
        return refused(sentences::kNotDisposedWithoutSession, error);
    CFErrorRef recorded = nullptr;
    auto* disposed = static_cast<Vantora*>(session);
    guarded(&recorded, [&] {
        disposed->setErrorAddress(&recorded);
        disposed->release();
    });
    return finished(recorded, error);
}

VantoraSession VantoraGetCurrent(void) { return VntGlobal_CurrentSession; }

bool VantoraAddInstrument(VantoraSession handle, CFStringRef instrumentID, CFDictionaryRef options,
                          VantoraErrorCallback errorCallback, CFErrorRef* error)
{
    auto* identifier = fromC<String>(instrumentID);
    if (!handle || !identifier)
        return refused(sentences::kNotAddedWithoutArguments, error);
    auto* session = makeCurrent(handle);
    CFErrorRef recorded = nullptr;
    session->setErrorAddress(&recorded);
    bool added = false;
    guarded(&recorded, [&] {
        added =
            session->addInstrument(Ref<String>(identifier), Ref<Dictionary>(fromC<Dictionary>(options)), errorCallback);
    });
    // Unlike the others, this function trusts the operation's own result.
    if (!added && error)
        *error = recorded;
    return added;
}

bool VantoraStart(VantoraSession handle, CFArrayRef instrumentIDs, CFErrorRef* error)
{
    if (!handle)
        return refused(sentences::kNotStartedWithoutSession, error);
    auto* session = makeCurrent(handle);
    CFErrorRef recorded = nullptr;
    session->setErrorAddress(&recorded);
    guarded(&recorded, [&] { session->startRecording(fromC<Array>(instrumentIDs)); });
    return finished(recorded, error);
}

bool VantoraStop(VantoraSession handle, CFArrayRef instrumentIDs, CFErrorRef* error)
{
    if (!handle)
        return refused(sentences::kNotStoppedWithoutSession, error);
    auto* session = makeCurrent(handle);
    CFErrorRef recorded = nullptr;
    session->setErrorAddress(&recorded);
    guarded(&recorded, [&] { session->stopRecording(fromC<Array>(instrumentIDs)); });
    return finished(recorded, error);
}

bool VantoraSave(VantoraSession handle, CFStringRef path, CFErrorRef* error)
{
    auto* session = makeCurrent(handle);
    if (!session)
        return true;
    CFErrorRef recorded = nullptr;
    session->setErrorAddress(&recorded);
    // Each step runs however the one before it went.
    guarded(&recorded, [&] { session->endRecording(); });
    guarded(&recorded, [&] { session->killTargetIfLaunched(); });
    guarded(&recorded, [&] { session->saveToFile(fromC<String>(path)); });
    return finished(recorded, error);
}

void VantoraAsyncStopAndSave(VantoraSession handle)
{
    if (auto* session = makeCurrent(handle))
        guarded(nullptr, [&] { session->asyncStopSaveAndQuit(false); });
    assertionFailed(sentences::kShouldNotReturn, __func__);
}

bool VantoraIsRecording(VantoraSession handle)
{
    auto* session = makeCurrent(handle);
    if (!session || !session->instruments())
        return false;
    for (const Dictionary::Entry& entry : session->instruments()->entries()) {
        if (static_cast<VntInstrument&>(*entry.second).isRecording())
            return true;
    }
    return false;
}

bool VantoraIsSaved(VantoraSession handle)
{
    auto* session = makeCurrent(handle);
    if (!session || !session->instruments())
        return true;
    for (const Dictionary::Entry& entry : session->instruments()->entries()) {
        if (static_cast<VntInstrument&>(*entry.second).isDirty())
            return false;
    }
    return true;
}

bool VantoraIsInstrumentAdded(VantoraSession handle, CFStringRef instrumentID)
{
    auto* session = makeCurrent(handle);
    const auto* identifier = fromC<String>(instrumentID);
    return session && session->instruments() && identifier && session->instruments()->get(*identifier);
}

CFTypeRef VantoraGetInstrumentOption(VantoraSession handle, CFStringRef instrumentID, CFStringRef optionKey)
{
    auto* session = makeCurrent(handle);
    const auto* key = fromC<String>(optionKey);
    if (!session || !key)
        return nullptr;
    if (!instrumentID)
        return toC<CFTypeRef>(session->options()->get(*key).get());
    const auto* identifier = fromC<String>(instrumentID);
    if (!identifier || !session->instruments())
        return nullptr;
    const Ref<Object> found = session->instruments()->get(*identifier);
    if (!found)
        return nullptr;
    return toC<CFTypeRef>(static_cast<VntInstrument&>(*found).options()->get(*key).get());
}

CFStringRef VantoraGetSaveFile(VantoraSession handle)
{
    auto* session = makeCurrent(handle);
    return session ? toC<CFStringRef>(session->savePath().get()) : nullptr;
}

void VantoraSetSaveFile(VantoraSession handle, CFStringRef path)
{
    auto* session = makeCurrent(handle);
    if (!session)
        return;
    auto* text = fromC<String>(path);
    if (text)
        text->retain(); // deliberately one reference more than the session needs: the caller may release its own at
                        // once
    session->setSavePath(Ref<String>(text));
}

CFStringRef VantoraGetDeviceID(VantoraSession handle)
{
    auto* session = makeCurrent(handle);
    return session ? toC<CFStringRef>(session->deviceID()) : nullptr;
}

CFStringRef VantoraGetDeviceTarget(VantoraSession handle)
{
    auto* session = makeCurrent(handle);
    return queried<CFStringRef>(nullptr, [&] {
        return toC<CFStringRef>(String::create(formatText("%d", {session ? session->pid() : 0})).leakRef());
    });
}

bool VantoraSuspend(VantoraSession, CFErrorRef*) { return true; }

bool VantoraResume(VantoraSession session, CFErrorRef* error) { return VantoraSuspend(session, error); }
}
