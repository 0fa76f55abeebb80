#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vnt::test {

/// What can be asked of a SmallBundle.
struct SmallBundleOptions {
    std::vector<std::string> instruments{}; ///< identifiers; empty: all five
    std::string name = "work"; ///< of the function in the middle of stacks, and of the second thread
    bool hasRecords = true; ///< false: the instruments recorded nothing
    bool hasArchives = true;
};

/// A bundle of known content at `path`, made as the library makes bundles. One process, 42, of two threads and three
/// functions main > NAME > leaf; two seconds from 100 s on:
///   Stack Sampler   6 samples of 1 ms in leaf (thread 42), 3 in NAME and 1 in the kernel below it (43), a wait of 5 ms
///   Kernel Tracer   spans that nest, one without end, one without begin, switches, an instant with a stack
///   Heap Recorder   main: 3 blocks of 100 bytes, one freed; NAME: 1 of 5,000; a second free
///   Orphan Finder   a search that found a leak of 64 bytes and a cycle of 32
///   Process Census  three looks, a process that lived briefly
void makeSmallBundle(const std::string& path, const SmallBundleOptions& options = {});

} // namespace vnt::test
