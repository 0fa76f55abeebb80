#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/foundation/Collections.h"

namespace vnt {

/// One executable mapping of a signature, or the exec that ended those before it.
struct SignatureImage {
    uint64_t start = 0;
    uint64_t sizeBytes = 0;
    uint64_t fileOffset = 0;
    uint64_t timeNs = 0; ///< CLOCK_MONOTONIC; 0: from the start
    bool exec = false; ///< a new address space began at timeNs; nothing else is set
    std::string_view path;
    std::string_view buildId; ///< lower-case hexadecimal, or empty
};

/// Builds the property-list form of one process's signature (keys: records/Signature.h). One thread.
class SignatureEncoder {
public:
    /// An empty `executable` is left out.
    SignatureEncoder(pid_t pid, std::string_view name, std::string_view executable, bool is64Bit);
    /// In the order in which they came.
    void addImage(const SignatureImage& image);
    /// A further entry of the signature's dictionary.
    void set(std::string_view key, Ref<Object> value) { _encoded->set(key, std::move(value)); }
    /// Call once, last.
    [[nodiscard]] Ref<Dictionary> take();

private:
    Ref<MutableDictionary> _encoded;
    Ref<MutableArray> _images;
};

} // namespace vnt
