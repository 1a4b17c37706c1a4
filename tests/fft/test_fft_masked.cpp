#include "AlgoHarness.h"
#include "MaskScene.h"
#include "MeanFilledCopy.h"
#include "TestSupport.h"
#include "frame/MaskRecords.h"

#include <gtest/gtest.h>

using namespace tavtest;

namespace {

constexpr int kFourier = 2;

class MaskedFftByFill : public ::testing::TestWithParam<Fill> {};

// However the fill is marked, the spectrum is the unmasked one of the scene with each band's fill
// replaced by that band's valid mean; bands taken out of order keep their own values and means.
TEST_P(MaskedFftByFill, SpectrumIsThatOfTheMeanFilledScene)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), GetParam(), 37, 29);
    const MeanFilledCopy copy = WriteMeanFilledCopy(sc, dir.file("copy.tif"));
    const std::vector<int> bands = GetParam() == Fill::AlphaBand ? std::vector<int>{3, 1, 4} : std::vector<int>{5, 2};
    stTransInfo seed = TransRecord(kFourier, true, copy.path, dir.file("expected.tif"));
    seed.vecBands = bands;
    stMaskedTransInfo masked = MaskedTrans(kFourier, sc, dir.file("masked.tif"));
    masked.info.vecBands = bands;
    AlgoHarness plain, h;
    ASSERT_TRUE(plain.Run(seed)) << plain.Text().toStdString();
    ASSERT_TRUE(h.Run(masked)) << h.Text().toStdString();
    ExpectSameBandsWithoutNoData(dir.file("expected.tif"), dir.file("masked.tif"));
    ExpectFilled(h.algo().GetParams(), copy, bands, 37LL * 29);
}

INSTANTIATE_TEST_SUITE_P(Fills, MaskedFftByFill,
                         ::testing::Values(Fill::NoDataValue, Fill::MaskBand, Fill::AlphaBand, Fill::NaN,
                                           Fill::SrcNoDataPerBand),
                         [](const auto& info) { return std::string(FillName(info.param)); });

// Nothing to mask, masks turned off, or the inverse (which takes its spectrum as it is): the
// very bytes of the unmasked run, and nothing reported filled.
TEST(MaskedFft, NothingToMaskMasksOffAndTheInverseGiveTheUnmaskedRunsBytes)
{
    TempDir dir;
    struct Case {
        Fill fill;
        bool useMasks;
        bool forward;
    };
    for (const Case c : {Case{Fill::None, true, true}, Case{Fill::NoDataValue, false, true},
                         Case{Fill::MaskBand, false, true}, Case{Fill::NoDataValue, true, false}}) {
        MaskScene sc = MakeMaskScene(dir.file("in.tif"), c.fill, 16, 12, 2);
        sc.mask.bUseMasks = c.useMasks;
        stTransInfo seed = TransRecord(kFourier, c.forward, sc.path, dir.file("plain.tif"));
        stMaskedTransInfo masked = MaskedTrans(kFourier, sc, dir.file("masked.tif"));
        masked.info.bForward = c.forward;
        if (c.forward)
            seed.vecBands = masked.info.vecBands = {1, 2};
        AlgoHarness plain, h;
        ASSERT_TRUE(plain.Run(seed)) << plain.Text().toStdString();
        ASSERT_TRUE(h.Run(masked)) << h.Text().toStdString();
        EXPECT_EQ(ReadFile(dir.file("plain.tif")), ReadFile(dir.file("masked.tif"))) << FillName(c.fill);
        EXPECT_TRUE(boost::any_cast<stMaskedTransInfo>(h.algo().GetParams()).vecFilled.empty());
    }
}

// A band without one valid pixel, or a value list that leaves a chosen band without a value:
// code 1, the reason, no output.
TEST(MaskedFft, BandsThatCannotBeFilledFailWithTheirReason)
{
    TempDir dir;
    WriteRaster(dir.file("in.tif"), Shape(8, 6, 3, GDT_UInt16), [](int b, int x, int) { return b == 1 ? 7 : x; });
    struct Case {
        std::vector<double> values;
        std::vector<int> bands;
        const char* text;
    } cases[] = {
        {{0, 7, 99}, {1, 2}, "Every pixel of band 2 is masked: there is no valid value to fill it with!"},
        {{7}, {2}, "Every pixel of band 2 is masked: there is no valid value to fill it with!"},
        {{5, 5}, {1, 3}, "The no-data values name 2 bands; band 3 has none. Give one value, or one per band!"},
    };
    for (const Case& c : cases) {
        stMaskedTransInfo m;
        m.info = TransRecord(kFourier, true, dir.file("in.tif"), dir.file("out.tif"));
        m.info.vecBands = c.bands;
        m.mask.vecSrcNoData = c.values;
        AlgoHarness h;
        EXPECT_FALSE(h.Run(m));
        EXPECT_EQ(h.Code(), 1);
        EXPECT_EQ(h.Text().toStdString(), c.text);
        EXPECT_FALSE(Exists(dir.file("out.tif")));
    }
}

} // namespace
