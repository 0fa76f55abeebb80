// A program that changes while it is recorded: reads a line at a time from its standard input, does what it says, and
// answers with "done", the command and its result (a status, mostly).
//   load FILE   opens a library (dlopen(3)), which reports a function to reportPlugin() by itself
//   find        looks the function up (dlsym(3)) instead
//   call N      the library's function makes N blocks and frees them
//   close       closes the library
//   churn FILE  opens, uses and closes it over and over in a thread, until the program ends
//   hold, release  a thread keeps the lock of the loader's list (dl_iterate_phdr(3)) from one to the other, or to
//   SIGUSR1 fork N      a child makes N blocks of its own child       a child makes blocks for as long as the program
//   runs; the result is its id vfork, spawn   a child executes /bin/true exec FILE   the program becomes this one
// and ends with its input. Blocks are of kPluginBytes, those of a child of kChildBytes.

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t kChildBytes = 5437;
using Plugin = void (*)(int);
Plugin plugin;
void* library;
volatile bool over;
volatile bool isHeld;

void answer(const char* command, int result)
{
    char line[64];
    const int word = static_cast<int>(::strcspn(command, " "));
    const int length = ::snprintf(line, sizeof line, "done %.*s %d\n", word, command, result);
    if (::write(1, line, static_cast<size_t>(length)) != length)
        ::_exit(4);
}

[[noreturn]] void wrong(const char* what)
{
    ::fprintf(stderr, "heapchanges: wrong: %s: %s\n", what, ::dlerror());
    ::_exit(3);
}

void* churn(void* file)
{
    while (!over) {
        void* opened = ::dlopen(static_cast<char*>(file), RTLD_NOW | RTLD_LOCAL);
        const auto use = opened ? reinterpret_cast<Plugin>(::dlsym(opened, "makeBlocks")) : nullptr;
        if (!use)
            wrong("a library that is loaded over and over");
        use(3);
        ::dlclose(opened);
        ::usleep(100); // others load libraries, too
    }
    return nullptr;
}

int keepLock(dl_phdr_info*, size_t, void*)
{
    isHeld = true;
    while (isHeld)
        ::usleep(1000);
    return 1;
}

void* hold(void*)
{
    ::dl_iterate_phdr(keepLock, nullptr);
    return nullptr;
}

void makeBlocks(int count)
{
    for (int i = 0; i < count; ++i) {
        void* volatile block = ::malloc(kChildBytes);
        ::free(block);
    }
}

int enter(const char* root)
{
    char proc[4200];
    ::snprintf(proc, sizeof proc, "%s/proc", root);
    const bool entered = ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0
        && ::mount("none", root, "tmpfs", 0, nullptr) == 0 && ::mkdir(proc, 0755) == 0
        && ::mount("proc", proc, "proc", 0, nullptr) == 0 && ::chroot(root) == 0 && ::chdir("/") == 0;
    return entered ? 0 : errno;
}

void* rest(void*)
{
    while (!over)
        ::usleep(1000);
    return nullptr;
}

int statusOf(pid_t child)
{
    int status = -1;
    if (child < 0 || ::waitpid(child, &status, 0) != child)
        wrong("a child");
    return status;
}

int forked(int blocks)
{
    const pid_t child = ::fork();
    if (child != 0)
        return statusOf(child);
    for (int i = 0; i < blocks; ++i)
        ::free(::malloc(kChildBytes));
    ::_exit(0);
}

int lastingChild()
{
    const pid_t child = ::fork();
    if (child != 0)
        return child;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
        void* volatile block = ::malloc(kChildBytes);
        ::free(block);
        ::usleep(500);
    }
}

int vforked()
{
    const pid_t child = ::vfork();
    if (child != 0)
        return statusOf(child);
    ::execl("/bin/true", "true", nullptr);
    ::_exit(9);
}

int spawned()
{
    pid_t child = -1;
    char name[] = "true";
    char* const arguments[] = {name, nullptr};
    if (::posix_spawn(&child, "/bin/true", nullptr, nullptr, arguments, nullptr) != 0)
        wrong("a spawned child");
    return statusOf(child);
}

bool is(const char* line, const char* word) { return ::strncmp(line, word, ::strlen(word)) == 0; }

} // namespace

extern "C" __attribute__((visibility("default"))) void reportPlugin(Plugin function) { plugin = function; }

int main()
{
    char line[4096];
    char churned[4096];
    pthread_t thread{};
    pthread_t holder{};
    pthread_t resting{};
    bool churns = false;
    ::signal(SIGUSR1, [](int) { isHeld = false; });
    answer("begin", 0);
    while (::fgets(line, sizeof line, stdin)) {
        line[::strcspn(line, "\n")] = 0;
        const char* argument = ::strchr(line, ' ') ? ::strchr(line, ' ') + 1 : "";
        int result = 0;
        if (is(line, "load")) {
            library = ::dlopen(argument, RTLD_NOW | RTLD_LOCAL);
            if (!library)
                wrong("a library");
        } else if (is(line, "find")) {
            reportPlugin(reinterpret_cast<Plugin>(::dlsym(library, "makeBlocks")));
        } else if (is(line, "call")) {
            plugin(::atoi(argument));
        } else if (is(line, "close")) {
            result = ::dlclose(library);
        } else if (is(line, "churn")) {
            ::strcpy(churned, argument);
            churns = ::pthread_create(&thread, nullptr, churn, churned) == 0;
        } else if (is(line, "hold")) {
            result = ::pthread_create(&holder, nullptr, hold, nullptr);
            while (!isHeld)
                ::usleep(1000);
        } else if (is(line, "release")) {
            isHeld = false;
            result = ::pthread_join(holder, nullptr);
        } else if (is(line, "make")) {
            makeBlocks(::atoi(argument));
        } else if (is(line, "enter")) {
            result = enter(argument);
        } else if (is(line, "rest")) {
            result = ::pthread_create(&resting, nullptr, rest, nullptr);
        } else if (is(line, "spin")) {
            isHeld = true;
            while (isHeld) { }
        } else if (is(line, "child")) {
            result = lastingChild();
        } else if (is(line, "fork")) {
            result = forked(::atoi(argument));
        } else if (is(line, "vfork")) {
            result = vforked();
        } else if (is(line, "spawn")) {
            result = spawned();
        } else if (is(line, "exec")) {
            ::execl(argument, argument, "3", "spin", nullptr);
            wrong("an execution");
        }
        answer(line, result);
    }
    over = true;
    if (churns)
        ::pthread_join(thread, nullptr);
    if (resting)
        ::pthread_join(resting, nullptr);
    return 0;
}
