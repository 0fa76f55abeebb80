#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace vnt::terminal {

/// One line on standard error that says what takes long and for how long already: "rumbel: saving out.vnt, 3 s".
/// Nothing where standard error is no terminal, and nothing in the first half second. The cursor stays at the line's
/// beginning, so that any other output takes its place. Its own thread, every signal blocked; remove() may be called by
/// any thread, also while the process ends.
class ProgressLine {
public:
    /// `detail` is called on the line's thread, about five times a second, and must not block; may be empty.
    explicit ProgressLine(std::string text, std::function<std::string()> detail = {});
    ~ProgressLine() { remove(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// Erases the line; nothing is shown any more.
    void remove();

private:
    void run();
    void show(std::chrono::seconds elapsed);

    const std::string _text;
    const std::function<std::string()> _detail;
    std::mutex _lock;
    std::condition_variable _wake;
    bool _ended = false; // under _lock
    bool _visible = false; // under _lock
    std::thread _thread; // last: it uses everything above
};

} // namespace vnt::terminal
