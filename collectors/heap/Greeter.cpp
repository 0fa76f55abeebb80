#include "collectors/heap/Greeter.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr int kBacklog = 128; // a journal that finds it full stays quiet
/// The greeting is sent right after connecting; a process that does not is not waited for long, others are in the line.
constexpr std::chrono::milliseconds kHelloDeadline{200};
constexpr size_t kMaxAuxiliaryBytes = 8192;

Result<UniqueFd> listenAbstract(const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    UniqueFd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!listener)
        return Status::fromErrno(errno, "socket");
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0
        || ::listen(listener.get(), kBacklog) != 0)
        return Status::fromErrno(errno, "bind of the heap journal's socket");
    return listener;
}

void sendWelcome(int socket, const journal::Welcome& welcome, int memory)
{
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    journal::Welcome copy = welcome;
    iovec part{&copy, sizeof copy};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (memory >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &memory, sizeof memory);
    }
    (void)::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT); // a journal that is gone needs none
}

} // namespace

std::string nameOfProcess(pid_t pid)
{
    auto name = sys::readFile("/proc/" + std::to_string(pid) + "/comm", 64);
    std::string text = name.ok() ? name.take() : std::string();
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

Result<ProgramIdentity> programOf(pid_t pid)
{
    const std::string directory = "/proc/" + std::to_string(pid);
    ASSIGN_OR_RETURN(const struct stat file, sys::statFile(directory + "/exe"));
    auto vector = sys::readFile(directory + "/auxv", kMaxAuxiliaryBytes);
    return ProgramIdentity{file.st_dev, file.st_ino, vector.ok() ? vector.take() : std::string()};
}

Greeter::Greeter(const Options& options, std::function<void(Greeting)> onGreeting)
    : _options(options),
      _onGreeting(std::move(onGreeting)),
      _name("vantora-heap-" + sys::randomHex(16)) // unguessable: who knows it was given it by its environment
{
}

Result<std::unique_ptr<Greeter>> Greeter::start(const Options& options, std::function<void(Greeting)> onGreeting)
{
    std::unique_ptr<Greeter> greeter(new Greeter(options, std::move(onGreeting)));
    ASSIGN_OR_RETURN(greeter->_listener, listenAbstract(greeter->_name));
    ASSIGN_OR_RETURN(greeter->_quit, sys::makeEventFd());
    const sys::SignalBlock block;
    greeter->_thread = std::thread([self = greeter.get()] { self->run(); });
    return greeter;
}

Greeter::~Greeter()
{
    if (!_thread.joinable())
        return;
    const uint64_t one = 1;
    VNT_CHECK(sys::writeFully(_quit.get(), &one, sizeof one).ok());
    _thread.join();
}

void Greeter::run()
{
    struct pollfd fds[] = {{_listener.get(), POLLIN, 0}, {_quit.get(), POLLIN, 0}};
    while (sys::pollFds(fds, std::chrono::milliseconds(-1)).ok() && fds[1].revents == 0) {
        if (fds[0].revents == 0)
            continue;
        UniqueFd socket(::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (socket)
            serve(socket.get());
    }
}

void Greeter::serve(int socket)
{
    const auto peer = sys::peerCredentials(socket);
    if (!peer.ok() || (peer.value().uid != ::geteuid() && peer.value().uid != _options.clientUid))
        return;
    struct pollfd readable[] = {{socket, POLLIN, 0}};
    const auto ready = sys::pollFds(readable, kHelloDeadline);
    journal::Hello hello{};
    if (!ready.ok() || ready.value() == 0 || ::recv(socket, &hello, sizeof hello, MSG_TRUNC) != sizeof hello
        || hello.magic != journal::kMagic || hello.version != journal::kVersion
        || (hello.pointerBytes != 4 && hello.pointerBytes != 8))
        return;
    journal::Welcome welcome{journal::kMagic, journal::kVersion, 0, _options.eventsMask, _options.flags};
    auto greeting = admit(peer.value().pid, hello);
    if (!greeting.ok())
        return sendWelcome(socket, welcome, -1);
    const UniqueFd memory(::dup(greeting.value().reader->memoryFd()));
    greeting.value().reader->closeMemoryFd();
    _onGreeting(greeting.take());
    welcome.record = 1;
    sendWelcome(socket, welcome, memory.get());
}

Result<Greeting> Greeter::admit(pid_t pid, const journal::Hello& hello)
{
    Greeting greeting;
    greeting.pid = pid;
    greeting.is32Bit = hello.pointerBytes == 4;
    greeting.again = _pid == pid && sys::signalPidFd(_pidFd.get(), 0).ok();
    if (_pid != 0 && !greeting.again)
        return Status(Code::kDenied, "another process is recorded");
    ASSIGN_OR_RETURN(greeting.reader, JournalReader::create(pid));
    ASSIGN_OR_RETURN(greeting.pidFd, sys::openPidFd(pid));
    ASSIGN_OR_RETURN(_pidFd, sys::openPidFd(pid));
    _pid = pid;
    greeting.name = nameOfProcess(pid);
    if (const auto program = programOf(pid); program.ok())
        greeting.program = program.value();
    greeting.timeNs = sys::monotonicNs();
    return greeting;
}

} // namespace vnt
