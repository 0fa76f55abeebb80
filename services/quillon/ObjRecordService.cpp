#include "services/quillon/ObjRecordService.h"

#include "platform/base/sys.h"
#include "records/HeapJournal.h"
#include "records/OrphanRecords.h"
#include "services/quillon/Arguments.h"
#include "services/quillon/Completion.h"

namespace vnt {
namespace {

constexpr std::string_view kServiceName = "quillon.server.services.objrecord";
constexpr std::string_view kPreload = "LD_PRELOAD"; // ld.so(8)
constexpr std::string_view kJournalFile =
    "/$LIB/libVntHeapJournal.so"; // the loader replaces $LIB by the program's class
constexpr std::string_view kSlices = "G_SLICE"; // GLib's manual, "Running GLib Applications"
constexpr uint32_t kZombieEvents = 0x00200000;

/// Where the journals of all classes are: beside the program as built, or in its prefix as installed.
std::string journalDirectory()
{
    const auto program = sys::executablePath();
    if (!program.ok())
        return {};
    const std::string directory = program.value().substr(0, program.value().rfind('/'));
    for (const char* place : {"/../lib/journal", "/../lib/vantora/journal", "/journal"}) {
        if (sys::statFile(directory + place).ok())
            return directory + place;
    }
    return {};
}

uint32_t maskArgument(const Array& arguments, size_t index)
{
    const auto* number = index < arguments.count() ? as<Number>(arguments.at(index).get()) : nullptr;
    if (!number)
        throw Exception("NSInvalidArgumentException", "the events mask is no number");
    return static_cast<uint32_t>(number->int64Value());
}

} // namespace

ObjRecordService::ObjRecordService(Ref<ServiceChannel> channel, SignatureStore& signatures, AccessGuard& guard,
                                   SessionHeap& heap, uid_t clientUid)
    : _channel(std::move(channel)),
      _signatures(signatures),
      _guard(guard),
      _heap(heap),
      _clientUid(clientUid)
{
}

ObjRecordService::~ObjRecordService() = default;

Ref<Object> ObjRecordService::onCall(const std::string& selector, const Ref<Array>& arguments)
{
    if (selector == "preparedEnvironmentForLaunch:eventsMask:")
        return prepareEnvironment(*arguments);
    if (selector == "attachToPid:eventsMask:")
        return attach(*arguments);
    if (selector == "startCollection")
        startCollection();
    else if (selector == "stopCollection")
        stopCollection();
    else if (selector == kEnableCompletion)
        _reportsCompletion.store(true);
    else
        throwUnknownSelector(selector);
    return nullptr;
}

Ref<Object> ObjRecordService::prepareEnvironment(const Array& arguments)
{
    const auto* given = arguments.count() > 0 ? as<Dictionary>(arguments.at(0).get()) : nullptr;
    if (!given)
        throw Exception("NSInvalidArgumentException", "an environment is a dictionary");
    HeapCollectorOptions options;
    options.eventsMask = maskArgument(arguments, 1);
    options.clientUid = _clientUid;
    const auto zombies = given->get<String>("NSZombieEnabled");
    options.keepZombies = (options.eventsMask & kZombieEvents) != 0 && zombies && zombies->str() == "YES";
    const std::string directory = journalDirectory();
    if (directory.empty() || directory.find_first_of(": ") != std::string::npos) {
        reportProblem(directory.empty()
                          ? "the journal's library is not installed"
                          : "the journal cannot be loaded from a path with blanks or colons: " + directory);
        return nullptr;
    }
    onClose(); // a second launch replaces the first
    const auto contents = given->get<String>(orphans::kContentsVariable);
    _heap.setContentsAtExit(contents && contents->str() == "1");
    auto collector = HeapCollector::start(options, *this, *this);
    if (!collector.ok()) {
        reportProblem(collector.status().message());
        return nullptr;
    }
    _collector = collector.take();
    _heap.setCollector(_collector.get());
    auto environment = MutableDictionary::copyOf(*given);
    std::string preload = directory + std::string(kJournalFile);
    if (const auto inherited = given->get<String>(kPreload); inherited && !inherited->str().empty())
        preload += ":" + inherited->str();
    environment->set(kPreload, String::create(preload));
    // GLib before 2.76 keeps the memory of its objects to itself, so that a freed one would be no freed block.
    if (options.keepZombies && (options.eventsMask & journal::kCountEvents) != 0 && !given->get<String>(kSlices))
        environment->set(kSlices, String::create("always-malloc"));
    environment->set(journal::kSocketVariable, String::create(_collector->socketName()));
    return environment;
}

Ref<Object> ObjRecordService::attach(const Array& arguments)
{
    const pid_t pid = pidArgument(arguments, 0);
    HeapCollectorOptions options;
    options.eventsMask = maskArgument(arguments, 1);
    options.clientUid = _clientUid;
    options.journalDirectory = journalDirectory();
    if (pid <= 0) {
        reportProblem("only the heap of a single process can be recorded");
        return Number::withBool(false);
    }
    try {
        _guard.demand(pid, AccessGuard::Reach::kAnalyse);
    } catch (const Exception& refusal) {
        reportProblem(refusal.reason());
        return Number::withBool(false);
    }
    onClose(); // what was recorded before is given back first
    auto collector = HeapCollector::attach(options, pid, *this, *this);
    if (!collector.ok()) {
        reportProblem(collector.status().message());
        return Number::withBool(false);
    }
    _collector = collector.take();
    _heap.setCollector(_collector.get());
    return Number::withBool(true);
}

void ObjRecordService::startCollection()
{
    if (_collector)
        _collector->startCollection();
}

void ObjRecordService::stopCollection()
{
    if (_collector) {
        const Status status = _collector->stopCollection();
        if (!status.ok())
            reportProblem(status.message());
        else if (_collector->targetPid() == 0)
            reportProblem("the program did not load the journal: it is statically linked, runs with another user's "
                          "privilege, or never ran");
    }
    reportComplete();
}

/// Nothing more will be sent, unless collection starts again.
void ObjRecordService::reportComplete()
{
    if (_reportsCompletion.load())
        sendCompletion(*_channel, kServiceName);
}

void ObjRecordService::reportProblem(const std::string& text)
{
    (void)_channel->sendException(
        Exception("VntHeapError", "Heap Recorder: " + text)); // a client that is gone needs none
}

void ObjRecordService::onTargetStarted(uint64_t timeNs, pid_t pid, const std::string& name, bool again)
{
    if (again)
        _signatures.onExec(timeNs, pid, name);
    (void)_signatures.signatureOf(pid); // reads the mappings: libraries are loaded by now
}

void ObjRecordService::onNewCode(pid_t pid) { (void)_signatures.signatureOf(pid); }

void ObjRecordService::onTargetExiting(HeapView& heap) { _heap.targetExiting(heap); }

void ObjRecordService::onTargetEnded(pid_t pid)
{
    _heap.targetEnded(pid);
    reportComplete();
}

void ObjRecordService::onClose()
{
    _heap.setCollector(nullptr);
    _collector = nullptr;
}

} // namespace vnt
