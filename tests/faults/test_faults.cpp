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

const char* const kNoMemory = "Apply memory Fail!";

// `rules`: the output, then the statistics file, after a cancel and then after a refusal:
// 'G' gone, 'K' kept, 'S' kept unchanged, '.' either way or no such file.
struct Command {
    const char* name;
    int type; // nTransType; 0 for the principal components
    bool forward;
    const char *input, *stats, *rules, *otherText; // otherText: what else a refusal may report
};
void PrintTo(const Command& c, std::ostream* os) { *os << c.name; }

// Each inverse follows the forward run that makes its input.
const Command kCommands[] = {
    {"kt", 4, true, "in.tif", "", "G.K.", kNoMemory},
    {"pca", 0, true, "in.tif", "out.sta", "GG..", ""},
    {"pca_inverse", 0, false, "pca.tif", "pca.sta", "GS.S", ""},
    {"mnf", 1, true, "in.tif", "out.sta", "GGGG", kNoMemory},
    // A failed inverse removes the statistics file it read, as every failed run of this transform does.
    {"mnf_inverse", 1, false, "mnf.tif", "mnf.sta", "GGGG", "The band count of the Stats file is too large!"},
    // A kernel short of scratch fails without a text of its own.
    {"fft", 2, true, "in.tif", "", "G.G.", ""},
    {"fft_inverse", 2, false, "fft.tif", "", "G.G.", ""},
    {"dwt", 3, true, "in.tif", "", "G.G.", kNoMemory},
    {"dwt_inverse", 3, false, "dwt.tif", "", "G.G.", kNoMemory},
};

boost::any Record(const TempDir& d, const Command& c)
{
    if (c.type == 0 && !c.forward)
        return stInversePCAInfo{d.qfile(c.input), d.qfile(c.stats), d.qfile("out.tif"), "GTiff", 5};
    // Centred components into Byte: values beyond the type make the run read the input's range.
    if (c.type == 0)
        return stForwardPCAInfo{d.qfile(c.input), d.qfile(c.stats), d.qfile("out.tif"), "GTiff", 0, true, 4, true,
                                false, {}, {}, {}};
    stTransInfo info = TransRecord(c.type, c.forward, d.file(c.input), d.file("out.tif"));
    info.strStatFile = d.qfile(c.stats);
    info.nSensorType = 1; // 4 bands, 4 components
    info.vecBands = {1, 3};
    info.nOutDataType = 5;
    return info;
}

class Faults : public ::testing::TestWithParam<Command> {
protected:
    static void SetUpTestSuite()
    {
        WriteRaster(s_dir.file("in.tif"), Shape(8, 6, 4, GDT_Byte), RandomPixels({GDT_Byte, 0, 256}, 15));
        s_saved = {{"in.tif", ReadFile(s_dir.file("in.tif"))}};
        for (std::size_t i = 1; i < std::size(kCommands); ++i)
            if (const Command& c = kCommands[i]; !c.forward) {
                ASSERT_TRUE(AlgoHarness().Run(Record(s_dir, kCommands[i - 1]))) << c.name;
                for (auto [from, to] : {std::pair{"out.tif", c.input}, std::pair{"out.sta", c.stats}})
                    if (*to && !std::rename(s_dir.file(from).c_str(), s_dir.file(to).c_str()))
                        s_saved.emplace_back(to, ReadFile(s_dir.file(to)));
            }
    }

    // Fault points 1, 2, ... until one the run no longer reaches; it must then succeed.
    static long long EveryPoint(const Command& c, bool refuse)
    {
        for (long long k = 1;; ++k) {
            for (const auto& [name, bytes] : s_saved)
                WriteText(s_dir.file(name), bytes);
            for (const char* f : {"out.tif", "out.sta"})
                std::remove(s_dir.file(f).c_str());
            AlgoHarness h;
            std::atomic<long long> seen{0};
            if (refuse)
                AllocationSeam() = [&](std::size_t) { return ++seen != k; };
            else
                h.algo().Context().SetPollHook([&] {
                    if (++seen == k)
                        h.algo().Terminate();
                });
            const bool ok = h.Run(Record(s_dir, c));
            AllocationSeam() = nullptr;
            const std::string where = (refuse ? "refused allocation " : "cancel at poll ") + std::to_string(k);
            if (seen < k) {
                EXPECT_TRUE(ok && h.Code() == 0 && Exists(s_dir.file("out.tif"))) << where;
                return k - 1;
            }
            // The principal component runs leave code and text to Execute, which sets only a cancel's.
            const bool pca = c.type == 0;
            EXPECT_EQ(std::make_tuple(ok, h.Code(), h.Percents().back()),
                      std::make_tuple(false, refuse ? (pca ? 0 : 1) : -1010, 100.0)) << where;
            const std::string text = h.Text().toStdString();
            if (refuse)
                EXPECT_TRUE(pca ? text.empty() : text == kNoMemory || text == c.otherText) << where << ": " << text;
            else // and it stops at the very poll that sees the flag
                EXPECT_EQ(std::make_pair(text, seen.load()), std::make_pair(std::string(), k)) << where;
            const char* files[] = {"out.tif", *c.stats ? c.stats : "out.sta"};
            for (int f = 0; f < 2; ++f) {
                const char rule = c.rules[2 * refuse + f];
                if (rule != '.') {
                    EXPECT_EQ(Exists(s_dir.file(files[f])), rule != 'G') << files[f] << " after " << where;
                }
            }
            for (const auto& [name, bytes] : s_saved)
                if (name != c.stats || c.rules[2 * refuse + 1] == 'S') {
                    EXPECT_EQ(ReadFile(s_dir.file(name)), bytes) << name << " changed after " << where;
                }
            EXPECT_FALSE(Exists(s_dir.file("out_temp.tif"))) << where;
            if (::testing::Test::HasFailure() || k > 2000)
                return k;
        }
    }

    static inline TempDir s_dir;
    static inline std::vector<std::pair<std::string, std::string>> s_saved;
};

TEST_P(Faults, EveryPollAndEveryAllocationEndsTheRunByItsRules)
{
    const long long polls = EveryPoint(GetParam(), false), allocations = EveryPoint(GetParam(), true);
    EXPECT_GT(polls * allocations, 0) << "the run neither polls nor allocates";
    RecordProperty("cases", static_cast<int>(polls + allocations));
    std::printf("%s: %lld cancel points, %lld allocation points\n", GetParam().name, polls, allocations);
}

INSTANTIATE_TEST_SUITE_P(Commands, Faults, ::testing::ValuesIn(kCommands),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
