// The nine commands on a small image, stopped at every poll of their worker and refused every
// working allocation in turn: each fault must end the run by its rules (result, code, text, the
// files removed or kept) and leave the run's inputs as they were.
#include "AlgoHarness.h"
#include "TestSupport.h"
#include "frame/PCARecords.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>

using namespace tavtest;

namespace {

enum Rule { None, Gone, Kept, Any, Same }; // None: the command has no such file; Same: an input, unchanged

struct Command {
    const char* name;
    boost::any (*record)(const TempDir& d);
    const char* statsFile; // "" without one
    Rule outOnCancel, statsOnCancel, outOnRefusal, statsOnRefusal;
    std::vector<std::string> refusalTexts;
};

const char* const kNoMemory = "Apply memory Fail!";
stTransInfo Trans(const TempDir& d, int type, bool forward, const char* in, const char* stats = "")
{
    stTransInfo info = TransRecord(type, forward, d.file(in), d.file("out.tif"));
    info.strStatFile = d.qfile(stats);
    info.nSensorType = 1;  // 4 bands, 4 components
    info.vecBands = {1, 3};
    info.nOutDataType = 5; // Float32
    return info;
}

// A Byte output of centred components needs the input's range: that read allocates too.
stForwardPCAInfo ForwardPca(const TempDir& d, const char* stats, int outType)
{
    stForwardPCAInfo info;
    info.strInputFile = d.qfile("in.tif");
    info.strStatFile = d.qfile(stats);
    info.strOutputFile = d.qfile("out.tif");
    info.strFormat = "GTiff";
    info.nOutDataType = outType;
    info.bSubtractMean = true;
    info.nComponents = 4; // all bands; 0 would ask for an earlier run's statistics
    return info;
}

const Command kCommands[] = {
    {"kt", [](const TempDir& d) -> boost::any { return Trans(d, 4, true, "in.tif"); }, "", Gone, None, Kept, None,
     {kNoMemory}},
    {"pca", [](const TempDir& d) -> boost::any { return ForwardPca(d, "out.sta", 0); }, "out.sta", Gone, Gone, Any,
     Any, {kNoMemory, "The statistics file could not be created!"}},
    {"pca-inverse",
     [](const TempDir& d) -> boost::any {
         return stInversePCAInfo{d.qfile("pca.tif"), d.qfile("pca.sta"), d.qfile("out.tif"), "GTiff", 5};
     },
     "pca.sta", Gone, Same, Any, Same, {kNoMemory}},
    {"mnf", [](const TempDir& d) -> boost::any { return Trans(d, 1, true, "in.tif", "out.sta"); }, "out.sta", Gone,
     Gone, Gone, Gone, {kNoMemory}},
    // A failed inverse removes the statistics file it read, as every failed run of this transform does.
    {"mnf-inverse", [](const TempDir& d) -> boost::any { return Trans(d, 1, false, "mnf.tif", "mnf.sta"); },
     "mnf.sta", Gone, Gone, Gone, Gone, {kNoMemory, "The band count of the Stats file is too large!"}},
    // A kernel that runs short of scratch fails without a text of its own.
    {"fft", [](const TempDir& d) -> boost::any { return Trans(d, 2, true, "in.tif"); }, "", Gone, None, Gone, None,
     {kNoMemory, ""}},
    {"fft-inverse", [](const TempDir& d) -> boost::any { return Trans(d, 2, false, "fft.tif"); }, "", Gone, None, Gone,
     None, {kNoMemory, ""}},
    {"dwt", [](const TempDir& d) -> boost::any { return Trans(d, 3, true, "in.tif"); }, "", Gone, None, Gone, None,
     {kNoMemory}},
    {"dwt-inverse", [](const TempDir& d) -> boost::any { return Trans(d, 3, false, "dwt.tif"); }, "", Gone, None, Gone,
     None, {kNoMemory}},
};

void PrintTo(const Command& c, std::ostream* os) { *os << c.name; }

class Faults : public ::testing::TestWithParam<Command> {
protected:
    // The input and, for the inverses, a forward run's raster and statistics file, made once.
    static void SetUpTestSuite()
    {
        s_dir = std::make_unique<TempDir>();
        const TempDir& d = *s_dir;
        WriteRaster(d.file("in.tif"), Shape(8, 6, 4, GDT_Byte), RandomPixels({GDT_Byte, 0, 256}, 15));
        const auto forward = [&](const boost::any& record, const char* out, const char* stats = nullptr) {
            AlgoHarness h;
            ASSERT_TRUE(h.Run(record)) << out << ": " << h.Text().toStdString();
            std::rename(d.file("out.tif").c_str(), d.file(out).c_str());
            if (stats)
                std::rename(d.file("out.sta").c_str(), d.file(stats).c_str());
        };
        forward(ForwardPca(d, "out.sta", 5), "pca.tif", "pca.sta");
        forward(Trans(d, 1, true, "in.tif", "out.sta"), "mnf.tif", "mnf.sta");
        forward(Trans(d, 2, true, "in.tif"), "fft.tif");
        forward(Trans(d, 3, true, "in.tif"), "dwt.tif");
        for (const char* f : {"in.tif", "pca.tif", "pca.sta", "mnf.tif", "mnf.sta", "fft.tif", "dwt.tif"})
            s_saved.emplace_back(d.file(f), ReadFile(d.file(f)));
    }
    static void TearDownTestSuite() { s_dir.reset(); }

    struct Outcome {
        bool ok;
        int code;
        std::string text;
        double lastReport;
        long long seen; // polls or allocations the run made
    };

    // One run with the k-th poll raising the flag (or the k-th allocation refused); 0 for none.
    static Outcome Run(const Command& c, bool refuse, long long k)
    {
        for (const auto& [path, bytes] : s_saved)
            WriteText(path, bytes);
        for (const char* f : {"out.tif", "out.sta"})
            std::remove(s_dir->file(f).c_str());
        AlgoHarness h;
        std::atomic<long long> seen{0};
        if (refuse)
            AllocationSeam() = [&](std::size_t) { return ++seen != k; };
        else
            h.algo().Context().SetPollHook([&] {
                if (++seen == k)
                    h.algo().Terminate();
            });
        const bool ok = h.Run(c.record(*s_dir));
        AllocationSeam() = nullptr;
        return {ok, h.Code(), h.Text().toStdString(), h.Percents().empty() ? -1 : h.Percents().back(), seen};
    }

    static void Expect(Rule rule, const std::string& name, const std::string& where)
    {
        const std::string path = s_dir->file(name);
        // An input's bytes are compared with every other input's.
        if (rule == Gone || rule == None) {
            EXPECT_FALSE(Exists(path)) << name << " left " << where;
        } else if (rule == Kept || rule == Same) {
            EXPECT_TRUE(Exists(path)) << name << " removed " << where;
        }
    }

    // Fault points 1, 2, ... until one the run no longer reaches; it must then succeed.
    static long long EveryPoint(const Command& c, bool refuse)
    {
        for (long long k = 1;; ++k) {
            const Outcome o = Run(c, refuse, k);
            const std::string where = std::string(refuse ? "refusing allocation " : "cancelling at poll ") +
                                      std::to_string(k);
            if (o.seen < k) {
                EXPECT_TRUE(o.ok && o.code == 0 && Exists(s_dir->file("out.tif"))) << where;
                return k - 1;
            }
            EXPECT_FALSE(o.ok) << where;
            EXPECT_EQ(o.lastReport, 100) << where;
            if (refuse) {
                EXPECT_EQ(o.code, 1) << where;
                EXPECT_NE(std::find(c.refusalTexts.begin(), c.refusalTexts.end(), o.text), c.refusalTexts.end())
                    << where << ": " << o.text;
            } else {
                EXPECT_EQ(std::make_tuple(o.code, o.text, o.seen), std::make_tuple(-1010, std::string(), k))
                    << where << ": the run stops at the poll that sees the flag";
            }
            Expect(refuse ? c.outOnRefusal : c.outOnCancel, "out.tif", where);
            Expect(refuse ? c.statsOnRefusal : c.statsOnCancel, *c.statsFile ? c.statsFile : "out.sta", where);
            for (const auto& [path, bytes] : s_saved)
                EXPECT_TRUE(path == s_dir->file(c.statsFile) || ReadFile(path) == bytes) << path << " changed " << where;
            Expect(None, "out_temp.tif", where);
            if (::testing::Test::HasFailure() || k > 2000)
                return k;
        }
    }

    static inline std::unique_ptr<TempDir> s_dir;
    static inline std::vector<std::pair<std::string, std::string>> s_saved;
};

TEST_P(Faults, EveryPollAndEveryAllocationEndsTheRunByItsRules)
{
    const long long polls = EveryPoint(GetParam(), false);
    const long long allocations = EveryPoint(GetParam(), true);
    EXPECT_GT(polls * allocations, 0) << "the run neither polls nor allocates";
    RecordProperty("cases", static_cast<int>(polls + allocations));
    std::printf("%s: %lld cancel points, %lld allocation points\n", GetParam().name, polls, allocations);
}

INSTANTIATE_TEST_SUITE_P(Commands, Faults, ::testing::ValuesIn(kCommands),
                         [](const auto& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

} // namespace
