#pragma once

/// The functions that count references to objects: GObject's, and those of our own library's objects.
namespace vnt {

/// When the library is loaded: finds the real ones while no other thread runs. Those of libraries that are loaded later
/// are found when they are called first.
void findCountingFunctions();
/// The name is that of one.
bool isCountingFunction(const char* name);

} // namespace vnt
