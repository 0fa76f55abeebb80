#include <signal.h>

#include <cstdio>

#include "platform/base/systemLog.h"
#include "services/tsec/TaskDaemon.h"

int main(int argc, char** argv)
{
    ::signal(SIGPIPE, SIG_IGN);
    auto arguments = vnt::ServiceArguments::parse(argc, argv);
    vnt::Status status = arguments.status();
    if (status.ok()) {
        auto daemon = vnt::TaskDaemon::open(arguments.take());
        status = daemon.ok() ? daemon.value()->run() : daemon.status();
    }
    if (status.ok())
        return 0;
    // Started by a look-up it has no standard error: the log tells too.
    std::fprintf(stderr, "KxTSecD: %s\n", status.message().c_str());
    asl_log(nullptr, nullptr, ASL_LEVEL_ERR, "KxTSecD: %s", status.message().c_str());
    return 1;
}
