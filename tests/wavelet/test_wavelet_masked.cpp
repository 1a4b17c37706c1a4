#include "AlgoHarness.h"
#include "MaskScene.h"
#include "MeanFilledCopy.h"
#include "TestSupport.h"
#include "frame/MaskRecords.h"
#include "wavelet/WaveletTransform.h"

#include <gtest/gtest.h>

using namespace tavtest;

namespace {

constexpr int kWavelet = 3;

class MaskedDwtByFill : public ::testing::TestWithParam<Fill> {};

// However the fill is marked, the quadrants are the unmasked ones of the scene with each band's
// fill replaced by that band's valid mean; an odd size puts the fill on both borders.
TEST_P(MaskedDwtByFill, QuadrantsAreThoseOfTheMeanFilledScene)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), GetParam(), 37, 29);
    const MeanFilledCopy copy = WriteMeanFilledCopy(sc, dir.file("copy.tif"));
    AlgoHarness plain, h;
    ASSERT_TRUE(plain.Run(TransRecord(kWavelet, true, copy.path, dir.file("expected.tif"))));
    ASSERT_TRUE(h.Run(MaskedTrans(kWavelet, sc, dir.file("masked.tif")))) << h.Text().toStdString();
    ExpectSameBandsWithoutNoData(dir.file("expected.tif"), dir.file("masked.tif"));
    std::vector<int> all;
    for (int b = 1; b <= Info(sc.path).bands; ++b)
        all.push_back(b);
    ExpectFilled(h.algo().GetParams(), copy, all, 37LL * 29);
}

INSTANTIATE_TEST_SUITE_P(Fills, MaskedDwtByFill,
                         ::testing::Values(Fill::NoDataValue, Fill::MaskBand, Fill::AlphaBand, Fill::NaN,
                                           Fill::SrcNoDataPerBand),
                         [](const auto& info) { return std::string(FillName(info.param)); });

// Chunks of 1, 2 and 5 rows: the fill follows the rows of each chunk, whatever its edges.
TEST(MaskedDwt, FillIsTheSameAtEveryChunkSize)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), Fill::NoDataValue, 21, 17, 2);
    const MeanFilledCopy copy = WriteMeanFilledCopy(sc, dir.file("copy.tif"));
    AlgoHarness plain;
    ASSERT_TRUE(plain.Run(TransRecord(kWavelet, true, copy.path, dir.file("expected.tif"))));
    for (std::size_t rows : {1u, 2u, 5u}) {
        AlgoHarness h;
        WaveletTransformFunc worker(h.algo().Context());
        worker.SetRowsPerChunk(rows);
        worker.SetMask(sc.mask);
        const QString out = dir.qfile("masked" + std::to_string(rows) + ".tif");
        ASSERT_TRUE(worker.Forward(QString::fromStdString(sc.path), out, "GTiff", nullptr, 0, -1, -1, -1, -1));
        ExpectSameBandsWithoutNoData(dir.file("expected.tif"), out.toStdString());
        ASSERT_EQ(worker.Filled().size(), 2u);
        EXPECT_EQ(worker.Filled()[1].nFilled, copy.masked[1]);
    }
}

// Nothing to mask, masks turned off, or the inverse (which takes its quadrants as they are): the
// very bytes of the unmasked run, and nothing reported filled.
TEST(MaskedDwt, NothingToMaskMasksOffAndTheInverseGiveTheUnmaskedRunsBytes)
{
    TempDir dir;
    struct Case {
        Fill fill;
        bool useMasks;
        bool forward;
    };
    for (const Case c : {Case{Fill::None, true, true}, Case{Fill::NoDataValue, false, true},
                         Case{Fill::MaskBand, false, true}, Case{Fill::NaN, true, false}}) {
        MaskScene sc = MakeMaskScene(dir.file("in.tif"), c.fill, 16, 13, 2);
        sc.mask.bUseMasks = c.useMasks;
        stMaskedTransInfo masked = MaskedTrans(kWavelet, sc, dir.file("masked.tif"));
        masked.info.bForward = c.forward;
        AlgoHarness plain, h;
        ASSERT_TRUE(plain.Run(TransRecord(kWavelet, c.forward, sc.path, dir.file("plain.tif"))));
        ASSERT_TRUE(h.Run(masked)) << h.Text().toStdString();
        EXPECT_EQ(ReadFile(dir.file("plain.tif")), ReadFile(dir.file("masked.tif"))) << FillName(c.fill);
        EXPECT_TRUE(boost::any_cast<stMaskedTransInfo>(h.algo().GetParams()).vecFilled.empty());
    }
}

// A band without one valid pixel: code 1, the reason, no output and no temporary left.
TEST(MaskedDwt, BandWithoutValidPixelFails)
{
    TempDir dir;
    WriteRaster(dir.file("in.tif"), Shape(8, 6, 2, GDT_Int32), [](int b, int x, int) { return b == 0 ? x : -9999; });
    stMaskedTransInfo m;
    m.info = TransRecord(kWavelet, true, dir.file("in.tif"), dir.file("out.tif"));
    m.mask.vecSrcNoData = {-9999};
    AlgoHarness h;
    EXPECT_FALSE(h.Run(m));
    EXPECT_EQ(h.Code(), 1);
    EXPECT_EQ(h.Text().toStdString(), "Every pixel of band 2 is masked: there is no valid value to fill it with!");
    EXPECT_FALSE(Exists(dir.file("out.tif")));
}

} // namespace
