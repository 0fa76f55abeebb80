#pragma once

/// Where the target's modules define a function. dlsym(3) would leave its failures for the target's own dlerror(3), and
/// does not see libraries that were loaded for one module only.
namespace vnt {

struct Definition {
    void* function = nullptr;
    const char* file = nullptr; ///< of the module, as the loader has it
    bool stays = false; ///< the module is never unloaded
};

/// The first module that defines it, in the order they were loaded: behind this library, or, where this library came
/// late, of all others. Takes the loader's lock of its list; no allocation. About a microsecond for ten modules.
Definition findDefinition(const char* name);

} // namespace vnt
