#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "bundle/Instruments.h"
#include "platform/base/sys.h"
#include "rumbel/report/report.h"
#include "tests/exports/SmallBundle.h"

namespace vnt::test {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const std::string& path)
{
    auto text = sys::readFile(path, size_t{16} << 20);
    EXPECT_TRUE(text.ok()) << text.status().message();
    return text.ok() ? text.take() : std::string();
}

/// Damage to the two files that an instrument has in a bundle, and to the table of symbols.
class Damage : public testing::TestWithParam<std::string_view> {
protected:
    void SetUp() override
    {
        _path = sys::environmentOr("TMPDIR", "/tmp") + "/damaged.vnt";
        makeSmallBundle(_path, {.instruments = {std::string(GetParam())}});
    }

    void put(const std::string& file, const std::string& text)
    {
        ASSERT_TRUE(sys::writeFileAtomically(file, std::as_bytes(std::span(text)), 0600).ok());
    }
    /// True when the report says that something is wrong. It must be one in any case.
    bool isTold(bool json)
    {
        ReportOptions options;
        options.bundlePath = _path;
        options.json = json;
        options.tree = !json;
        std::ostringstream out, err;
        EXPECT_EQ(runReport(options, out, err), 0) << err.str();
        if (!json)
            return !err.str().empty();
        const auto parsed = nlohmann::json::parse(out.str(), nullptr, /*allow_exceptions=*/false);
        EXPECT_TRUE(parsed.is_object()) << out.str();
        return !err.str().empty() || !parsed.value("remarks", nlohmann::json::array()).empty();
    }

    std::string _path;
};

TEST_P(Damage, ABundleCutAnywhereIsReadAsFarAsItGoes)
{
    EXPECT_FALSE(isTold(true));
    size_t cuts = 0;
    for (const char* ending : {"", ".messagequeue"}) {
        const std::string file = _path + "/" + std::string(GetParam()) + ending;
        const std::string whole = contentOf(file);
        for (size_t size = 0; size < whole.size(); ++size, ++cuts) {
            put(file, whole.substr(0, size));
            ASSERT_TRUE(isTold(size % 2 == 0)) << file << " cut at " << size << " of " << whole.size();
        }
        put(file, whole);
    }
    EXPECT_GT(cuts, 500u);
}

TEST_P(Damage, AChangedByteIsToldOrHarmless)
{
    for (const char* ending : {"", ".messagequeue"}) {
        const std::string file = _path + "/" + std::string(GetParam()) + ending;
        const std::string whole = contentOf(file);
        for (size_t at = 0; at < whole.size(); ++at) {
            std::string damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ (1 << at % 8));
            put(file, damaged);
            const bool told = isTold(at % 2 == 0);
            // Of the stream every byte is checked but the reserved ones of its header.
            EXPECT_TRUE(told || *ending == 0 || at < 16) << file << " changed at " << at;
        }
        put(file, whole);
    }
}

INSTANTIATE_TEST_SUITE_P(Bundle, Damage,
                         testing::Values(kStackSamplerId, kKernelTracerId, kHeapRecorderId, kOrphanFinderId,
                                         kProcessCensusId),
                         [](const auto& row) { return std::string(row.param.substr(row.param.rfind('.') + 1)); });

} // namespace
} // namespace vnt::test
