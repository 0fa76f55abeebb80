#pragma once

/// The system's log (syslog(3)). Any thread; keeps nothing; never fails as far as the caller can tell.
extern "C" {

enum { ASL_LEVEL_ERR = 3, ASL_LEVEL_WARNING = 4, ASL_LEVEL_NOTICE = 5 }; ///< syslog(3)'s values

/// `client` and `message` must be null. `format` as printf(3), without a line end.
int asl_log(void* client, void* message, int level, const char* format, ...) __asm__("vnt_asl_log")
    __attribute__((format(printf, 4, 5)));
}
