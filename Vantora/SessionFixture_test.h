#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Vantora/Errors.h"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/Catalogue.h"
#include "tests/support/CreationPort.h"
#include "tests/support/ScriptedServer.h"

namespace vnt::test {

/// A process name that the scripted server knows, with its pid.
struct KnownProcess {
    const char* name;
    int32_t pid;
};

/// A scripted server behind a creation port, and the public functions in a form that is short to call. Every test
/// drives the library through its exported functions.
class SessionTest : public testing::Test {
protected:
    static constexpr int32_t kTargetPid = 4242;
    static constexpr const char* kTarget = "4242";

    SessionTest();
    ~SessionTest() override;

    /// Options of one key.
    static Ref<Dictionary> with(std::string_view key, Ref<Object> value);
    void knowProcesses(const std::vector<KnownProcess>& processes);

    /// A session that the fixture disposes of at the end, or null with the sentence in lastError().
    VantoraSession create(const char* target, const Ref<Dictionary>& options = nullptr);
    bool add(std::string_view instrument, const Ref<Dictionary>& options = nullptr,
             VantoraErrorCallback callback = nullptr);
    bool start(std::initializer_list<std::string_view> instruments = {});
    bool stop(std::initializer_list<std::string_view> instruments = {});
    bool save(const std::string& path);
    bool dispose();
    /// Sentence of the last failed call, "" when it failed without one or succeeded.
    [[nodiscard]] const std::string& lastError() const { return _lastError; }
    [[nodiscard]] Vantora& session() const { return *static_cast<Vantora*>(_session); }

    /// The scripted server's transcript since the last call, without the opening of the basic services.
    std::vector<std::string> requests();
    static std::string temporary(const std::string& name);

    ScriptedServer server;
    std::optional<CreationPort> creation;

private:
    bool keep(bool result, CFErrorRef error);
    static Ref<Array> identifiers(std::initializer_list<std::string_view> instruments);

    VantoraSession _session = nullptr;
    std::string _lastError;
};

} // namespace vnt::test
