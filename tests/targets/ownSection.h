#pragma once

/// For functions whose samples a test counts. Each is alone in a section named after it, of which the linker tells both
/// ends: nothing else is taken for it, wherever a compiler puts what stands beside it.
#define OWN_SECTION(name)                                                                                              \
    extern "C" const char __start_in_##name[];                                                                         \
    extern "C" const char __stop_in_##name[];                                                                          \
    extern "C" __attribute__((noinline, section("in_" #name)))

struct CodeRange {
    const char* name;
    const void* begin;
    const void* end;
};
#define RANGE_OF(name)                                                                                                 \
    CodeRange { #name, __start_in_##name, __stop_in_##name }
