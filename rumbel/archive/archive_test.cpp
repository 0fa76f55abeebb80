#include "rumbel/archive/archive.h"

#include <gtest/gtest.h>
#include <link.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "bundle/ElfFile.h"
#include "bundle/TestBundle.h"
#include "rumbel/report/report.h"

namespace vnt {
namespace {

using test::kSecondNs;

constexpr uint64_t kStart = 100 * kSecondNs;
constexpr uint64_t kBias = 0x550000000000;

/// Samples of a copy of this test program, which has source lines unless it was built without.
struct ArchiveTest : testing::Test {
    std::string directory = test::freshDirectory("archive");
    std::string program = directory + "/program";
    std::string bundle = directory + "/run.vnt";

    void SetUp() override
    {
        std::filesystem::copy_file(sys::executablePath().take(), program);
        auto file = ElfFile::open(program);
        ASSERT_TRUE(file.ok());
        std::vector<Ref<Object>> images;
        LoadMap::Segment code;
        for (const auto& segment : file.value().loadMap().segments) {
            if (segment.executable)
                code = segment;
        }
        images.push_back(test::image(kBias + code.address, code.size, code.offset, program, file.value().buildId()));
        const auto signatures =
            test::signaturesOf({{42, test::processSignature(42, "program", images)}, {0, test::kernelSignature()}});
        stacks::StackRecordWriter writer(stacks::SessionRecord{1'000'000, 3, 0});
        writer.addThread(0, {42, 42, 0, "program"});
        for (uint64_t i = 0; i < 300; ++i) { // everywhere in the code, so functions, inlined ones and gaps
            const uint64_t outer = kBias + code.address + code.size / 300 * i;
            const uint64_t inner = kBias + code.address + (code.size - 1) / 299 * (299 - i);
            const uint32_t caller = writer.addNode(0, 0, outer);
            writer.addSample(kStart + i, 0, writer.addNode(caller, outer, inner));
        }
        test::StreamText messages;
        messages.addFrom(writer);
        test::writeBundle(bundle, test::archiveOf(signatures.get(), 42, messages.messages()), messages.text());
    }

    static std::string reportOf(const std::string& path, ReportOptions::By by)
    {
        std::string whole;
        for (const bool json : {false, true}) {
            ReportOptions options;
            options.bundlePath = path;
            options.by = by;
            options.json = json;
            options.tree = true;
            options.top = 0;
            options.minPercent = 0;
            std::ostringstream out;
            std::ostringstream err;
            EXPECT_EQ(runReport(options, out, err), 0) << err.str();
            whole += out.str() + err.str();
        }
        return whole;
    }
    static std::string reportOf(const std::string& path)
    {
        return reportOf(path, ReportOptions::By::kFunction) + reportOf(path, ReportOptions::By::kLine)
            + reportOf(path, ReportOptions::By::kModule);
    }
    static int archive(const std::string& path, const std::string& output, std::string* errors = nullptr)
    {
        ArchiveOptions options;
        options.bundlePath = path;
        options.output = output;
        std::ostringstream out;
        std::ostringstream err;
        const int status = runArchive(options, out, err);
        if (errors)
            *errors = err.str();
        else
            EXPECT_EQ(err.str(), "");
        return status;
    }
};

TEST_F(ArchiveTest, AnArchivedBundleReadsTheSameWithoutTheProgram)
{
    const std::string before = reportOf(bundle);
    EXPECT_NE(before.find("ArchiveTest"), std::string::npos) << "this program's own functions";
    ASSERT_EQ(archive(bundle, ""), 0);
    ASSERT_EQ(::unlink(program.c_str()), 0);
    EXPECT_EQ(reportOf(bundle), before);
    // Archived again, here where nothing is left: the same file.
    const std::string stored = sys::readFile(bundle + "/quillon.vnt.symbols", 64u << 20).take();
    ASSERT_EQ(archive(bundle, ""), 0);
    EXPECT_EQ(reportOf(bundle), before);
    EXPECT_EQ(sys::readFile(bundle + "/quillon.vnt.symbols", 64u << 20).take().size(), stored.size());
    // Without the file the names are gone.
    ASSERT_EQ(::unlink((bundle + "/quillon.vnt.symbols").c_str()), 0);
    EXPECT_NE(reportOf(bundle), before);
}

TEST_F(ArchiveTest, ACopyLeavesTheBundleAsItIs)
{
    const std::string copy = directory + "/copy.vnt";
    ASSERT_EQ(archive(bundle, copy), 0);
    EXPECT_FALSE(std::filesystem::exists(bundle + "/quillon.vnt.symbols"));
    const std::string before = reportOf(bundle);
    ASSERT_EQ(::unlink(program.c_str()), 0);
    std::string inCopy = reportOf(copy);
    for (size_t at = inCopy.find(copy); at != std::string::npos; at = inCopy.find(copy))
        inCopy.replace(at, copy.size(), bundle);
    EXPECT_EQ(inCopy, before);
    std::string errors;
    EXPECT_EQ(archive(bundle, copy, &errors), 1);
    EXPECT_NE(errors.find(copy + ": cannot be created: File exists"), std::string::npos) << errors;
    EXPECT_EQ(archive(directory + "/absent.vnt", "", &errors), 1);
}

TEST_F(ArchiveTest, DamagedSymbolsAreToldAndNotUsed)
{
    ASSERT_EQ(archive(bundle, ""), 0);
    const std::string path = bundle + "/quillon.vnt.symbols";
    std::string stored = sys::readFile(path, 64u << 20).take();
    stored[stored.size() / 2] = static_cast<char>(stored[stored.size() / 2] ^ 1);
    test::writeText(path, stored);
    EXPECT_NE(reportOf(bundle).find("the stored symbols are damaged; they are not used"), std::string::npos);
}

} // namespace
} // namespace vnt
