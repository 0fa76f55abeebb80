#include "rumbel/terminal/ProgressLine.h"

#include <unistd.h>

#include "platform/base/sys.h"
#include "rumbel/terminal/Terminal.h"

namespace vnt::terminal {
namespace {

constexpr std::chrono::milliseconds kFirstAfter{500}; // shorter work needs no line
constexpr std::chrono::milliseconds kEvery{200};
constexpr const char* kEraseLine = "\r\033[K"; // ECMA-48: erase in line

void write(const std::string& text) { (void)::write(STDERR_FILENO, text.data(), text.size()); } // only for the eye

} // namespace

ProgressLine::ProgressLine(std::string text, std::function<std::string()> detail)
    : _text(std::move(text)),
      _detail(std::move(detail))
{
    if (!isLively(STDERR_FILENO))
        return;
    const sys::SignalBlock block;
    _thread = std::thread([this] { run(); });
}

void ProgressLine::remove()
{
    {
        const std::lock_guard<std::mutex> guard(_lock);
        if (_visible)
            write(kEraseLine);
        _visible = false;
        _ended = true;
    }
    _wake.notify_all();
    if (_thread.joinable() && _thread.get_id() != std::this_thread::get_id())
        _thread.join();
}

void ProgressLine::run()
{
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(_lock);
    auto next = start + kFirstAfter;
    while (!_wake.wait_until(lock, next, [this] { return _ended; })) {
        const auto now = std::chrono::steady_clock::now();
        show(std::chrono::duration_cast<std::chrono::seconds>(now - start));
        next = now + kEvery;
    }
}

void ProgressLine::show(std::chrono::seconds elapsed)
{
    std::string line = _text + ", " + std::to_string(elapsed.count()) + " s";
    if (_detail)
        line += _detail();
    write("\r" + line + "\033[K\r");
    _visible = true;
}

} // namespace vnt::terminal
