#include "Vantora/SessionFixture_test.h"

#include <unistd.h>

#include <cstdlib>

#include "Vantora/privileged/Rights.h"
#include "platform/base/sys.h"

namespace vnt::test {

SessionTest::SessionTest()
{
    ::setenv("VANTORA_PROGRAM_DIR", VNT_TEST_PROGRAM_DIR, 1); // the authority is the real program
    creation.emplace(server.address());
    server.on("isRunningPid:", Answer::object(Number::withBool(true)));
    server.on("symbolicatorSignatureForPid:trackingSelector:",
              Answer::object(Dictionary::create({{String::create("version"), Number::withInt(1)}})));
    server.on("versionForCapability:", Answer::object(Number::withInt(3)));
    server.on("hardwareInformation",
              Answer::object(Dictionary::create({{String::create("processorModel"), String::create("abacus")}})));
    server.on("systemInformation",
              Answer::object(Dictionary::create({{String::create("kernelName"), String::create("Linux")}})));
}

SessionTest::~SessionTest() { dispose(); }

Ref<Dictionary> SessionTest::with(std::string_view key, Ref<Object> value)
{
    return Dictionary::create({{String::create(key), std::move(value)}});
}

void SessionTest::knowProcesses(const std::vector<KnownProcess>& processes)
{
    auto records = MutableArray::create();
    for (const KnownProcess& process : processes) {
        auto record = MutableDictionary::create();
        if (process.name)
            record->set("name", String::create(process.name));
        record->set("pid", Number::withInt(process.pid));
        records->append(record);
    }
    server.on("runningProcesses", Answer::object(records));
}

bool SessionTest::keep(bool result, CFErrorRef error)
{
    const auto owned = Ref<Error>::adopt(fromC<Error>(error));
    _lastError = owned ? owned->localizedDescription()->str() : std::string();
    if (owned) {
        EXPECT_EQ(owned->domain()->str(), "quillon.vnt");
        EXPECT_EQ(owned->code(), 1561);
        EXPECT_EQ(owned->userInfo()->count(), 1u);
    }
    return result;
}

VantoraSession SessionTest::create(const char* target, const Ref<Dictionary>& options)
{
    CFErrorRef error = nullptr;
    const auto text = target ? String::create(target) : nullptr;
    _session = VantoraCreate(nullptr, toC<CFStringRef>(text.get()), toC<CFDictionaryRef>(options.get()), &error);
    keep(_session != nullptr, error);
    return _session;
}

bool SessionTest::add(std::string_view instrument, const Ref<Dictionary>& options, VantoraErrorCallback callback)
{
    CFErrorRef error = nullptr;
    const auto identifier = String::create(instrument);
    const bool added = VantoraAddInstrument(_session, toC<CFStringRef>(identifier.get()),
                                            toC<CFDictionaryRef>(options.get()), callback, &error);
    return keep(added, error);
}

Ref<Array> SessionTest::identifiers(std::initializer_list<std::string_view> instruments)
{
    auto list = MutableArray::create();
    for (const std::string_view instrument : instruments)
        list->append(String::create(instrument));
    return list->count() > 0 ? Ref<Array>(list) : nullptr;
}

bool SessionTest::start(std::initializer_list<std::string_view> instruments)
{
    CFErrorRef error = nullptr;
    const auto list = identifiers(instruments);
    const bool started = VantoraStart(_session, toC<CFArrayRef>(list.get()), &error);
    return keep(started, error);
}

bool SessionTest::stop(std::initializer_list<std::string_view> instruments)
{
    CFErrorRef error = nullptr;
    const auto list = identifiers(instruments);
    const bool stopped = VantoraStop(_session, toC<CFArrayRef>(list.get()), &error);
    return keep(stopped, error);
}

bool SessionTest::save(const std::string& path)
{
    CFErrorRef error = nullptr;
    const bool saved = VantoraSave(_session, toC<CFStringRef>(String::create(path).get()), &error);
    return keep(saved, error);
}

bool SessionTest::dispose()
{
    if (!_session)
        return true;
    CFErrorRef error = nullptr;
    const bool disposed = VantoraDispose(std::exchange(_session, nullptr), &error);
    return keep(disposed, error);
}

std::vector<std::string> SessionTest::requests()
{
    if (_session) // one-way requests are on their way still: an answered one comes after them
        session().deviceInfoService()->dispatch("fence");
    auto lines = server.transcript();
    server.clearTranscript();
    std::erase_if(lines, [](const std::string& line) {
        return line == "call quillon.server.services.deviceinfo fence ()"
            || line == "open quillon.server.services.capabilities"
            || line == "open quillon.server.services.processcontrol"
            || line == "open quillon.server.services.deviceinfo";
    });
    return lines;
}

std::string SessionTest::temporary(const std::string& name)
{
    return sys::environmentOr("TMPDIR", "/tmp") + "/" + name;
}

} // namespace vnt::test
