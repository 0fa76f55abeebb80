#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Vantora/SessionFixture_test.h"
#include "Vantora/instruments/VntInstrument.h"
#include "platform/base/sys.h"
#include "platform/foundation/Files.h"

/// Every instrument's whole conversation with the server, and what it leaves on disk.
namespace vnt::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kServices = "quillon.server.services.";
const std::string kControl = kServices + "processcontrol";
const std::string kDevice = kServices + "deviceinfo";
const std::string kEvents = kServices + "corekdebugevents";

std::string opened(const std::string& service) { return "open " + service; }
std::string versionAsked(const std::string& service)
{
    return "call " + kServices + "capabilities versionForCapability: (" + service + ")";
}

/// Without the tap's configuration, which has its own tests, and without what is queued beside the save.
Lines comparable(Lines lines)
{
    std::erase(lines, "call " + kControl + " stopObservingPid: (4242)");
    for (std::string& line : lines) {
        const size_t at = line.find("startTapWithConfiguration:");
        if (at != std::string::npos)
            line.resize(at + std::string("startTapWithConfiguration:").size());
    }
    return lines;
}

Lines operator+(Lines left, const Lines& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

const Lines kSignaturesTracked = {
    "call " + kDevice + " symbolicatorSignatureForPid:trackingSelector: (0, updatedSymbolicatorNotificationReceived:)",
    "call " + kDevice
        + " symbolicatorSignatureForPid:trackingSelector: (4242, updatedSymbolicatorNotificationReceived:)"};
const Lines kHeld = {"call " + kControl + " suspendPid: (4242)"};
const Lines kReleased = {"call " + kControl + " resumePid: (4242)"};
const Lines kWritten = {"call " + kDevice + " hardwareInformation ()", "call " + kDevice + " systemInformation ()",
                        "call " + kDevice + " symbolicatorSignatureForPid:trackingSelector: (0, <null>)",
                        "call " + kDevice + " symbolicatorSignatureForPid:trackingSelector: (4242, <null>)"};

struct Conversation {
    std::string_view instrument;
    std::string service;
    Lines added = {}, attached = {}, started = {}, stopped = {}, restarted = {}, ended = {};
    std::string kindKeys = {}; // of the data file, with types and values as Python shows them
};

const Conversation kConversations[] = {
    {.instrument = kStackSamplerID,
     .service = kServices + "zeltotap",
     .started = {"call " + kServices + "zeltotap startTapWithConfiguration:"},
     .stopped = {"call " + kServices + "zeltotap pauseTap ()"},
     .restarted = {"call " + kServices + "zeltotap unpauseTap ()"},
     .ended = {"call " + kServices + "zeltotap stopTap ()"},
     .kindKeys = "samplinginterval=40 windowlimit=7 outputrate=0 stacksampleroptions=0 "},
    {.instrument = kKernelTracerID,
     .service = kServices + "kdebugtap",
     .added = {"open " + kEvents},
     .started = {"call " + kServices + "kdebugtap startTapWithConfiguration:"},
     .stopped = {"call " + kServices + "kdebugtap pauseTap ()"},
     .restarted = {"call " + kServices + "kdebugtap unpauseTap ()"},
     .ended = {"call " + kServices + "kdebugtap stopTap ()", "call " + kEvents + " getEventsAsXML ()"},
     .kindKeys = "windowlimit=7 quillon.vnt.dtaa.kdebugeventxml='<events/>' "},
    {.instrument = kHeapRecorderID,
     .service = kServices + "objrecord",
     .added = {"send " + kServices + "objrecord enableServiceActionCompletedCallback ()"},
     .attached = {"call " + kServices + "objrecord attachToPid:eventsMask: (4242, 809367560)"}, // 0x303DF808
     .started = {"send " + kServices + "objrecord startCollection ()"},
     .stopped = {"send " + kServices + "objrecord stopCollection ()"},
     .restarted = {"send " + kServices + "objrecord startCollection ()"},
     .kindKeys = "enablezombies=False referencecounting=True identifycpp=True "},
    {.instrument = kOrphanFinderID,
     .service = kServices + "remoteorphans",
     .added = {"send " + kServices + "remoteorphans enableServiceActionCompletedCallback ()"},
     .stopped = {"call " + kServices + "remoteorphans requestLeaksForPid:context:provideBacktraces: (4242, 1, 0)"},
     .ended = {"send " + kServices + "remoteorphans cancelAllRequests ()"},
     .kindKeys = "includecontext=True providebacktraces=False "},
    {.instrument = kProcessCensusID,
     .service = kServices + "activity",
     .added = {"send " + kServices + "activity enableServiceActionCompletedCallback ()",
               "send " + kServices + "activity setSamplingRate: (1)"},
     .started = {"send " + kServices + "activity startSampling ()"},
     .stopped = {"send " + kServices + "activity stopSampling ()"},
     .restarted = {"send " + kServices + "activity startSampling ()"},
     .kindKeys = "samplinginterval=1 "},
};

/// Top-level keys of the keyed archive in their order, with their values; opaque ones by their types.
std::string archiveKeys(const std::string& file)
{
    const std::string text = sys::environmentOr("TMPDIR", "/tmp") + "/keys.txt";
    const std::string command =
        "python3 -c '\n"
        "import plistlib, sys\n"
        "a = plistlib.load(open(sys.argv[1], \"rb\"))\n"
        "assert a[\"$archiver\"] == \"NSKeyedArchiver\" and a[\"$version\"] == 100000\n"
        "o = a[\"$objects\"]\n"
        "def shown(v):\n"
        "    if not isinstance(v, plistlib.UID): return repr(v)\n"
        "    v = o[v.data]\n"
        "    return repr(v) if not isinstance(v, dict) else o[v[\"$class\"].data][\"$classname\"]\n"
        "for k, v in a[\"$top\"].items():\n"
        "    v = \"*\" if \"time\" in k else shown(v)\n"
        "    print(k.replace(\"quillon.vnt.data.\", \"\") + \"=\" + v, end=\" \")\n"
        "' '"
        + file + "' >'" + text + "' 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << "python3 is needed";
    return sys::readFile(text, 65536).take();
}

class InstrumentTest : public SessionTest {
protected:
    /// In the session's options: what some kinds take from there alone.
    Ref<Dictionary> sessionOptions()
    {
        auto options = MutableDictionary::create();
        for (const std::string_view key : {option::kReferenceCounting, option::kIdentifyCpp, option::kIncludeContext})
            options->set(key, Number::withBool(true));
        options->set(option::kCensusInterval, Number::withInt(0));
        return options;
    }

    /// In the instrument's own: honoured by the taps, overruled for the others.
    Ref<Dictionary> instrumentOptions()
    {
        auto options = MutableDictionary::create();
        for (const std::string_view key : {option::kEnableZombies, option::kProvideBacktraces})
            options->set(key, Number::withBool(true));
        options->set(option::kCensusInterval, Number::withInt(50));
        options->set(option::kWindowLimit, Number::withInt(7));
        return options;
    }

    void SetUp() override
    {
        server.on("attachToPid:eventsMask:", Answer::object(Number::withBool(true)));
        server.on("getEventsAsXML", Answer::object(String::create("<events/>")));
        std::filesystem::remove(eventCache());
    }

    static std::string eventCache() { return temporaryDirectory() + "/kdebug_events.cache.xml"; }

    /// At the next start `messages` of the service's data arrive, and the report that its work is complete.
    void deliver(const std::string& service, int messages)
    {
        auto answer = Answer::object(Number::withBool(true));
        for (int i = 0; i < messages; ++i)
            answer = std::move(answer).before(Push::data("message", service));
        if (!service.ends_with("tap"))
            answer = std::move(answer).before(
                Push::callback("serviceActionCompleted:", {with(kServiceComplete, String::create(service))}, service));
        server.once("resumePid:", std::move(answer)); // when the instruments run
    }
};

TEST_F(InstrumentTest, EachKindHasItsConversation)
{
    for (const Conversation& kind : kConversations) {
        SCOPED_TRACE(std::string(kind.instrument));
        ASSERT_TRUE(create(kTarget, sessionOptions())) << lastError();
        if (kind.instrument == kOrphanFinderID) {
            ASSERT_TRUE(add(kHeapRecorderID)); // else it comes along
        }
        (void)requests();
        ASSERT_TRUE(add(kind.instrument, instrumentOptions())) << lastError();
        EXPECT_EQ(requests(), Lines({opened(kind.service), versionAsked(kind.service)}) + kind.added);
        ASSERT_TRUE(start({kind.instrument})) << lastError();
        EXPECT_EQ(comparable(requests()), kind.attached + kSignaturesTracked + kHeld + kind.started + kReleased);
        ASSERT_TRUE(stop({kind.instrument})) << lastError();
        EXPECT_EQ(requests(), kind.stopped);
        deliver(kind.service, 2);
        ASSERT_TRUE(start({kind.instrument})) << lastError();
        EXPECT_EQ(comparable(requests()), kHeld + kind.restarted + kReleased);
        ASSERT_TRUE(stop({kind.instrument})) << lastError();
        (void)requests();
        const std::string path = temporary(std::string(kind.instrument));
        if (kind.instrument == kOrphanFinderID) { // its companion was never started, which keeps a save from ending
            CFErrorRef none = nullptr;
            session().setErrorAddress(&none);
            auto& finder = static_cast<VntInstrument&>(*session().instruments()->get(kOrphanFinderID));
            EXPECT_TRUE(finder.end());
            ASSERT_TRUE(session().saveToFile(String::create(path).get()));
        } else {
            ASSERT_TRUE(save(path)) << lastError();
        }
        EXPECT_EQ(comparable(requests()), kind.ended + kWritten);
        const std::string file = path + ".vnt/" + std::string(kind.instrument);
        EXPECT_TRUE(std::filesystem::exists(file + ".messagequeue"));
        EXPECT_EQ(archiveKeys(file),
                  kind.kindKeys
                      + "fileversion=4 serveraddress=NSURL serviceversion=3 pid=4242 signatures=NSDictionary "
                        "devicetemplate=NSDictionary starttimesecsince1970=* stoptimessecsince1970=* starttimemach=* "
                        "stoptimemach=* machtimebasenumer=* machtimebasedenom=* messagecount=2 ");
        dispose();
        EXPECT_TRUE(server.waitFor("end")) << "else it may stand among the next one's requests";
    }
}

/// What a tap sends after it was ended belongs to a new stream.
TEST_F(InstrumentTest, ATapStartedAgainBeginsAnEmptyStream)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID));
    for (const int messages : {5, 2}) {
        deliver(kServices + "zeltotap", messages);
        ASSERT_TRUE(start()) << lastError();
        ASSERT_TRUE(stop()) << lastError();
        const std::string path = temporary("stream" + std::to_string(messages));
        ASSERT_TRUE(save(path)) << lastError();
        EXPECT_NE(
            archiveKeys(path + ".vnt/quillon.vnt.stacksampler").find("messagecount=" + std::to_string(messages) + " "),
            std::string::npos);
    }
    const Lines asked = requests();
    EXPECT_EQ(std::count_if(asked.begin(), asked.end(),
                            [](const std::string& line) { return line.find("startTap") != std::string::npos; }),
              2)
        << "the second start did not start a tap of its own";
}

TEST_F(InstrumentTest, EventDescriptionsAreCachedForTheUserAlone)
{
    const auto save = [&](const char* name) {
        ASSERT_TRUE(create(kTarget));
        (void)requests();
        ASSERT_TRUE(add(kKernelTracerID));
        deliver(kServices + "kdebugtap", 1);
        ASSERT_TRUE(start() && stop() && SessionTest::save(temporary(name))) << lastError();
    };
    const auto asksTheServer = [&] {
        const Lines asked = requests();
        return std::find(asked.begin(), asked.end(), "open " + kEvents) != asked.end();
    };
    const auto savedDescriptions = [&](const char* name) {
        const std::string keys = archiveKeys(temporary(name) + ".vnt/quillon.vnt.kerneltracer");
        const size_t at = keys.find("kdebugeventxml=") + std::string("kdebugeventxml=").size();
        return keys.substr(at, keys.find(' ', at) - at);
    };

    server.on("getEventsAsXML", Answer::object(String::create("")));
    save("no-events");
    EXPECT_TRUE(asksTheServer());
    EXPECT_EQ(savedDescriptions("no-events"), "'$null'");
    EXPECT_FALSE(std::filesystem::exists(eventCache()));
    dispose();

    server.on("getEventsAsXML", Answer::object(String::create("<events/>")));
    save("asked");
    EXPECT_TRUE(asksTheServer());
    dispose();
    struct stat made { };
    ASSERT_EQ(::stat(eventCache().c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 0777, 0600u);
    save("cached");
    EXPECT_FALSE(asksTheServer());
    EXPECT_EQ(savedDescriptions("cached"), "'<events/>'");
    dispose();

    // What somebody else may have put there is not believed.
    const std::string elsewhere = temporary("elsewhere.xml");
    std::filesystem::rename(eventCache(), elsewhere);
    std::filesystem::create_symlink(elsewhere, eventCache());
    save("linked");
    EXPECT_TRUE(asksTheServer());
    EXPECT_FALSE(std::filesystem::is_symlink(eventCache())) << "the link was followed, or kept";
    dispose();
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(eventCache().c_str(), 65534, 65534), 0);
        save("foreign");
        EXPECT_TRUE(asksTheServer());
        dispose();
    }
    ASSERT_TRUE(sys::writeFileAtomically(eventCache(), std::as_bytes(std::span("\xff\xfe", 2)), 0600).ok());
    save("broken");
    EXPECT_TRUE(asksTheServer());
}

TEST_F(InstrumentTest, AttachingIsTheRecordersAffairAlone)
{
    struct Row {
        bool referenceCounting, identifyCpp;
        uint32_t mask;
    } rows[] = {
        {false, false, 0x002D0800}, {false, true, 0x003D0800}, {true, false, 0x302DF808}, {true, true, 0x303DF808}};
    for (const Row& row : rows) {
        auto options = MutableDictionary::create();
        options->set(option::kReferenceCounting, Number::withBool(row.referenceCounting));
        options->set(option::kIdentifyCpp, Number::withBool(row.identifyCpp));
        ASSERT_TRUE(create(kTarget, options));
        ASSERT_TRUE(add(kHeapRecorderID) && add(kStackSamplerID));
        server.once("attachToPid:eventsMask:", Answer::object(Number::withBool(false)));
        (void)requests();
        EXPECT_FALSE(start());
        EXPECT_EQ(lastError(), "Vantora: Heap Recorder instrument unable to attach to process 4242");
        EXPECT_EQ(requests(),
                  Lines{"call " + kServices + "objrecord attachToPid:eventsMask: (4242, "
                        + std::to_string(static_cast<int32_t>(row.mask)) + ")"});
        const auto* mask = fromC<Number>(heapRecorderEventMask(row.referenceCounting, row.identifyCpp));
        EXPECT_EQ(static_cast<uint32_t>(mask->intValue()), row.mask);
        EXPECT_TRUE(start({kStackSamplerID})) << lastError(); // needs no attaching
        EXPECT_TRUE(stop({kStackSamplerID}));
        dispose();
    }
}

TEST_F(InstrumentTest, ALeakSearchThatFailsSaysWhy)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kOrphanFinderID)) << lastError();
    ASSERT_TRUE(start()) << lastError();
    server.on("requestLeaksForPid:context:provideBacktraces:", Answer::exception("VntLeaks", "the target is traced"));
    EXPECT_FALSE(stop({kOrphanFinderID}));
    EXPECT_EQ(lastError(), "Vantora: Determining leaks failed because: the target is traced");
    EXPECT_FALSE(VantoraIsSaved(VantoraGetCurrent()));
}

/// An instrument added anew takes the place of the first, which is silent until the session goes.
TEST_F(InstrumentTest, AnInstrumentAddedTwiceIsReplacedSilently)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID) && start()) << lastError();
    ASSERT_TRUE(add(kStackSamplerID)) << lastError();
    EXPECT_FALSE(VantoraIsRecording(VantoraGetCurrent()));
    EXPECT_TRUE(VantoraIsSaved(VantoraGetCurrent()));
    server.clearTranscript();
    EXPECT_TRUE(dispose()) << lastError();
    EXPECT_TRUE(server.waitFor("end"));
    const Lines lines = server.transcript();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "close " + kServices + "zeltotap"), 2);
}

TEST_F(InstrumentTest, NoInstrumentsNamedStillBindsTheTarget)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID));
    (void)requests();
    CFErrorRef error = nullptr;
    const auto none = Array::create();
    EXPECT_TRUE(VantoraStart(VantoraGetCurrent(), toC<CFArrayRef>(none.get()), &error));
    EXPECT_EQ(requests(), kSignaturesTracked + kHeld + kReleased);
    EXPECT_TRUE(VantoraStart(VantoraGetCurrent(), toC<CFArrayRef>(none.get()), &error));
    EXPECT_EQ(requests(), kHeld + kReleased) << "bound a second time";
    EXPECT_FALSE(VantoraIsRecording(VantoraGetCurrent()));
}

/// Signatures of ended processes fill gaps, current ones replace those of the start.
TEST_F(InstrumentTest, SignaturesOfAllProcessesAreMerged)
{
    const auto signature = [](int32_t value) { return Answer::object(Number::withInt(value)); };
    knowProcesses({{"a", 0}, {"a", 10}, {"b", 20}});
    ASSERT_TRUE(create("-1"));
    ASSERT_TRUE(add(kStackSamplerID));
    server.on("symbolicatorSignatureForPid:trackingSelector:", signature(1));
    ASSERT_TRUE(start()) << lastError();
    knowProcesses({{"a", 10}, {"c", 30}});
    server.on("symbolicatorSignatureForPid:trackingSelector:", signature(2));
    server.on("symbolicatorSignaturesForExpiredPids",
              Answer::object(Dictionary::create(
                  {{Number::withInt64(20), Number::withInt(3)}, {Number::withInt64(40), Number::withInt(3)}})));
    auto& sampler = static_cast<VntInstrument&>(*session().instruments()->get(kStackSamplerID));
    const auto merged = sampler.finalSymbolicatorSignatures();
    ASSERT_TRUE(merged);
    std::map<int32_t, int32_t> seen;
    for (const auto& [pid, value] : merged->entries())
        seen[as<Number>(pid.get())->intValue()] = as<Number>(value.get())->intValue();
    EXPECT_EQ(seen, (std::map<int32_t, int32_t>{{0, 2}, {10, 2}, {20, 1}, {30, 2}, {40, 3}}));
    EXPECT_TRUE(stop());
}

} // namespace
} // namespace vnt::test
