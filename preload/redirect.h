#pragma once

#include <stdint.h>

/// How calls reach this library in a process that ran before it was loaded: the places in the loaded modules through
/// which they call the allocator are changed. What a module keeps in variables of its own is not known and stays.
namespace vnt {

/// The address is within this library.
bool isOwnCode(const void* address);

struct Redirected {
    uint32_t places = 0; ///< that lead here now
    uint32_t refused = 0; ///< that could not be changed
};

/// Whether redirectModules() also changes the places of functions that count references. Not at first.
void redirectCounting(bool wanted);
/// Every module that is loaded now; those done before are left as they are. Takes the loader's lock of its list; no
/// allocation. Not from more than one thread at a time.
Redirected redirectModules();
/// The same again for those that were loaded since, without what may wait for a module's constructors.
void redirectNewModules();
/// Some were loaded since.
bool hasNewModules();
/// Whether the loader finds `file` (dlopen(3)) for this library by the same ways as for the code at `caller`.
bool isFoundAlike(const char* file, const void* caller);
/// Every place gets back what it led to.
void restoreModules();
/// What the places of that symbol led to before; null when none was changed.
void* redirectedFunction(const char* name);

} // namespace vnt
