#include "preload/followModules.h"

#include <dlfcn.h>
#include <errno.h>

#include "preload/LivePage.h"
#include "preload/raw.h"
#include "preload/redirect.h"
#include "preload/work.h"

namespace vnt {

namespace {

/// A tracer's call takes some milliseconds at most, unless it waits for what the calling thread holds.
constexpr int kTriesToBegin = 2000;

void followModules()
{
    if (journal::load(journal::live->recording) == 0 || !hasNewModules())
        return;
    for (int i = 0; journal::beginWork() == 0; ++i) {
        if (i == kTriesToBegin)
            return; // the next call looks again
        (void)raw::call(SYS_sched_yield);
    }
    if (journal::load(journal::live->recording) != 0) // else the modules have been given back meanwhile
        redirectNewModules();
    journal::endWork();
}

void* openAndFollow(const char* file, int mode)
{
    const auto open = reinterpret_cast<void* (*)(const char*, int)>(redirectedFunction("dlopen"));
    void* module = open(file, mode);
    const int error = errno;
    followModules();
    errno = error;
    return module;
}

} // namespace

/// Where a call of dlopen() goes on. As if called from here where that makes no difference to the loader.
extern "C" __attribute__((visibility("hidden"))) void* vntOpen(const char* file, int, const void* caller)
{
    const int error = errno;
    void* next = redirectedFunction("dlopen");
    if (file && journal::load(journal::live->recording) != 0 && isFoundAlike(file, caller))
        next = reinterpret_cast<void*>(openAndFollow);
    errno = error;
    return next;
}

/// Where a call of another of the loader's functions goes on. Who has loaded a module looks up what is in it.
extern "C" __attribute__((visibility("hidden"))) void* vntLookUp(const char* name)
{
    const int error = errno;
    followModules();
    errno = error;
    return redirectedFunction(name);
}

extern "C" {
extern __attribute__((visibility("hidden"))) const char vntSymbolName[], vntVersionName[], vntNamespaceName[];
const char vntSymbolName[] = "dlsym", vntVersionName[] = "dlvsym", vntNamespaceName[] = "dlmopen";
__attribute__((visibility("hidden"))) void vntEnterOpen();
__attribute__((visibility("hidden"))) void vntEnterSymbol();
__attribute__((visibility("hidden"))) void vntEnterVersion();
__attribute__((visibility("hidden"))) void vntEnterNamespace();
}

// Each asks one of the functions above where to go on, and goes there with the caller's arguments and return address.
#ifdef __x86_64__
#define VNT_ENTER(entry, load, ask)                                                                                    \
    __asm__(".pushsection .text\n.hidden " entry "\n.type " entry ",@function\n" entry ":\n"                           \
            ".cfi_startproc\n"                                                                                         \
            "push %rdi\n.cfi_adjust_cfa_offset 8\npush %rsi\n.cfi_adjust_cfa_offset 8\n"                               \
            "push %rdx\n.cfi_adjust_cfa_offset 8\n" load "call " ask "\n"                                              \
            "pop %rdx\n.cfi_adjust_cfa_offset -8\npop %rsi\n.cfi_adjust_cfa_offset -8\n"                               \
            "pop %rdi\n.cfi_adjust_cfa_offset -8\njmp *%rax\n"                                                         \
            ".cfi_endproc\n.size " entry ", . - " entry "\n.popsection\n")
#define VNT_CALLER "mov 24(%rsp), %rdx\n"
#define VNT_NAME(name) "lea " name "(%rip), %rdi\n"
#else
// Arguments and return address stay where they are; copies go below, on a stack aligned for a call.
#define VNT_ENTER(entry, load, ask)                                                                                    \
    __asm__(".pushsection .text\n.hidden " entry "\n.type " entry ",@function\n" entry ":\n"                           \
            ".cfi_startproc\n" load "call " ask "\n"                                                                   \
            "add $12, %esp\n.cfi_adjust_cfa_offset -12\njmp *%eax\n"                                                   \
            ".cfi_endproc\n.size " entry ", . - " entry "\n.popsection\n")
#define VNT_CALLER                                                                                                     \
    "push (%esp)\n.cfi_adjust_cfa_offset 4\npush 12(%esp)\n.cfi_adjust_cfa_offset 4\n"                                 \
    "push 12(%esp)\n.cfi_adjust_cfa_offset 4\n"
#define VNT_NAME(name)                                                                                                 \
    "sub $8, %esp\n.cfi_adjust_cfa_offset 8\ncall 1f\n1: pop %eax\nadd $" name " - 1b, %eax\n"                         \
    "push %eax\n.cfi_adjust_cfa_offset 4\n"
#endif

VNT_ENTER("vntEnterOpen", VNT_CALLER, "vntOpen");
VNT_ENTER("vntEnterSymbol", VNT_NAME("vntSymbolName"), "vntLookUp");
VNT_ENTER("vntEnterVersion", VNT_NAME("vntVersionName"), "vntLookUp");
VNT_ENTER("vntEnterNamespace", VNT_NAME("vntNamespaceName"), "vntLookUp");

const LoaderFunction kLoaderFunctions[4] = {
    {"dlopen", vntEnterOpen},
    {"dlsym", vntEnterSymbol},
    {"dlvsym", vntEnterVersion},
    {"dlmopen", vntEnterNamespace},
};

} // namespace vnt
