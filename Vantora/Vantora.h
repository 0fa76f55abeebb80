#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Vantora/RecursiveLock.h"
#include "Vantora/Vantora"
#include "platform/authorization/Authorization.h"
#include "platform/base/Weak.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/foundation/Collections.h"
#include "platform/messagequeue/KxMessageQueue.h"

namespace vnt {

class VntInstrument;

/// Target pids with a meaning of their own.
inline constexpr int32_t RqInvalidPidIdentifier = -4; ///< no target yet, or a failed launch
inline constexpr int32_t kAllProcessesPid = -3;
inline constexpr int32_t kKernelPid = 0;

/// One recording session: a device, a target, a table of instruments, the connection to its server.
///
/// Owned by the caller of VantoraCreate until VantoraDispose; work queued on the worker queue holds it too. Every
/// operation takes the session lock on the calling thread, runs what talks to the server as a block on the worker queue
/// and waits for it; blocks never take the lock. Callbacks of services arrive on their delivery threads, pinned for
/// their time. An operation reports a failure through the error slot and its own result (false, null, -4); the slot is
/// a variable of the public function in progress, so nothing but such an operation may write through it.
class Vantora final : public Object, public KxServiceQueueDelegate {
public:
    /// Connects, resolves the target. Null on failure, with the reason (if there is one) in `*error`. `deviceID` is not
    /// retained. The server may be started by this call.
    static Ref<Vantora> initWithDevice(String* deviceID, const String* target, const Dictionary* options,
                                       CFErrorRef* error);

    [[nodiscard]] std::string identifier() const;
    void updatedSymbolicatorNotificationReceived(const Object* notification);

    // Server connection (ServerConnection.cpp).
    bool connectWithQuillonServer();
    void disconnectFromQuillonServer();

    // Recording control (RecordingControl.cpp).
    bool addInstrument(const Ref<String>& instrument, const Ref<Dictionary>& options,
                       VantoraErrorCallback errorCallback);
    bool startRecording(const Array* instrumentIDs);
    bool stopRecording(const Array* instrumentIDs);
    bool endRecording();

    // Saving (Saving.cpp) and the way out (AsyncStop.cpp).
    bool saveToFile(const String* path);
    [[noreturn]] void asyncStopSaveAndQuit(bool targetEnded);

    // Target resolution (targets/TargetResolution.cpp).
    bool setupTarget(const String* target);
    bool setupTargetAttach(const String* target);
    bool lookupProcessNameFromHint(const String* hint);
    [[nodiscard]] Ref<String> targetName();
    [[nodiscard]] static Ref<String> bundleIDForPath(const String& path);

    // Attaching, launching (targets/Attaching.cpp, targets/Launching.cpp).
    bool attachTarget(const Array& identifiers);
    int32_t launchTarget(const Array& identifiers);
    int32_t launchSuspendedProcess(const String& path, MutableDictionary& environment, const Array& arguments);
    void killTargetIfLaunched();
    void pidDiedCallback(const Number* pid);

    // Signatures (targets/Signatures.cpp).
    [[nodiscard]] Ref<MutableDictionary> getCurrentSymbolicatorSignatures(int32_t pid, const String* methodName);

    // Error slot. setError() hands over one reference when there is a slot.
    [[nodiscard]] CFErrorRef* error() const { return _error; }
    void setErrorAddress(CFErrorRef* address)
    {
        _error = address;
        _errorThread = std::this_thread::get_id();
    }
    void setError(Ref<Error> error);
    /// Records `sentence` through the slot; always false, so that an operation can return it.
    bool fail(std::string_view sentence);

    // Properties. Plain reads; the objects live as long as the session.
    [[nodiscard]] int32_t pid() const { return _pid.load(std::memory_order_relaxed); }
    [[nodiscard]] String* deviceID() const { return _deviceID; }
    [[nodiscard]] const Ref<MutableDictionary>& options() const { return _options; }
    [[nodiscard]] const Ref<MutableDictionary>& instruments() const { return _instruments; }
    [[nodiscard]] bool allProfiling() const { return _allProfiling; }
    [[nodiscard]] bool selfProfiling() const { return _selfProfiling; }
    [[nodiscard]] bool targetDied() const { return _targetDied.load(std::memory_order_relaxed); }
    [[nodiscard]] const Ref<String>& savePath() const { return _savePath; }
    void setSavePath(Ref<String> path) { _savePath = std::move(path); }
    [[nodiscard]] Url* serverAddress() const { return _serverAddress; }
    [[nodiscard]] const Ref<SerialQueue>& workerQueue() const { return _workerQueue; }
    [[nodiscard]] const Ref<KxMessageQueue>& messageQueue() const { return _messageQueue; }
    [[nodiscard]] const Ref<KxServiceQueue>& capabilitiesService() const { return _capabilitiesService; }
    [[nodiscard]] const Ref<KxServiceQueue>& deviceInfoService() const { return _deviceInfoService; }
    [[nodiscard]] const Ref<KxServiceQueue>& kdebugEventsService() const { return _kdebugEventsService; }
    void setKdebugEventsService(Ref<KxServiceQueue> service) { _kdebugEventsService = std::move(service); }
    [[nodiscard]] const Ref<MutableDictionary>& symbolicatorSignatures() const { return _symbolicatorSignatures; }
    /// The session as a delegate of a service.
    [[nodiscard]] WeakPtr<KxServiceQueueDelegate> asDelegate();

    /// KxServiceQueueDelegate: pidDiedCallback: and updatedSymbolicatorNotificationReceived: can be called by the
    /// server.
    bool performCallback(const std::string& selector, const Ref<Array>& arguments) override;

private:
    VNT_MAKE_REF_FRIEND;
    Vantora(String* deviceID, const Dictionary* options, CFErrorRef* error);
    ~Vantora() override;
    /// Everything the destructor does; once. The asynchronous stop runs it itself, from whichever thread it is on.
    void teardown();
    // Apart, so that the leak checker's list can name what is kept for good.
    [[gnu::noinline]] void setServerAddress(const char* text);
    [[gnu::noinline]] void setTargetName(const std::string& name);
    void releaseInstruments();
    void releaseCreationRights();

    /// The instruments named by `identifiers`, or all, in that order; false after recording `missing` for an unknown
    /// one.
    bool selectInstruments(const Array* identifiers, const char* missing, std::vector<Ref<String>>& selected);
    bool runStartBlock(const std::vector<Ref<String>>& identifiers);
    bool bindTarget(const Array& identifiers, bool& launchedNow);
    bool gatherSignatures();
    bool observeTarget();
    bool writeDirtyInstruments(const Ref<String>& bundlePath);
    [[nodiscard]] VntInstrument* instrument(const Object& identifier) const;
    [[nodiscard]] Ref<Number> heapEventMask(const VntInstrument& heapRecorder) const;
    void prepareHeapRecorderEnvironment(Ref<MutableDictionary>& environment);
    /// One process request that takes the target's pid.
    void askProcessControl(std::string_view selector);
    bool stopEndAndSave();
    [[noreturn]] void quitAfterFailure(CFErrorRef recorded);

    int32_t _sessionNum = 0;
    Ref<RecursiveLock> _sessionLock;
    uint32_t _serverPort = 0; // send right to the creation port; kept for the session's life
    AuthorizationRef _authorization = nullptr; // likewise: the server checks it with every privileged request
    Url* _serverAddress = nullptr; // deliberately never released: saving reads it until the very end
    Ref<KxMessageQueue> _messageQueue;
    Ref<KxServiceQueue> _capabilitiesService;
    Ref<KxServiceQueue> _processControlService;
    Ref<KxServiceQueue> _kdebugEventsService;
    Ref<KxServiceQueue> _deviceInfoService;
    Ref<SerialQueue> _workerQueue;
    String* _deviceID = nullptr; // not owned: the caller keeps it alive
    std::atomic<int32_t> _pid{RqInvalidPidIdentifier}; // relaxed: written by the start block, read by late callbacks
    std::atomic<String*> _targetName{nullptr}; // deliberately never released; release/acquire with targetName()
    bool _allProfiling = false;
    bool _selfProfiling = false;
    Ref<MutableDictionary> _symbolicatorSignatures;
    Ref<MutableDictionary> _options;
    Ref<MutableDictionary> _instruments;
    std::vector<Ref<VntInstrument>> _creationReferences; // one per added instrument, the replaced ones included
    Ref<String> _savePath;
    CFErrorRef* _error = nullptr; // never owned; dangling between public calls
    std::thread::id _errorThread; // the public call's; on any other thread the slot may be gone already
    bool _rumbelCreated = false;
    bool _alreadyLaunched = false;
    Ref<String> _launch;
    Ref<Array> _launchArgs;
    std::atomic<bool> _targetDied{false}; // relaxed: set and read on the process-ending path

    WeakAnchor _weak{this}; // last: cleared before anything else goes
};

/// The process's current session; does not own it. Unsynchronised, as the public functions are.
extern Vantora* VntGlobal_CurrentSession;

} // namespace vnt
