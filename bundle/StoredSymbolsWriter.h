#pragma once

#include <map>
#include <span>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "bundle/StoredSymbols.h"
#include "platform/base/ByteWriter.h"

namespace vnt {

/// Collects what a symbolizer found and makes a file of it that StoredSymbols reads. Some 150 bytes an address. One
/// thread.
class StoredSymbolsWriter {
public:
    struct ModuleName {
        std::string path; ///< as recorded
        std::string buildId;
        bool is64Bit = true;
        auto operator<=>(const ModuleName&) const = default;
    };
    struct Function {
        std::string name;
        StoredSymbols::FunctionKind kind = StoredSymbols::FunctionKind::kFunction;
        uint64_t start = 0; ///< linked address; of kFunction only
        auto operator<=>(const Function&) const = default;
    };
    struct Line {
        Function function;
        std::string file;
        uint32_t line = 0;
    };

    /// True when this address of the module needs no adding.
    [[nodiscard]] bool has(const ModuleName& module, uint64_t fileOffset, FrameRole role) const;
    /// `lines`: innermost first, the last one's function is `function`; empty when not known. What passes the format's
    /// limits is left out.
    void add(const ModuleName& module, uint64_t fileOffset, FrameRole role, const Function& function,
             std::span<const Line> lines);
    /// What the module's reader had to tell about it.
    void setRemark(const ModuleName& module, const std::string& remark);

    [[nodiscard]] size_t addressCount() const { return _addressCount; }
    [[nodiscard]] size_t moduleCount() const { return _modules.size(); }
    /// The whole file. Errors: kTooLarge when no reader would take it.
    [[nodiscard]] Result<std::vector<std::byte>> finish();

private:
    struct StoredLine {
        uint32_t function = 0;
        uint32_t file = 0;
        uint32_t line = 0;
    };
    struct StoredAddress {
        uint32_t function = 0;
        std::vector<StoredLine> lines;
    };
    struct Part {
        uint32_t remark = 0;
        std::map<Function, uint32_t> functions; // number in the order they came
        std::map<std::pair<uint64_t, FrameRole>, StoredAddress> addresses;
    };

    uint32_t string(const std::string& text);
    static uint32_t functionNumber(Part& part, const Function& function);
    void writeModule(const ModuleName& name, const Part& part, ByteWriter& out);
    static void writeAddresses(const Part& part, ByteWriter& out);

    std::vector<std::string> _strings{std::string()}; // 0 is the empty one
    std::unordered_map<std::string, uint32_t> _stringNumbers{{std::string(), 0}};
    std::map<ModuleName, Part> _modules;
    size_t _addressCount = 0;
};

} // namespace vnt
