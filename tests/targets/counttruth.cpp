// Retains and releases counted objects in ways of which it knows the numbers, says them, and ends.
//
//   counttruth                default: all that is deterministic
//   counttruth attach         the same between two lines that it reads
//   counttruth misuse         an object is retained and released after its end
//
// A line "counts: RETAINS RELEASES UNCHANGED OBJECTS" tells the numbers; "kept: OBJECTS RETAINS RELEASES" those of the
// objects that are left with more references taken than given back. Built with GObject, and with a library that stands
// for it.

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#ifdef WITH_GOBJECT
#include <glib-object.h>
namespace {
void* makeObject() { return g_object_new(G_TYPE_OBJECT, nullptr); }
void* makeFloating() { return g_object_new(G_TYPE_INITIALLY_UNOWNED, nullptr); }
} // namespace
#else
#include "countedobjects.h"
namespace {
void* makeObject() { return counted_object_new(); }
void* makeFloating() { return counted_floating_new(); }
} // namespace
#endif

#define OWN __attribute__((noinline, noclone))

// Without the macros that give the results types.
#undef g_object_ref
#undef g_object_ref_sink
#undef g_object_take_ref

namespace {

long retains;
long releases;
long unchanged;
long objects;
void* volatile kept[8]; // keeps what is left from looking unused

void ref(void* object)
{
    g_object_ref(object);
    __atomic_fetch_add(&retains, 1, __ATOMIC_RELAXED);
}

void unref(void* object)
{
    g_object_unref(object);
    __atomic_fetch_add(&releases, 1, __ATOMIC_RELAXED);
}

void* object()
{
    __atomic_fetch_add(&objects, 1, __ATOMIC_RELAXED);
    return makeObject();
}

} // namespace

OWN void takeReference(void* object) { ref(object); }
OWN void takeAnother(void* object) { ref(object); }
OWN void giveBack(void* object) { unref(object); }

/// Objects that come and go, each with as many references taken as given back, but for the one it was made with.
OWN void balanced()
{
    for (int i = 0; i < 100; ++i) {
        void* one = object();
        for (int j = 0; j < i % 5; ++j)
            takeReference(one);
        for (int j = 0; j < i % 5; ++j)
            giveBack(one);
        giveBack(one);
    }
}

/// An object that stays, with the reference that it was made with.
OWN void owned()
{
    void* one = object();
    takeReference(one);
    giveBack(one);
    kept[0] = one;
}

/// An object that stays because somebody took three references too many.
OWN void forgotten()
{
    void* one = object();
    for (int i = 0; i < 4; ++i)
        takeReference(one);
    takeAnother(one);
    giveBack(one);
    giveBack(one);
    kept[1] = one;
}

/// A floating object is owned by who sinks it first; who does later takes a reference.
OWN void floating()
{
    for (int i = 0; i < 10; ++i) {
        void* one = makeFloating();
        ++objects;
        g_object_ref_sink(one);
        ++unchanged;
        g_object_ref_sink(one);
        ++retains;
        unref(one);
        unref(one);
    }
    void* taken = makeFloating();
    ++objects;
    g_object_take_ref(taken);
    ++unchanged;
    unref(taken);
}

namespace {
constexpr int kThreads = 4;
constexpr int kRounds = 2000;
} // namespace

OWN void* shareObject(void* object)
{
    for (int i = 0; i < kRounds; ++i) {
        ref(object);
        unref(object);
    }
    return nullptr;
}

/// Threads that share an object which outlives them.
OWN void shared()
{
    void* one = object();
    ref(one);
    pthread_t threads[kThreads];
    for (pthread_t& thread : threads)
        ::pthread_create(&thread, nullptr, shareObject, one);
    for (pthread_t thread : threads)
        ::pthread_join(thread, nullptr);
    unref(one);
    unref(one);
}

OWN void deterministic()
{
    balanced();
    owned();
    forgotten();
    floating();
    shared();
}

OWN void useTooLate()
{
    void* one = makeObject();
    giveBack(one);
    takeReference(one);
    giveBack(one);
}

namespace {

void say(const char* text)
{
    if (::write(1, text, ::strlen(text)) < 0)
        ::_exit(9);
}

void sayNumbers()
{
    char line[160];
    ::snprintf(line, sizeof line, "counts: %ld %ld %ld %ld\nkept: 1 5 2\n", retains, releases, unchanged, objects);
    say(line);
}

void waitForLine()
{
    char byte = 0;
    while (::read(0, &byte, 1) == 1 && byte != '\n') { }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && ::strcmp(argv[1], "misuse") == 0) {
        useTooLate();
        return 0;
    }
    const bool isAttached = argc > 1 && ::strcmp(argv[1], "attach") == 0;
    if (isAttached) {
        say("ready\n");
        waitForLine();
    }
    deterministic();
    sayNumbers();
    if (isAttached) {
        say("done\n");
        waitForLine();
    }
    return 0;
}
