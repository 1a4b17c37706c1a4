#include "AlgoHarness.h"
#include "MaskScene.h"
#include "TestSupport.h"
#include "frame/MaskRecords.h"
#include "frame/PCARecords.h"

#include <Eigen/Dense>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using namespace tavtest;

namespace {

QString Q(const std::string& s) { return QString::fromStdString(s); }

stMaskedForwardPCAInfo MaskedFwd(const MaskScene& sc, const std::string& stats, const std::string& out, int type,
                                 bool center = true, bool stepwise = false)
{
    stMaskedForwardPCAInfo m;
    m.info = {Q(sc.path), Q(stats), Q(out), "GTiff", type, center, stepwise ? 0 : sc.bands, true, stepwise,
              {}, {}, {}};
    m.mask = sc.mask;
    return m;
}

std::vector<double> ReadDoubles(const std::string& path)
{
    const std::string bytes = ReadFile(path);
    std::vector<double> v(bytes.size() / 8);
    std::memcpy(v.data(), bytes.data(), v.size() * 8);
    return v;
}

// Means and population covariance of the valid pixels, summed in long double, straight from the formula.
// Pixels of band `band` of `path` that are wrong: at the fill `atFill(got)` must hold, at a valid
// pixel `atValid(x, y, got)`.
template <class AtFill, class AtValid>
long long Mismatches(const std::string& path, int band, const MaskScene& sc, AtFill atFill, AtValid atValid)
{
    const auto values = ReadBand(path, band);
    long long wrong = 0;
    for (int y = 0; y < sc.height; ++y)
        for (int x = 0; x < sc.width; ++x) {
            const double got = values[static_cast<size_t>(y) * sc.width + x];
            wrong += sc.Valid(x, y) ? !atValid(x, y, got) : !atFill(got);
        }
    return wrong;
}

struct Direct {
    std::vector<long double> mean;
    Eigen::MatrixXd cov;
    std::vector<double> eigenvalues; // descending
};

Direct DirectStatistics(const MaskScene& sc)
{
    const int n = sc.bands;
    Direct d{std::vector<long double>(n, 0.0L), Eigen::MatrixXd(n, n), {}};
    long double count = 0;
    for (int y = 0; y < sc.height; ++y)
        for (int x = 0; x < sc.width; ++x)
            if (sc.Valid(x, y)) {
                count += 1;
                for (int b = 0; b < n; ++b)
                    d.mean[b] += sc.Value(b, x, y);
            }
    for (auto& m : d.mean)
        m /= count;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            long double s = 0;
            for (int y = 0; y < sc.height; ++y)
                for (int x = 0; x < sc.width; ++x)
                    if (sc.Valid(x, y))
                        s += (sc.Value(i, x, y) - d.mean[i]) * (sc.Value(j, x, y) - d.mean[j]);
            d.cov(i, j) = static_cast<double>(s / count);
        }
    const Eigen::VectorXd ev = Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(d.cov).eigenvalues();
    for (int k = n - 1; k >= 0; --k)
        d.eigenvalues.push_back(ev[k]);
    return d;
}

// 12000000 -> "12,000,000"
std::string Grouped(long long v)
{
    const std::string digits = std::to_string(v);
    std::string s;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0)
            s += ',';
        s += digits[i];
    }
    return s;
}

class MaskedPcaByFill : public ::testing::TestWithParam<Fill> {};

// Statistics over the footprint only; components no-data exactly at the fill, the valid pixels'
// projection elsewhere, and back to the input on the way home.
TEST_P(MaskedPcaByFill, StatisticsAndComponentsAreThoseOfTheValidPixels)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), GetParam());
    const int n = sc.bands;
    AlgoHarness h;
    ASSERT_TRUE(h.Run(MaskedFwd(sc, dir.file("s.sta"), dir.file("pc.tif"), 6))) << h.Text().toStdString();

    const Direct d = DirectStatistics(sc);
    const std::vector<double> file = ReadDoubles(dir.file("s.sta"));
    ASSERT_EQ(file.size(), static_cast<size_t>(2 * n * n + 3 * n + 1));
    for (int b = 0; b < n; ++b)
        EXPECT_NEAR(file[1 + b], static_cast<double>(d.mean[b]), 1e-10 * std::abs(static_cast<double>(d.mean[b])));
    for (int i = 0; i < n * n; ++i)
        EXPECT_NEAR(file[1 + n + i], d.cov(i / n, i % n), 1e-9 * d.eigenvalues[0]) << i;
    for (int k = 0; k < n; ++k)
        EXPECT_NEAR(file[1 + n + 2 * n * n + k], d.eigenvalues[k], 1e-6 * d.eigenvalues[0]) << k;

    const RasterInfo info = Info(dir.file("pc.tif"));
    ASSERT_EQ(info.bands, n);
    EXPECT_TRUE(info.noData[0].first && std::isnan(info.noData[0].second));
    GDALDataset* out = GDALDataset::Open(dir.file("pc.tif").c_str());
    const char* item = out->GetMetadataItem("PCA_STATISTICS");
    const std::string expectedItem =
        "statistics over " + Grouped(sc.ValidCount()) + " of " + Grouped(sc.width * sc.height) + " pixels";
    EXPECT_EQ(item ? std::string(item) : std::string(), expectedItem);
    GDALClose(out);
    // Component k at a valid pixel: (x − mean) · eigenvector k, with the file's eigenvectors.
    for (int k = 0; k < n; ++k)
        EXPECT_EQ(Mismatches(dir.file("pc.tif"), k + 1, sc, [](double got) { return std::isnan(got); },
                             [&](int x, int y, double got) {
                                 long double want = 0;
                                 for (int b = 0; b < n; ++b)
                                     want += (sc.Value(b, x, y) - d.mean[b]) * file[1 + n + n * n + b * n + k];
                                 return std::abs(got - static_cast<double>(want)) <= 1e-9 * 1000;
                             }),
                  0)
            << "component " << k + 1;
    // The seed's inverse takes the components back; the fill stays NaN.
    stInversePCAInfo inv{Q(dir.file("pc.tif")), Q(dir.file("s.sta")), Q(dir.file("back.tif")), "GTiff", 6};
    ASSERT_TRUE(h.Run(inv)) << h.Text().toStdString();
    for (int b = 0; b < n; ++b)
        EXPECT_EQ(Mismatches(dir.file("back.tif"), b + 1, sc, [](double got) { return std::isnan(got); },
                             [&](int x, int y, double got) { return std::abs(got - sc.Value(b, x, y)) <= 1e-9; }),
                  0)
            << "band " << b + 1;
}

INSTANTIATE_TEST_SUITE_P(Fills, MaskedPcaByFill,
                         ::testing::Values(Fill::NoDataValue, Fill::MaskBand, Fill::AlphaBand, Fill::NaN,
                                           Fill::SrcNoDataPerBand),
                         [](const auto& info) { return std::string(FillName(info.param)); });

// A statistics-only run hands the eigenvalues back with the pixels they were taken over.
TEST(MaskedPca, StatisticsOnlyHandsBackTheEigenvaluesAndThePixelCount)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), Fill::NoDataValue);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(MaskedFwd(sc, dir.file("s.sta"), "", 5, true, true)));
    const auto back = boost::any_cast<stMaskedForwardPCAInfo>(h.algo().GetParams());
    EXPECT_EQ(back.nValidPixels, sc.ValidCount());
    EXPECT_EQ(back.nTotalPixels, sc.width * sc.height);
    const Direct d = DirectStatistics(sc);
    ASSERT_EQ(back.info.vecEigenValues.size(), d.eigenvalues.size());
    for (size_t k = 0; k < d.eigenvalues.size(); ++k)
        EXPECT_NEAR(back.info.vecEigenValues[k], d.eigenvalues[k], 1e-6 * d.eigenvalues[0]);
}

// Byte components: the fill is the type's lowest value, 0 (or the value asked for), which no
// valid pixel takes; the stretch of values beyond the type uses the valid pixels' sample range.
class MaskedPcaByteNoData : public ::testing::TestWithParam<double> {};

TEST_P(MaskedPcaByteNoData, IntegerOutputKeepsItsNoDataOutOfTheStretch)
{
    TempDir dir;
    MaskScene sc = MakeMaskScene(dir.file("in.tif"), Fill::NoDataValue);
    const double dst = GetParam();
    if (!std::isnan(dst))
        sc.mask.dDstNoData = dst;
    const double fill = std::isnan(dst) ? 0 : dst, aside = fill == 255 ? 254 : fill + 1;
    const int n = sc.bands;
    AlgoHarness h;
    ASSERT_TRUE(h.Run(MaskedFwd(sc, dir.file("s.sta"), dir.file("pc.tif"), 0, false)));
    EXPECT_EQ(Info(dir.file("pc.tif")).noData[0], std::make_pair(true, fill));
    const std::vector<double> file = ReadDoubles(dir.file("s.sta"));
    double lo = 1e300, hi = -1e300;
    for (int y = 0; y < sc.height; ++y)
        for (int x = 0; x < sc.width; ++x)
            for (int b = 0; b < n && sc.Valid(x, y); ++b)
                lo = std::min(lo, sc.Value(b, x, y)), hi = std::max(hi, sc.Value(b, x, y));
    long long stretched = 0;
    for (int k = 0; k < n; ++k)
        EXPECT_EQ(Mismatches(dir.file("pc.tif"), k + 1, sc, [&](double got) { return got == fill; },
                             [&](int x, int y, double got) {
                                 long double v = 0;
                                 for (int b = 0; b < n; ++b)
                                     v += sc.Value(b, x, y) * file[1 + n + n * n + b * n + k];
                                 const double cv = static_cast<double>(v);
                                 double want = 0 < cv && cv < 255 ? std::trunc(cv)
                                               : cv <= lo         ? 0
                                               : cv < hi          ? std::trunc((cv - lo) * 255 / (hi - lo))
                                                                  : 255;
                                 stretched += !(0 < cv && cv < 255);
                                 return got == (want == fill ? aside : want);
                             }),
                  0)
            << "component " << k + 1;
    EXPECT_GT(stretched, 0) << "the scene must reach beyond Byte for the stretch to be tried";
}

// NaN: the type's default.
INSTANTIATE_TEST_SUITE_P(Values, MaskedPcaByteNoData, ::testing::Values(std::nan(""), 255.0, 37.0));

// Nothing to mask, or masks turned off: the unmasked run's very bytes, components and statistics.
TEST(MaskedPca, NothingToMaskOrMasksOffGiveTheUnmaskedRunsBytes)
{
    TempDir dir;
    struct Case {
        Fill fill;
        bool useMasks;
    };
    for (const Case c : {Case{Fill::None, true}, Case{Fill::NoDataValue, false}}) {
        MaskScene sc = MakeMaskScene(dir.file("in.tif"), c.fill);
        sc.mask.bUseMasks = c.useMasks;
        AlgoHarness plain, masked;
        stMaskedForwardPCAInfo m = MaskedFwd(sc, dir.file("m.sta"), dir.file("m.tif"), 0, true);
        stForwardPCAInfo seed = m.info;
        seed.strStatFile = Q(dir.file("p.sta"));
        seed.strOutputFile = Q(dir.file("p.tif"));
        ASSERT_TRUE(plain.Run(seed));
        ASSERT_TRUE(masked.Run(m));
        EXPECT_EQ(ReadFile(dir.file("p.tif")), ReadFile(dir.file("m.tif"))) << FillName(c.fill);
        EXPECT_EQ(ReadFile(dir.file("p.sta")), ReadFile(dir.file("m.sta"))) << FillName(c.fill);
    }
}

} // namespace

namespace {

// Integer components carry their fill as the type's lowest value; the masked inverse writes the
// no-data value there and, elsewhere, what the unmasked inverse writes.
TEST(MaskedPca, InverseWritesNoDataWhereTheComponentsAreMasked)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), Fill::MaskBand);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(MaskedFwd(sc, dir.file("s.sta"), dir.file("pc.tif"), 2)));
    ASSERT_EQ(Info(dir.file("pc.tif")).noData[0], std::make_pair(true, -32768.0));
    const stInversePCAInfo seed{Q(dir.file("pc.tif")), Q(dir.file("s.sta")), Q(dir.file("plain.tif")), "GTiff", 5};
    stMaskedInversePCAInfo masked{seed, {}};
    masked.info.strOutputFile = Q(dir.file("back.tif"));
    ASSERT_TRUE(h.Run(seed));
    ASSERT_TRUE(h.Run(masked)) << h.Text().toStdString();
    EXPECT_TRUE(Info(dir.file("back.tif")).noData[0].first);
    for (int b = 1; b <= sc.bands; ++b) {
        const auto plain = ReadBand(dir.file("plain.tif"), b), back = ReadBand(dir.file("back.tif"), b);
        long long wrong = 0;
        for (size_t i = 0; i < sc.valid.size(); ++i)
            wrong += sc.valid[i] ? back[i] != plain[i] : !std::isnan(back[i]);
        EXPECT_EQ(wrong, 0) << "band " << b;
    }
}

} // namespace
