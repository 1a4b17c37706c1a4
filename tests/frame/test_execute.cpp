#include "AlgoHarness.h"
#include "TestSupport.h"
#include "frame/PCARecords.h"
#include "wavelet/WaveletTransform.h"

#include <gtest/gtest.h>

using tavtest::AlgoHarness;
using tavtest::Exists;
using tavtest::TempDir;
using tavtest::TransRecord;

namespace {

void Touch(const std::string& path) { tavtest::WriteText(path, "keep me"); }

// A small 6-band scene every transform accepts.
std::string SmallScene(const TempDir& dir, int w = 5, int h = 4)
{
    const std::string path = dir.file("scene.tif");
    tavtest::WriteRaster(path, tavtest::Shape(w, h, 6, GDT_Byte), [](int b, int x, int y) { return 10 + b * 20 + x * 3 + y; });
    return path;
}

// The constructor's name; an empty holder is code 100 without progress; a foreign record escapes.
TEST(Execute, NameEmptyHolderAndForeignRecord)
{
    AlgoHarness h;
    EXPECT_EQ(h.algo().GetName(), QString("Forward FFT"));
    EXPECT_FALSE(h.algo().Execute());
    EXPECT_EQ(h.Code(), 100);
    EXPECT_EQ(h.Text(), QString("Type is Not stTransInfo!"));
    EXPECT_TRUE(h.events.empty());
    h.algo().SetParams(std::string("not a record"));
    EXPECT_THROW(h.algo().Execute(), boost::bad_any_cast);
}

TEST(Execute, UnknownTransformTypeRunsNothingAndKeepsTheCode)
{
    for (int type : {0, 5, 7, -3}) {
        AlgoHarness h;
        h.algo().SetErrorInfo(42, "earlier");
        EXPECT_FALSE(h.Run(TransRecord(type, true, "in.tif", "out.tif"))) << type;
        EXPECT_EQ(h.Code(), 42) << type;
        EXPECT_EQ(h.Percents(), (std::vector<double>{0, 100})) << type;
        for (const auto& e : h.events) {
            EXPECT_TRUE(e.message.isEmpty());
            EXPECT_EQ(e.context, &h.algo()) << "the algorithm object is the context";
        }
    }
}

// Which files each branch removes after a failure that is not a cancellation.
struct RemovalCase {
    const char* name;
    int type;
    bool forward;
    int code;
    bool outputRemoved;
    bool statRemoved;
};

class FailureRemoval : public ::testing::TestWithParam<RemovalCase> {};

TEST_P(FailureRemoval, FailedRunRemovesExactlyWhatItsBranchOwns)
{
    const RemovalCase c = GetParam();
    TempDir dir;
    auto record = TransRecord(c.type, c.forward, dir.file("missing.tif"), dir.file("out.tif"));
    record.strStatFile = dir.qfile("out.sta");
    Touch(dir.file("out.tif"));
    Touch(dir.file("out.sta"));
    AlgoHarness h;
    EXPECT_FALSE(h.Run(record));
    EXPECT_EQ(h.Code(), c.code);
    EXPECT_EQ(Exists(dir.file("out.tif")), !c.outputRemoved);
    EXPECT_EQ(Exists(dir.file("out.sta")), !c.statRemoved);
    EXPECT_EQ(h.Percents().front(), 0);
    EXPECT_EQ(h.Percents().back(), 100);
}

INSTANTIATE_TEST_SUITE_P(EveryBranch, FailureRemoval,
    ::testing::Values(RemovalCase{"MnfForward", 1, true, 1, true, true},
                      RemovalCase{"MnfInverse", 1, false, 1, true, true},
                      RemovalCase{"FftForward", 2, true, 1, true, false},
                      RemovalCase{"FftInverse", 2, false, 1, true, false},
                      RemovalCase{"WaveletForward", 3, true, 1, true, false},
                      RemovalCase{"WaveletInverse", 3, false, 1, true, false},
                      // The Tasseled Cap keeps an earlier output unless the run was cancelled.
                      RemovalCase{"TasseledCap", 4, true, 2, false, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Execute, WaveletTemporaryIsRemovedForPathsWithAndWithoutExtension)
{
    TempDir dir;
    for (const std::string out : {"result.tif", "result.v2.img", "noextension"}) {
        const QString temp = WaveletTempPath(dir.qfile(out));
        Touch(temp.toStdString());
        AlgoHarness h;
        h.Run(TransRecord(3, true, dir.file("missing.tif"), dir.file(out)));
        EXPECT_FALSE(Exists(temp.toStdString())) << out;
    }
    EXPECT_EQ(WaveletTempPath("a/b.c/out.tif"), QString("a/b.c/out_temp.tif"));
    EXPECT_EQ(WaveletTempPath("a/out.v2.tif"), QString("a/out.v2_temp.tif"));
    EXPECT_EQ(WaveletTempPath("out"), QString("out_temp.tif"));
}

TEST(Cancellation, TerminateBeforeExecuteStopsTheTasseledCapAtItsFirstPoll)
{
    TempDir dir;
    const std::string in = SmallScene(dir);
    AlgoHarness h;
    h.algo().Terminate();
    EXPECT_FALSE(h.Run(TransRecord(4, true, in, dir.file("kt.tif"))));
    EXPECT_EQ(h.Code(), -1010);
    EXPECT_TRUE(h.Text().isEmpty());
    EXPECT_FALSE(Exists(dir.file("kt.tif"))) << "a cancelled output is removed";
    // The flag is never reset: the next run of the same object stops as well.
    EXPECT_FALSE(h.Run(TransRecord(4, true, in, dir.file("kt2.tif"))));
    EXPECT_EQ(h.Code(), -1010);
}

TEST(ErrorCode, ACodeFromAnEarlierRunSurvivesATasseledCapFailure)
{
    TempDir dir;
    tavtest::RasterShape five;
    five.bands = 5;
    tavtest::WriteRaster(dir.file("five.tif"), five, [](int, int, int) { return 1; });
    AlgoHarness h;
    EXPECT_FALSE(h.Run(TransRecord(4, true, dir.file("missing.tif"), dir.file("a.tif"))));
    EXPECT_EQ(h.Code(), 2);
    EXPECT_EQ(h.Text(), QString("Failed to open the input file!"));
    EXPECT_FALSE(h.Run(TransRecord(4, true, dir.file("five.tif"), dir.file("b.tif"))));
    EXPECT_EQ(h.Code(), 2) << "never reset to 0, so 2 stands in place of 1";
    EXPECT_EQ(h.Text(), QString("Input file is inconsistent with the sensor type! "));
}

TEST(Progress, SlotResultsAndMissingSlotsDoNotChangeTheRun)
{
    TempDir dir;
    const std::string in = SmallScene(dir);
    for (int result : {0, 1, -1}) {
        AlgoHarness h;
        h.slotResult = result;
        EXPECT_TRUE(h.Run(TransRecord(4, true, in, dir.file("r.tif")))) << result;
        EXPECT_EQ(h.Percents().back(), 100);
    }
    TavTransformFunc bare; // no signal handed over at all
    bare.SetParams(TransRecord(4, true, in, dir.file("bare.tif")));
    EXPECT_TRUE(bare.Execute());
    OrvAlgo::ProgressSignal unconnected; // a signal without slots
    TavTransformFunc quiet;
    quiet.SetProgressSignal(&unconnected);
    quiet.SetParams(TransRecord(4, true, in, dir.file("quiet.tif")));
    EXPECT_TRUE(quiet.Execute());
    EXPECT_EQ(tavtest::ReadBand(dir.file("bare.tif"), 1), tavtest::ReadBand(dir.file("quiet.tif"), 1));
}

TEST(Pca, FailedDriverWithoutCancelKeepsFilesAndReportsOnly100)
{
    TempDir dir;
    AlgoHarness h;
    stForwardPCAInfo fwd;
    fwd.strInputFile = dir.qfile("missing.tif");
    fwd.strStatFile = dir.qfile("pca.sta");
    fwd.strOutputFile = dir.qfile("pca.tif");
    Touch(dir.file("pca.sta"));
    EXPECT_FALSE(h.Run(fwd));
    EXPECT_TRUE(Exists(dir.file("pca.sta")));
    EXPECT_EQ(h.Percents(), std::vector<double>{100});
}

} // namespace
