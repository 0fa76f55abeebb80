/* A whole recording in C: samples a running process for some seconds and saves a bundle.
 *     record PID SECONDS OUTPUT
 * Build: cc record.c -lVantora
 */
#include <Vantora/Vantora>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static CFStringRef text(const char *bytes)
{
    return CFStringCreateWithCString(kCFAllocatorDefault, bytes, kCFStringEncodingUTF8);
}

static void print_error(const char *what, CFErrorRef error)
{
    CFStringRef description = error ? CFErrorCopyDescription(error) : NULL;
    fprintf(stderr, "%s: %s\n", what, description ? CFStringGetCStringPtr(description, kCFStringEncodingUTF8) : "failed");
    if (description)
        CFRelease(description);
    if (error)
        CFRelease(error);
}

/* Called on a thread of the library; both arguments are the library's. */
static void on_problem(CFStringRef service, CFErrorRef error)
{
    CFStringRef description = CFErrorCopyDescription(error);
    fprintf(stderr, "%s: %s\n", CFStringGetCStringPtr(service, kCFStringEncodingUTF8),
            CFStringGetCStringPtr(description, kCFStringEncodingUTF8));
    CFRelease(description);
}

static bool record(VantoraSession session, unsigned seconds, const char *output)
{
    CFErrorRef error = NULL;
    int64_t interval_us = 1000;
    CFStringRef sampler = text("quillon.vnt.stacksampler");
    CFStringRef key = text("quillon.vnt.option.samplinginterval");
    CFStringRef path = text(output);
    CFNumberRef interval = CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &interval_us);
    CFMutableDictionaryRef options = CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                                               &kCFTypeDictionaryValueCallBacks);
    bool saved = false;

    CFDictionarySetValue(options, key, interval);
    if (!VantoraAddInstrument(session, sampler, options, on_problem, &error)) {
        print_error("adding the sampler", error);
    } else if (!VantoraStart(session, NULL, &error)) {
        print_error("starting", error);
    } else {
        sleep(seconds);
        if (!VantoraStop(session, NULL, &error))
            print_error("stopping", error);
        error = NULL;
        saved = VantoraSave(session, path, &error);
        if (!saved)
            print_error("saving", error);
    }
    CFRelease(options);
    CFRelease(interval);
    CFRelease(path);
    CFRelease(key);
    CFRelease(sampler);
    return saved;
}

int main(int argc, char **argv)
{
    CFErrorRef error = NULL;
    CFStringRef target;
    VantoraSession session;
    bool saved;

    if (argc != 4) {
        fprintf(stderr, "usage: record PID SECONDS OUTPUT\n");
        return 2;
    }
    target = text(argv[1]);
    session = VantoraCreate(NULL, target, NULL, &error);
    CFRelease(target);
    if (!session) {
        print_error("creating a session", error);
        return 1;
    }
    saved = record(session, (unsigned)atoi(argv[2]), argv[3]);
    if (!VantoraDispose(session, &error))
        print_error("disposing", error);
    return saved ? 0 : 1;
}
