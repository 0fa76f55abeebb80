#include <signal.h>

#include <cstdio>

#include "platform/base/sys.h"
#include "platform/mach/ServiceStart.h"
#include "services/quillon/CreationPort.h"
#include "services/quillon/Worker.h"

int main(int argc, char** argv)
{
    ::signal(SIGPIPE, SIG_IGN);
    if (const int status = vnt::workerMain(argc, argv); status >= 0)
        return status;
    ::signal(SIGCHLD, SIG_IGN); // workers are not waited for
    auto arguments = vnt::ServiceArguments::parse(argc, argv);
    auto program = vnt::sys::executablePath();
    if (!arguments.ok() || !program.ok()) {
        std::fprintf(stderr, "QuillonServer: %s\n",
                     (arguments.ok() ? program.status() : arguments.status()).message().c_str());
        return 2;
    }
    auto port = vnt::CreationPort::open(arguments.take(), program.take());
    const vnt::Status status = port.ok() ? port.value()->run() : port.status();
    if (!status.ok())
        std::fprintf(stderr, "QuillonServer: %s\n", status.message().c_str());
    return status.ok() ? 0 : 1;
}
