#include "AlgoHarness.h"
#include "MaskScene.h"
#include "TestSupport.h"
#include "frame/MaskRecords.h"
#include "frame/stTasseledCapInfo.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using namespace tavtest;

namespace {

stMaskedTransInfo MaskedKt(const MaskScene& sc, const std::string& out, int sensor = 2)
{
    stMaskedTransInfo m;
    m.info = TransRecord(4, true, sc.path, out);
    m.info.nSensorType = sensor;
    m.mask = sc.mask;
    return m;
}

bool SameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// A set the host brings, over the scene's first `columns` bands, with the scene's mask.
stTasseledCapInfo SetRecord(const MaskScene& sc, const std::string& out, int columns)
{
    stTasseledCapInfo r;
    r.trans = TransRecord(4, true, sc.path, out);
    for (int k = 0; k < 2; ++k) {
        r.vecNames.push_back(QString("C%1").arg(k + 1));
        for (int j = 0; j < columns; ++j)
            r.vecCoefficients.push_back(k == 0 ? 0.25 * (j + 1) : 0.5 - 0.125 * j);
    }
    for (int j = 1; j <= columns; ++j)
        r.vecBands.push_back(j);
    r.vecConstants = {1.5, -2.25};
    r.mask = sc.mask;
    return r;
}

// Every component NaN (declared) exactly at the fill and bit-equal to the unmasked run elsewhere.
void ExpectNoDataExactlyAtFill(const MaskScene& sc, const std::string& plain, const std::string& masked)
{
    const RasterInfo info = Info(masked);
    ASSERT_EQ(info.bands, Info(plain).bands);
    for (int k = 1; k <= info.bands; ++k) {
        EXPECT_TRUE(info.noData[k - 1].first && std::isnan(info.noData[k - 1].second)) << masked << " band " << k;
        const auto a = ReadBand(plain, k), b = ReadBand(masked, k);
        long long wrong = 0;
        for (int y = 0; y < sc.height; ++y)
            for (int x = 0; x < sc.width; ++x) {
                const size_t i = static_cast<size_t>(y) * sc.width + x;
                wrong += sc.Valid(x, y) ? !SameBits(static_cast<float>(a[i]), static_cast<float>(b[i]))
                                        : !std::isnan(b[i]);
            }
        EXPECT_EQ(wrong, 0) << masked << " band " << k;
    }
}

class MaskedKtByFill : public ::testing::TestWithParam<Fill> {};

// The fill, however it is marked, is no-data in every component; the scene is the unmasked
// transform. Built-in sets and sets the host brings alike.
TEST_P(MaskedKtByFill, FillIsNoDataAndTheSceneIsTheUnmaskedTransform)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), GetParam());
    // The alpha scene has four bands: the MSS set takes them, alpha included.
    const int sensor = GetParam() == Fill::AlphaBand ? 1 : 2;
    AlgoHarness plain, masked;
    stTransInfo seed = TransRecord(4, true, sc.path, dir.file("plain.tif"));
    seed.nSensorType = sensor;
    ASSERT_TRUE(plain.Run(seed)) << plain.Text().toStdString();
    ASSERT_TRUE(masked.Run(MaskedKt(sc, dir.file("masked.tif"), sensor))) << masked.Text().toStdString();
    ASSERT_EQ(Info(dir.file("masked.tif")).bands, sensor == 1 ? 4 : 6);
    ExpectNoDataExactlyAtFill(sc, dir.file("plain.tif"), dir.file("masked.tif"));

    stTasseledCapInfo set = SetRecord(sc, dir.file("set_masked.tif"), sc.bands), unmasked = set;
    unmasked.trans.strOutputFile = QString::fromStdString(dir.file("set_plain.tif"));
    unmasked.mask = stMaskInfo{{}, false};
    AlgoHarness setPlain, setMasked;
    ASSERT_TRUE(setPlain.Run(unmasked)) << setPlain.Text().toStdString();
    ASSERT_TRUE(setMasked.Run(set)) << setMasked.Text().toStdString();
    EXPECT_FALSE(Info(dir.file("set_plain.tif")).noData[0].first) << "masks off declare nothing";
    ExpectNoDataExactlyAtFill(sc, dir.file("set_plain.tif"), dir.file("set_masked.tif"));
}

INSTANTIATE_TEST_SUITE_P(Fills, MaskedKtByFill,
                         ::testing::Values(Fill::NoDataValue, Fill::MaskBand, Fill::AlphaBand, Fill::NaN,
                                           Fill::SrcNoDataPerBand),
                         [](const auto& info) { return std::string(FillName(info.param)); });

// A chosen output value is written and declared instead of NaN.
TEST(MaskedKt, DestinationValueIsWrittenAndDeclared)
{
    TempDir dir;
    MaskScene sc = MakeMaskScene(dir.file("in.tif"), Fill::NoDataValue);
    sc.mask.dDstNoData = -9999;
    AlgoHarness h;
    ASSERT_TRUE(h.Run(MaskedKt(sc, dir.file("out.tif"))));
    const RasterInfo info = Info(dir.file("out.tif"));
    EXPECT_EQ(info.noData[2], std::make_pair(true, -9999.0));
    const auto b = ReadBand(dir.file("out.tif"), 3);
    for (int y = 0; y < sc.height; ++y) {
        for (int x = 0; x < sc.width; ++x) {
            if (!sc.Valid(x, y)) {
                ASSERT_EQ(b[static_cast<size_t>(y) * sc.width + x], -9999.0);
            }
        }
    }
}

// Nothing to mask (no no-data, or masks turned off): the very bytes of the unmasked run, for the
// built-in sets and for a set the host brings.
TEST(MaskedKt, NothingToMaskOrMasksOffGiveTheUnmaskedRunsBytes)
{
    TempDir dir;
    struct Case {
        Fill fill;
        bool useMasks;
    };
    for (const Case c : {Case{Fill::None, true}, Case{Fill::NoDataValue, false}, Case{Fill::MaskBand, false}}) {
        MaskScene sc = MakeMaskScene(dir.file("in.tif"), c.fill);
        sc.mask.bUseMasks = c.useMasks;
        stTransInfo seed = TransRecord(4, true, sc.path, dir.file("plain.tif"));
        seed.nSensorType = 0;
        AlgoHarness plain, masked;
        ASSERT_TRUE(plain.Run(seed));
        ASSERT_TRUE(masked.Run(MaskedKt(sc, dir.file("masked.tif"), 0)));
        EXPECT_EQ(ReadFile(dir.file("plain.tif")), ReadFile(dir.file("masked.tif"))) << FillName(c.fill);

        stTasseledCapInfo set = SetRecord(sc, dir.file("set_masked.tif"), 6), unmasked = set;
        unmasked.trans.strOutputFile = QString::fromStdString(dir.file("set_plain.tif"));
        unmasked.mask = stMaskInfo{{}, false};
        AlgoHarness setPlain, setMasked;
        ASSERT_TRUE(setPlain.Run(unmasked));
        ASSERT_TRUE(setMasked.Run(set));
        EXPECT_EQ(ReadFile(dir.file("set_plain.tif")), ReadFile(dir.file("set_masked.tif"))) << FillName(c.fill);
    }
}

// Masking is only built for some transforms so far; the others refuse rather than ignore it.
TEST(MaskedKt, UnknownTransformRefusesMaskedRecord)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), Fill::NoDataValue);
    stMaskedTransInfo m = MaskedKt(sc, dir.file("out.tif"));
    m.info.nTransType = 9;
    AlgoHarness h;
    EXPECT_FALSE(h.Run(m));
    EXPECT_EQ(h.Code(), 1);
    EXPECT_FALSE(h.Text().isEmpty());
    EXPECT_FALSE(Exists(dir.file("out.tif")));
}

} // namespace
