// What the message queue costs beside bare sockets, in the same run: one synchronous call against one request and
// reply of the same bytes, and 64 KiB data messages into memory and into the spool against a bare loop.
// Rounds of both sides alternate. Calls are compared by the median of the processor time that a round took, since a
// busy machine distorts anything shorter than its time slice; throughput by the lower quartile of the elapsed times.
//     transport_bench [calls|memory|spool]
// Exit status 1 when a bound is missed.
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/messagequeue/FrameReader.h"
#include "platform/messagequeue/KxMessageQueue.h"
#include "platform/messagequeue/MessageQueueServer.h"
#include "platform/messagequeue/ServerOutput.h"

namespace vnt {
namespace {

constexpr size_t kMessageBytes = 65536;
constexpr int kRounds = 15;
constexpr int kCallsPerRound = 2000;
constexpr size_t kMessagesPerRound = 2048; // 128 MiB

struct Clock {
    clockid_t id;
    int percentile; // of the rounds
};
constexpr Clock kProcessorTime{CLOCK_PROCESS_CPUTIME_ID, 50};
constexpr Clock kElapsedTime{CLOCK_MONOTONIC, 25};

double secondsOf(const Clock& clock, const std::function<void()>& work)
{
    const auto now = [&] {
        timespec time{};
        ::clock_gettime(clock.id, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    };
    const double begin = now();
    work();
    return now() - begin;
}

/// Runs both alternately; what a round of each took.
std::pair<double, double> compare(const Clock& clock, const std::function<void()>& ours,
                                  const std::function<void()>& bare)
{
    ours();
    bare();
    std::vector<double> times[2];
    for (int round = 0; round < kRounds; ++round) {
        times[0].push_back(secondsOf(clock, ours));
        times[1].push_back(secondsOf(clock, bare));
    }
    const auto chosen = [&](std::vector<double>& values) {
        std::sort(values.begin(), values.end());
        return values[values.size() * static_cast<size_t>(clock.percentile) / 100];
    };
    return {chosen(times[0]), chosen(times[1])};
}

bool report(const char* what, const char* unit, double ours, double bare, const char* bound, bool met)
{
    std::printf("%-44s %9.2f %s  bare %9.2f  ratio %.2f  bound %s  %s\n", what, ours, unit, bare, ours / bare, bound,
                met ? "met" : "MISSED");
    return met;
}

/// Answers "echo:" with its argument and "send:" with as many data messages as asked.
class BenchService final : public MessageQueueService {
public:
    explicit BenchService(Ref<ServiceChannel> channel)
        : _channel(std::move(channel)),
          _message(kMessageBytes, std::byte{'m'})
    {
    }
    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override
    {
        if (selector != "send:")
            return arguments->at(0);
        for (int64_t i = as<Number>(arguments->at(0).get())->int64Value(); i > 0; --i) {
            if (!_channel->sendData(_message).ok())
                break;
        }
        return nullptr;
    }

private:
    const Ref<ServiceChannel> _channel;
    const std::vector<std::byte> _message;
};

/// Our two ends over a named socket.
struct Ours {
    Ours() : path(temporaryDirectory() + "/bench-" + sys::randomHex(4))
    {
        listener = sys::listenUnix(path, SOCK_STREAM, 1).take();
        server = std::thread([this] {
            MessageQueueServerConnection connection(sys::acceptOne(listener.get(), std::chrono::seconds(30)).take(),
                                                    [](const std::string&, const Ref<ServiceChannel>& channel) {
                                                        return std::make_unique<BenchService>(channel);
                                                    });
            (void)connection.run();
        });
        queue = KxMessageQueue::initWithAddress(*Url::withString("unix:" + path));
        service = queue->createServiceForIdentifier(*String::create("bench"));
    }
    ~Ours()
    {
        service = nullptr;
        queue = nullptr;
        server.join();
        (void)::unlink(path.c_str());
    }

    std::string path;
    UniqueFd listener;
    std::thread server;
    Ref<KxMessageQueue> queue;
    Ref<KxServiceQueue> service;
};

bool benchCalls(const char* what)
{
    Ours ours;
    const Ref<Object> argument = Number::withInt64(1234567);
    const auto request = queue::encodeCall("echo:", std::vector<Ref<Object>>{argument}).take();
    const auto reply = queue::encodeAnswer(argument.get()).take();
    const size_t requestBytes = sizeof(queue::FrameHeader) + request.size();
    const size_t replyBytes = sizeof(queue::FrameHeader) + reply.size();

    auto [client, server] = sys::socketPair(SOCK_STREAM).take();
    std::thread echo([&, socket = server.get()] {
        std::vector<char> buffer(4096);
        while (sys::readFully(socket, buffer.data(), requestBytes).ok()
               && sys::writeFully(socket, buffer.data(), replyBytes).ok()) { }
    });
    std::vector<char> buffer(4096);
    const auto [ourTime, bareTime] = compare(
        kProcessorTime,
        [&] {
            for (int i = 0; i < kCallsPerRound; ++i)
                (void)ours.service->dispatch("echo:", {argument});
        },
        [&] {
            for (int i = 0; i < kCallsPerRound; ++i) {
                (void)sys::writeFully(client.get(), buffer.data(), requestBytes);
                (void)sys::readFully(client.get(), buffer.data(), replyBytes);
            }
        });
    client.reset();
    echo.join();
    const double ratio = ourTime / bareTime;
    return report(what, "us", ourTime / kCallsPerRound * 1e6, bareTime / kCallsPerRound * 1e6, "<= 2.0", ratio <= 2.0);
}

/// Sends one round of messages from a thread.
class Sender {
public:
    explicit Sender(std::function<void()> work) : _thread(std::move(work)) { }
    ~Sender() { _thread.join(); }

private:
    std::thread _thread;
};

/// VmRSS of proc(5): what both ends and the benchmark itself hold.
double residentKib()
{
    const std::string status = sys::readFile("/proc/self/status", 65536).take();
    return std::strtod(status.c_str() + status.find("VmRSS:") + 6, nullptr);
}

double megabytes(double time) { return static_cast<double>(kMessagesPerRound * kMessageBytes) / time * 1e-6; }

bool benchMemory()
{
    const std::vector<std::byte> message(kMessageBytes, std::byte{'m'});
    auto [in, out] = sys::socketPair(SOCK_STREAM).take();
    const auto output = queue::ServerOutput::create(std::move(out));
    queue::FrameReader reader(in.get(), queue::Direction::kToClient);
    auto [bareIn, bareOut] = sys::socketPair(SOCK_STREAM).take();
    std::vector<char> buffer(kMessageBytes);
    const auto [ourTime, bareTime] = compare(
        kElapsedTime,
        [&] {
            const Sender sender([&] {
                for (size_t i = 0; i < kMessagesPerRound; ++i)
                    (void)output->send({.kind = queue::FrameKind::kData, .channel = 1}, message);
            });
            for (size_t i = 0; i < kMessagesPerRound; ++i)
                VNT_CHECK(reader.next().value().payload.size() == kMessageBytes);
        },
        [&] {
            const Sender sender([&] {
                for (size_t i = 0; i < kMessagesPerRound; ++i)
                    (void)sys::writeFully(bareOut.get(), message.data(), message.size());
            });
            for (size_t i = 0; i < kMessagesPerRound; ++i)
                VNT_CHECK(sys::readFully(bareIn.get(), buffer.data(), buffer.size()).ok());
        });
    output->close();
    return report("64 KiB messages into memory", "MB/s", megabytes(ourTime), megabytes(bareTime), ">= 0.70",
                  bareTime / ourTime >= 0.70);
}

bool benchSpool()
{
    const std::vector<std::byte> message(kMessageBytes, std::byte{'m'});
    Ours ours;
    auto [bareIn, bareOut] = sys::socketPair(SOCK_STREAM).take();
    std::vector<char> buffer(kMessageBytes);
    const std::string path = stateDirectory().value() + "/bare-" + sys::randomHex(4);
    const auto [ourTime, bareTime] = compare(
        kElapsedTime,
        [&] {
            ours.service->discardMessages();
            (void)ours.service->dispatch("send:", {Number::withInt64(kMessagesPerRound)});
            VNT_CHECK(ours.service->messageCount() == kMessagesPerRound);
        },
        [&] {
            (void)::unlink(path.c_str());
            const UniqueFd file = sys::openFile(path, O_WRONLY | O_CREAT | O_TRUNC, 0600).take();
            const Sender sender([&] {
                for (size_t i = 0; i < kMessagesPerRound; ++i)
                    (void)sys::writeFully(bareOut.get(), message.data(), message.size());
            });
            for (size_t left = kMessagesPerRound * kMessageBytes; left > 0;) {
                const size_t count = sys::readSome(bareIn.get(), buffer.data(), buffer.size()).value();
                VNT_CHECK(sys::writeFully(file.get(), buffer.data(), count).ok());
                left -= count;
            }
        });
    (void)::unlink(path.c_str());
    const double residentMiB = residentKib() / 1024;
    std::printf("%-44s %9.2f MiB bound <= 16 MiB  %s\n", "resident after 2 GB spooled, both ends", residentMiB,
                residentMiB <= 16 ? "met" : "MISSED");
    return residentMiB <= 16
        && report("64 KiB messages into the spool", "MB/s", megabytes(ourTime), megabytes(bareTime), ">= 0.80",
                  bareTime / ourTime >= 0.80);
}

/// All threads from here on share one processor, or have all of them again.
void pin(bool one)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int cpu = 0; cpu < (one ? 1 : CPU_SETSIZE); ++cpu)
        CPU_SET(cpu, &set);
    VNT_CHECK(::sched_setaffinity(0, sizeof set, &set) == 0);
}

} // namespace
} // namespace vnt

int main(int argc, char** argv)
{
    (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string state = vnt::temporaryDirectory() + "/vnt-bench.XXXXXX";
    if (::mkdtemp(state.data()) == nullptr)
        return 2;
    ::setenv("XDG_STATE_HOME", state.c_str(), 1);
    const std::string only = argc > 1 ? argv[1] : "";
    bool met = true;
    if (only.empty() || only == "calls") {
        vnt::pin(true);
        met = vnt::benchCalls("synchronous call, one processor") && met;
        vnt::pin(false);
        met = vnt::benchCalls("synchronous call, all processors") && met;
    }
    if (only.empty() || only == "memory")
        met = vnt::benchMemory() && met;
    if (only.empty() || only == "spool")
        met = vnt::benchSpool() && met;
    (void)vnt::removeTree(state);
    return met ? 0 : 1;
}
