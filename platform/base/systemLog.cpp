#include "platform/base/systemLog.h"

#include <syslog.h>

#include <cstdarg>

static_assert(ASL_LEVEL_ERR == LOG_ERR && ASL_LEVEL_WARNING == LOG_WARNING && ASL_LEVEL_NOTICE == LOG_NOTICE);

int asl_log(void*, void*, int level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // The facility is named: without openlog(3), which is the host's to call, it would be the host's choice.
    ::vsyslog(LOG_USER | level, format, arguments);
    va_end(arguments);
    return 0;
}
