#include "rumbel/view/view.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <optional>
#include <ostream>

#include "bundle/Bundle.h"
#include "bundle/Instruments.h"
#include "platform/base/sys.h"
#include "rumbel/report/printable.h"
#include "rumbel/terminal/ProgressLine.h"
#include "rumbel/view/Page.h"
#include "rumbel/view/PageBuilder.h"
#include "rumbel/view/parts.h"

namespace vnt {
namespace {

constexpr const char* kErrorPrefix = "rumbel error: ";

/// The room for an instrument: what reads its part.
constexpr struct {
    std::string_view identifier;
    const char* doing;
    bool (*add)(view::PageBuilder& page);
} kParts[] = {
    {kStackSamplerId, "reading samples", view::addStacks},
    {kKernelTracerId, "reading kernel events", view::addTrace},
    {kHeapRecorderId, "reading the heap", view::addHeap},
    {kOrphanFinderId, "reading leaks", view::addOrphans},
    {kProcessCensusId, "reading the census", view::addCensus},
};

std::string outputPath(const ViewOptions& options, const std::string& bundlePath)
{
    if (!options.output.empty())
        return options.output;
    std::string name = bundlePath.substr(bundlePath.rfind('/') + 1);
    if (name.ends_with(".vnt"))
        name.resize(name.size() - 4);
    return (name.empty() || name == "." || name == ".." ? "bundle" : name) + ".html";
}

/// `doing` says what is being done; read by another thread.
Result<std::string> buildPage(const Bundle& bundle, std::atomic<const char*>& doing)
{
    view::PageBuilder builder(bundle);
    bool anythingRead = false;
    for (const auto& part : kParts) {
        if (!bundle.hasInstrument(part.identifier))
            continue;
        doing.store(part.doing);
        anythingRead = part.add(builder) || anythingRead;
    }
    if (!anythingRead)
        return Status(Code::kInvalid, "nothing in the bundle could be read");
    doing.store("packing the page");
    return view::pageWith(builder.finish());
}

/// xdg-open returns as soon as it has handed the page on; its own messages go where ours go.
bool openInBrowser(const std::string& path)
{
    std::string program = "xdg-open";
    std::string argument = path.starts_with('/') ? path : "./" + path; // never an option or a URL
    char* arguments[] = {program.data(), argument.data(), nullptr};
    pid_t pid = -1;
    if (::posix_spawnp(&pid, "xdg-open", nullptr, nullptr, arguments, environ) != 0)
        return false;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) { }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void writeRemarks(const Remarks& remarks, std::ostream& err)
{
    for (const std::string& text : remarks.texts())
        err << "rumbel: " << printable(text) << "\n";
    if (remarks.omitted() != 0)
        err << "rumbel: and " << remarks.omitted() << " further remarks\n";
}

} // namespace

int runView(const ViewOptions& options, std::ostream& out, std::ostream& err, bool progress)
{
    const auto fail = [&err](const std::string& why) {
        err << kErrorPrefix << printable(why) << "\n";
        return 1;
    };
    auto opened = Bundle::open(options.bundlePath);
    if (!opened.ok())
        return fail(opened.status().message());
    const Bundle bundle = opened.take();
    const std::string path = outputPath(options, bundle.path());
    std::atomic<const char*> doing{"reading"};
    std::optional<terminal::ProgressLine> line;
    if (progress)
        line.emplace("making " + printable(path), [&doing] { return std::string(doing.load()); });
    const Result<std::string> page = buildPage(bundle, doing);
    line.reset();
    writeRemarks(bundle.remarks(), err);
    if (!page.ok())
        return fail(page.status().message());
    // Symbol names and paths tell of the user's programs: the page is as private as the bundle's files are.
    const Status written = sys::writeFileAtomically(path, std::as_bytes(std::span(page.value())), 0600);
    if (!written.ok())
        return fail(written.message());
    out << printable(path) << "\n";
    out.flush();
    if (options.open && !openInBrowser(path))
        return fail("xdg-open could not show " + path + "; open it in a browser");
    return out ? 0 : 1;
}

} // namespace vnt
