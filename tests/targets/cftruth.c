/* Retains and releases objects of our own library: ten that end, and one that is left with two references too many. With
 * "misuse", the last is released once more than it can be. */
#include <Vantora/Platform.h>

#define OWN __attribute__((noinline, noclone))

CFTypeRef volatile kept;

OWN void retainTwice(CFTypeRef object)
{
    CFRetain(object);
    CFRetain(object);
}

OWN void releaseLate(CFTypeRef object) { CFRelease(object); }

int main(int argc, char** argv)
{
    (void)argv;
    for (int i = 0; i < 10; ++i) {
        CFMutableArrayRef array = CFArrayCreateMutable(kCFAllocatorDefault, 0, 0);
        CFRetain(array);
        CFRelease(array);
        CFRelease(array);
    }
    CFMutableArrayRef array = CFArrayCreateMutable(kCFAllocatorDefault, 0, 0);
    retainTwice(array);
    kept = array;
    if (argc > 1) {
        CFRelease(array);
        CFRelease(array);
        CFRelease(array);
        releaseLate(array);
    }
    return 0;
}
