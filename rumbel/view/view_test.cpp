#include "rumbel/view/view.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <zlib.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>

#include "rumbel/view/CallTree.h"
#include "rumbel/view/LevelCurve.h"
#include "rumbel/view/PageFunctions.h"
#include "rumbel/view/TestRecording.h"
#include "rumbel/view/TimeGrid.h"

namespace vnt {
namespace {

using Json = nlohmann::json;
using testing::ElementsAre;

struct Outcome {
    int status = 0;
    std::string out;
    std::string err;
};

Outcome view(const ViewOptions& options)
{
    std::ostringstream out;
    std::ostringstream err;
    const int status = runView(options, out, err, false);
    return {status, out.str(), err.str()};
}

std::string fromBase64(std::string_view text)
{
    static constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    uint32_t bits = 0;
    int count = 0;
    for (const char digit : text) {
        if (digit == '=')
            break;
        bits = bits << 6 | static_cast<uint32_t>(kDigits.find(digit));
        count += 6;
        if (count >= 8)
            bytes += static_cast<char>(bits >> (count -= 8) & 0xff);
    }
    return bytes;
}

/// What a browser reads out of a page.
struct ReadPage {
    Json json;
    std::string columns;

    explicit ReadPage(const std::string& page)
    {
        const std::string_view mark = "id=\"vnt-data\">";
        const size_t begin = page.find(mark) + mark.size();
        const std::string packed = fromBase64(std::string_view(page).substr(begin, page.find('<', begin) - begin));
        std::string bytes(size_t{16} << 20, '\0');
        uLongf size = bytes.size();
        EXPECT_EQ(::uncompress(reinterpret_cast<Bytef*>(bytes.data()), &size,
                               reinterpret_cast<const Bytef*>(packed.data()), packed.size()),
                  Z_OK);
        uint32_t length = 0;
        std::memcpy(&length, bytes.data(), sizeof length);
        json = Json::parse(bytes.substr(4, length));
        columns = bytes.substr((length + 4 + 7) / 8 * 8, size);
    }

    [[nodiscard]] std::vector<double> column(const Json& number) const
    {
        const Json& about = json.at("columns").at(number.get<size_t>());
        const size_t width = about.at(1);
        std::vector<double> values;
        double sum = 0;
        for (size_t i = 0; i < about.at(2).get<size_t>(); ++i) {
            const char* place = columns.data() + about.at(0).get<size_t>() + i * width;
            uint64_t bits = 0;
            std::memcpy(&bits, place, width);
            double value = static_cast<double>(bits);
            if (width == 8)
                std::memcpy(&value, place, width);
            if (about.at(3) == 1) {
                sum += bits % 2 == 0 ? value / 2 : -(value + 1) / 2;
                value = sum;
            }
            values.push_back(value);
        }
        return values;
    }
    [[nodiscard]] double sum(const Json& number) const
    {
        double all = 0;
        for (const double value : column(number))
            all += value;
        return all;
    }
};

std::string contentOf(const std::string& path) { return sys::readFile(path, size_t{64} << 20).value(); }

struct ViewTest : testing::Test {
    std::string directory = test::freshDirectory("view");
    test::TestRecording recording{directory};
    ViewOptions options{recording.path(), directory + "/page.html", false};
};

TEST_F(ViewTest, ThePageHoldsWhatWasRecorded)
{
    const Outcome outcome = view(options);
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, options.output + "\n");
    struct stat status { };
    ASSERT_EQ(::stat(options.output.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u); // names of the user's programs
    const ReadPage page(contentOf(options.output));
    const Json& json = page.json;
    EXPECT_EQ(json.at("fromNs"), 0);
    EXPECT_EQ(json.at("untilNs"), 2 * test::kSecondNs);

    const Json& samples = json.at("stacks").at("grid").at("values");
    EXPECT_EQ(page.sum(samples.at(0)), 900);
    EXPECT_EQ(page.sum(samples.at(1)), 1.5e9);
    const Json& heap = json.at("heap").at("grid").at("values");
    const double expected[] = {100, 100'000, 75, 75'000, 25, 25'000};
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_EQ(page.sum(heap.at(i)), expected[i]) << i;
    const auto levels = page.column(json.at("heap").at("curve").at("last"));
    EXPECT_EQ(levels.back(), 25'000);

    const Json& rows = json.at("trace").at("rows");
    EXPECT_EQ(rows.at("seen"), 52); // calls with their ends, one time off the processor, one other
    EXPECT_THAT(
        rows.at("texts").get<std::vector<std::string>>(),
        testing::IsSupersetOf({"(fd=3, buf=0x7fff00001234) = 5", "(fd=3, buf=0x7fff00001234) = EAGAIN", "waits"}));
    EXPECT_EQ(page.sum(json.at("trace").at("off").at("values").at(1)), 700e6);
    const auto durations = page.column(rows.at("duration"));
    EXPECT_EQ(durations.front(), 1'000'001); // one more than the nanoseconds

    const Json& leaks = json.at("orphans").at("leaks");
    EXPECT_THAT(page.column(leaks.at("holder")), ElementsAre(0, 1, 2, 0));
    EXPECT_EQ(page.sum(leaks.at("size")), 187);

    const Json& processes = json.at("census").at("processes");
    ASSERT_EQ(processes.size(), 2u);
    EXPECT_EQ(processes.at(0).at("cpuNs"), 1'000'000'000);
    EXPECT_THAT(page.column(processes.at(0).at("cpuCurve")), testing::SizeIs(11));
    EXPECT_EQ(processes.at(1).at("end"), "signal 9");
    bool toldLoss = false;
    for (const Json& fact : json.at("instruments").at(0).at("facts"))
        toldLoss = toldLoss || (fact.at("text") == "7 samples (0.77 %)" && fact.value("loss", false));
    EXPECT_TRUE(toldLoss) << json.at("instruments").at(0);
}

TEST_F(ViewTest, NamesOfARecordingCannotLeaveTheirPlace)
{
    ASSERT_EQ(view(options).status, 0);
    const std::string text = contentOf(options.output);
    EXPECT_EQ(text.find("alert("), std::string::npos); // packed and in base64, where no name can end the element
    const ReadPage page(text);
    const Json& names = page.json.at("functions").at("names");
    bool sawHuge = false;
    for (const Json& name : names) {
        const auto& one = name.get_ref<const std::string&>();
        EXPECT_LE(one.size(), view::PageFunctions::kMaxNameBytes + 3);
        EXPECT_EQ(one.find('\x1b'), std::string::npos);
        sawHuge = sawHuge || one.starts_with("hugezzz");
    }
    EXPECT_TRUE(sawHuge);
}

TEST_F(ViewTest, ErrorsNameWhatIsWrongAndLeaveThePageAlone)
{
    test::writeText(options.output, "before");
    const std::string hollow = test::freshDirectory("view/hollow.vnt");
    test::writeText(hollow + "/quillon.vnt.stacksampler", "nonsense");
    const struct {
        const char* what;
        ViewOptions options;
        std::string err;
    } rows[] = {
        {"absent", {directory + "/absent.vnt", options.output, false}, "No such file or directory\n"},
        {"nothing readable", {hollow, options.output, false}, "nothing in the bundle could be read\n"},
        {"no place for the page",
         {options.bundlePath, directory + "/no/page.html", false},
         "No such file or directory\n"},
    };
    for (const auto& row : rows) {
        const Outcome outcome = view(row.options);
        EXPECT_EQ(outcome.status, 1) << row.what;
        EXPECT_EQ(outcome.out, "") << row.what;
        EXPECT_TRUE(outcome.err.ends_with(row.err)) << row.what << ": " << outcome.err;
    }
    EXPECT_EQ(contentOf(options.output), "before");
}

TEST_F(ViewTest, ABundleCutAnywhereIsShownAsFarAsItGoes)
{
    for (const InstrumentKind& kind : kInstrumentKinds) {
        const std::string stream = recording.path() + "/" + std::string(kind.identifier) + ".messagequeue";
        struct stat status { };
        if (::stat(stream.c_str(), &status) != 0)
            continue;
        const std::string whole = contentOf(stream);
        const size_t step = std::max<size_t>(1, whole.size() / 40);
        for (size_t size = 0; size < whole.size(); size += step) {
            test::writeText(stream, whole.substr(0, size));
            ASSERT_EQ(view(options).status, 0) << kind.identifier << " cut at " << size;
            const ReadPage page(contentOf(options.output));
            EXPECT_FALSE(page.json.at("remarks").empty()) << kind.identifier << " cut at " << size;
        }
        for (size_t at = 0; at < whole.size(); at += step) {
            std::string damaged = whole;
            damaged[at] = static_cast<char>(damaged[at] ^ 0x41);
            test::writeText(stream, damaged);
            ASSERT_EQ(view(options).status, 0) << kind.identifier << " flipped at " << at;
        }
        test::writeText(stream, whole);
    }
}

TEST(TimeGrid, StaysWithinItsBoundAndLosesNothing)
{
    view::TimeGrid<2> grid(0, 100);
    uint64_t sum = 0;
    for (uint32_t i = 0; i < 10'000; ++i) {
        const uint64_t timeNs = uint64_t{i} * 1'000'000;
        grid.addSpan(timeNs, timeNs + (i % 7) * 3'000'000, i % 3, i % 5, {1, i});
        sum += i;
    }
    view::PageColumns columns;
    (void)grid.json(columns);
    EXPECT_LE(grid.cellCount(), 100u);
    EXPECT_GT(grid.sliceNs(), uint64_t{1} << view::TimeGrid<2>::kFinestBits);
    EXPECT_THAT(grid.weights(5, 0), ElementsAre(2000, 2000, 2000, 2000, 2000));
    const auto weights = grid.weights(5, 1);
    EXPECT_EQ(std::accumulate(weights.begin(), weights.end(), uint64_t{0}), sum);
}

TEST(CallTree, LightPathsEndAtTheirCallers)
{
    view::CallTree tree;
    const uint32_t main = tree.child(0, 1);
    const uint32_t hot = tree.child(main, 2);
    const uint32_t cold = tree.child(main, 3);
    const uint32_t colder = tree.child(cold, 4);
    const uint32_t hotter = tree.child(hot, 5);
    EXPECT_EQ(tree.child(main, 2), hot);
    const std::vector<uint64_t> weights{0, 1, 10, 2, 1, 50};
    const auto numbers = tree.prune(weights, 4);
    EXPECT_EQ(tree.count(), 4u);
    EXPECT_EQ(tree.pruned(), 2u);
    EXPECT_EQ(numbers[cold], numbers[main]);
    EXPECT_EQ(numbers[colder], numbers[main]);
    EXPECT_EQ(tree.function(numbers[hotter]), 5u);
    EXPECT_EQ(tree.caller(numbers[hotter]), numbers[hot]);
}

TEST(LevelCurve, KeepsPeaksWhateverItsLength)
{
    view::LevelCurve curve(0);
    for (uint64_t i = 0; i < 200'000; ++i)
        curve.add(i * 100'000, i == 77'777 ? 1'000'000 : i % 10);
    curve.add(5, 3); // a step back in time
    view::PageColumns columns;
    const auto json = curve.json(columns);
    const auto about = columns.descriptions();
    EXPECT_LE(about.at(json.at("slice").get<size_t>()).at(2), view::LevelCurve::kMaxPoints);
    EXPECT_EQ(about.at(json.at("highest").get<size_t>()).at(1), 4); // bytes of a value: the peak needs them
    EXPECT_EQ(about.at(json.at("last").get<size_t>()).at(1), 1);
}

} // namespace
} // namespace vnt
