#pragma once

/// Modules that an attached target loads while it is recorded call the journal, too: the places through which the
/// modules call the loader are changed as those for the allocator are. A loaded module's constructors have run by then.
namespace vnt {

struct LoaderFunction {
    const char* name;
    void (*own)();
};
/// What stands in front of the loader's functions. The loader has to see who calls it: all but the harmless cases are
/// passed on by a jump.
extern const LoaderFunction kLoaderFunctions[4];

} // namespace vnt
