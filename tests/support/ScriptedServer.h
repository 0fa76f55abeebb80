#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/Error.h"

namespace vnt::test {

/// Something that the scripted server sends of its own accord. An empty service means the one that the request at
/// hand was made on.
struct Push {
    enum class Kind { kData, kCallback, kException };

    /// One data message with these bytes.
    static Push data(std::string bytes, std::string service = {});
    /// A one-way call of the client's delegate.
    static Push callback(std::string selector, std::vector<Ref<Object>> arguments = {}, std::string service = {});
    /// An exception outside any call.
    static Push exception(std::string name, std::string reason, std::string service = {});

    Kind kind = Kind::kData;
    std::string service;
    std::string text; // data: the bytes; callback: selector; exception: name
    std::string reason; // exception
    std::vector<Ref<Object>> arguments;
};

/// What the scripted server does with one request.
struct Answer {
    enum class Kind {
        kObject, ///< replies
        kException, ///< raises
        kNone, ///< never replies, and goes on with the next request
        kClose, ///< closes the connection instead
        kGarbage, ///< sends bytes that are no frame
        kOversizedLength, ///< sends a reply header whose length is near 2^32
        kTornReply, ///< sends half a reply, then closes
        kWrongId, ///< sends a reply to a call that was never made
        kMalformedObject, ///< sends a reply whose payload is no property list
    };

    /// A reply with `object`, which may be null.
    static Answer object(Ref<Object> object);
    static Answer exception(std::string name, std::string reason);
    /// One of the kinds that need nothing else.
    static Answer of(Kind kind);

    /// Sent before the answer, in this order.
    Answer before(Push push) &&;
    /// Sent right behind the answer.
    Answer after(Push push) &&;
    /// The answer waits for ScriptedServer::release() of its selector, and later requests of the connection with it.
    Answer held() &&;
    /// Runs on the server's thread before the answer.
    Answer running(std::function<void()> block) &&;

    Kind kind = Kind::kObject;
    Ref<Object> value;
    std::string name;
    std::string reason;
    std::vector<Push> pushesBefore;
    std::vector<Push> pushesAfter;
    std::function<void()> block;
    bool isHeld = false;
};

/// A server for tests of the client library: listens on a real Unix socket, speaks the real frames, writes down every
/// request in order, and answers from a table. Unknown selectors are answered with null. Serves any number of
/// connections, each on a thread of its own. All methods may be called from any thread.
///
///     ScriptedServer server;
///     server.on("runningProcesses", Answer::object(processes));
///     server.on("attachToPid:", Answer::of(Answer::Kind::kClose));
///     auto queue = KxMessageQueue::initWithAddress(*Url::withString(server.address()));
class ScriptedServer {
public:
    ScriptedServer();
    /// Closes what is open; held answers are dropped.
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    /// "unix:" URL text of the listening socket.
    [[nodiscard]] const std::string& address() const;

    /// Answers every call of `selector` on any service so; replaces what was set before.
    void on(const std::string& selector, Answer answer);
    /// As above, on one service only; goes before the general entry.
    void on(const std::string& service, const std::string& selector, Answer answer);
    /// Answers the next call of `selector` so, before the table is looked at. Several queue up.
    void once(const std::string& selector, Answer answer);
    /// Lets one held answer of `selector` go, now or when it comes to be held.
    void release(const std::string& selector);

    /// Sends at once on the newest connection that has `push.service` open; waits for one. False after 30 s without.
    bool push(const Push& push);
    /// Closes every connection that is open now.
    void closeConnections();
    /// Stops accepting: a connection attempt is refused from now on.
    void stopListening();

    /// Everything so far, one line each, in order:
    ///     open SERVICE
    ///     call SERVICE SELECTOR (ARGUMENT, ARGUMENT)
    ///     send SERVICE SELECTOR (ARGUMENT)              a one-way call
    ///     close SERVICE
    ///     hard stop
    ///     end                                           of a connection, by whomever
    /// Arguments as their descriptions.
    [[nodiscard]] std::vector<std::string> transcript() const;
    void clearTranscript();
    /// Waits until the transcript holds `line`; false after 30 s without it.
    [[nodiscard]] bool waitFor(const std::string& line) const;
    /// Waits until the transcript has `lines` lines or more; false after 30 s.
    [[nodiscard]] bool waitForLines(size_t lines) const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace vnt::test
