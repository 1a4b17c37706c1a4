#include "AlgoHarness.h"
#include "MaskScene.h"
#include "TestSupport.h"
#include "frame/MaskRecords.h"
#include "mnf/CMNFTransFunc.h"
#include "mnf/MNFStatsFile.h"

#include <Eigen/Dense>
#include <gdal_priv.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>

using namespace tavtest;

namespace {

using Mat = Eigen::MatrixXd;
QString Q(const std::string& s) { return QString::fromStdString(s); }

stMaskedForwardMNFInfo MaskedForward(const std::string& in, const stMaskInfo& mask, const std::string& out,
                                     const std::string& stats)
{
    stMaskedForwardMNFInfo m;
    m.info = TransRecord(1, true, in, out);
    m.info.strStatFile = Q(stats);
    m.mask = mask;
    return m;
}

stMaskedTransInfo MaskedInverse(const std::string& in, const std::string& out, const std::string& stats)
{
    stMaskedTransInfo m{TransRecord(1, false, in, out), {}, {}};
    m.info.strStatFile = Q(stats);
    return m;
}

// The scene's data and noise over what counts, straight from the textbook estimate: data at the
// valid pixels; noise x − ½(up + side) only where the pixel and both neighbours are valid (the
// first row's upper neighbour is the second row, the last column's side one the column before).
struct Direct {
    Mat x, z; // one column a pixel or a noise sample
    Eigen::VectorXd mean;
    Mat dataCov, noiseCov;
    Eigen::VectorXd snr; // eigenvalues of the noise-whitened data covariance, falling
    int dropped = 0;     // noise-free directions
};

Mat Covariance(const Mat& v, double divisor)
{
    const double count = static_cast<double>(v.cols());
    const Eigen::VectorXd sum = v.rowwise().sum();
    return (v * v.transpose() - sum * sum.transpose() / count) / divisor;
}

Direct DirectStatistics(const MaskScene& sc)
{
    const int n = sc.bands, w = sc.width, h = sc.height;
    std::vector<int> pixels, samples;
    for (int y = 0; y < h; ++y)
        for (int c = 0; c < w; ++c) {
            const int up = y ? y - 1 : 1, side = c + 1 < w ? c + 1 : c - 1;
            if (sc.Valid(c, y))
                pixels.push_back(y * w + c);
            if (sc.Valid(c, y) && sc.Valid(c, up) && sc.Valid(side, y))
                samples.push_back(y * w + c);
        }
    // An alpha band is one of the bands the run reads, at full opacity wherever the data is valid.
    auto value = [&](int b, int c, int y) { return b < n ? sc.Value(b, c, y) : 65535.0; };
    const int bands = sc.fill == Fill::AlphaBand ? n + 1 : n;
    Direct d;
    d.x.resize(bands, pixels.size());
    d.z.resize(bands, samples.size());
    for (int b = 0; b < bands; ++b) {
        for (size_t i = 0; i < pixels.size(); ++i)
            d.x(b, i) = value(b, pixels[i] % w, pixels[i] / w);
        for (size_t i = 0; i < samples.size(); ++i) {
            const int c = samples[i] % w, y = samples[i] / w;
            const float up = static_cast<float>(value(b, c, y ? y - 1 : 1));
            const float side = static_cast<float>(value(b, c + 1 < w ? c + 1 : c - 1, y));
            d.z(b, i) = value(b, c, y) - static_cast<double>(0.5f * (up + side));
        }
    }
    d.mean = d.x.rowwise().sum() / static_cast<double>(pixels.size());
    d.dataCov = Covariance(d.x, static_cast<double>(pixels.size()));
    d.noiseCov = Covariance(d.z, 2.0 * static_cast<double>(samples.size()));
    // Whitening by the noise's eigenpairs, a noise-free direction dropped.
    const Eigen::SelfAdjointEigenSolver<Mat> noise(d.noiseCov);
    Mat wh = Mat::Zero(bands, bands);
    for (int k = 0; k < bands; ++k)
        if (noise.eigenvalues()[k] > 1e-9 * noise.eigenvalues().cwiseAbs().maxCoeff())
            wh.col(k) = noise.eigenvectors().col(k) / std::sqrt(noise.eigenvalues()[k]);
        else
            ++d.dropped;
    d.snr = Eigen::SelfAdjointEigenSolver<Mat>(wh.transpose() * d.dataCov * wh).eigenvalues().reverse();
    return d;
}

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

std::string MetadataItem(const std::string& path, const char* name)
{
    GDALDataset* ds = GDALDataset::Open(path.c_str());
    const char* item = ds ? ds->GetMetadataItem(name) : nullptr;
    const std::string s = item ? item : "";
    GDALClose(ds);
    return s;
}

// Pixels of `band` that break the rule: `atFill(got)` at the fill, `atValid(pixel, got)` elsewhere.
template <class AtFill, class AtValid>
long long Mismatches(const std::string& path, int band, const MaskScene& sc, AtFill atFill, AtValid atValid)
{
    const auto values = ReadBand(path, band);
    long long wrong = 0, valid = 0;
    for (size_t p = 0; p < values.size(); ++p)
        wrong += sc.valid[p] ? !atValid(valid++, values[p]) : !atFill(values[p]);
    return wrong;
}

class MaskedMnfByFill : public ::testing::TestWithParam<Fill> {};

// Statistics of the footprint only: the file's T whitens the direct noise covariance of the
// valid pairs (T·C_N·Tᵀ = I) and diagonalises the valid pixels' covariance into the direct
// signal-to-noise eigenvalues; components are NaN exactly at the fill and T·(x − m) elsewhere; the
// masked inverse gives the valid pixels back and no-data at the fill.
TEST_P(MaskedMnfByFill, StatisticsAndComponentsAreThoseOfTheValidPixels)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), GetParam());
    const Direct d = DirectStatistics(sc);
    const int n = static_cast<int>(d.x.rows());
    const std::string out = dir.file("mnf.tif"), st = dir.file("mnf.sta");
    AlgoHarness h;
    ASSERT_TRUE(h.Run(MaskedForward(sc.path, sc.mask, out, st))) << h.Text().toStdString();
    const auto back = boost::any_cast<stMaskedForwardMNFInfo>(h.algo().GetParams());
    EXPECT_EQ(back.nValidPixels, sc.ValidCount());
    EXPECT_EQ(back.nTotalPixels, sc.width * sc.height);
    EXPECT_LT(sc.ValidCount(), 0.8 * sc.width * sc.height);

    MNFStats stats;
    QString error;
    ASSERT_TRUE(ReadMNFStats(Q(st), stats, error));
    ASSERT_EQ(stats.bandCount, n);
    const Mat T = Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>(
        stats.matrix.data(), n, n);
    const Eigen::VectorXd m = Eigen::Map<const Eigen::VectorXd>(stats.means.data(), n);
    EXPECT_LT((m - d.mean).cwiseAbs().maxCoeff(), 1e-9 * d.mean.cwiseAbs().maxCoeff());
    Mat white = Mat::Identity(n, n);
    for (int k = n - d.dropped; k < n; ++k)
        white(k, k) = 0;
    EXPECT_LT((T * d.noiseCov * T.transpose() - white).cwiseAbs().maxCoeff(), 1e-3);
    const Mat signal = T * d.dataCov * T.transpose();
    EXPECT_LT((signal.diagonal() - d.snr).cwiseAbs().maxCoeff(), 1e-3 * d.snr[0]);
    // The rotations stop once every off-diagonal element is below 0.01.
    EXPECT_LT((signal - Mat(signal.diagonal().asDiagonal())).cwiseAbs().maxCoeff(), 0.01);

    // Blocks of three rows take the same pixels and pairs, and give the same bits.
    CMNFTransFunc blocks(h.algo().Context());
    blocks.UseMask(&sc.mask);
    ASSERT_TRUE(blocks.Forward(Q(sc.path), dir.qfile("b.tif"), dir.qfile("b.sta"), "GTiff", nullptr, 0, -1, -1, -1, -1,
                               2 * sc.width * n * 4 * 3));
    EXPECT_EQ(ReadFile(dir.file("b.sta")), ReadFile(st));
    for (int k = 1; k <= n; ++k) {
        const auto a = ReadBand(out, k), b = ReadBand(dir.file("b.tif"), k);
        EXPECT_EQ(0, std::memcmp(a.data(), b.data(), a.size() * sizeof(double))) << "component " << k;
    }

    EXPECT_EQ(MetadataItem(out, "MNF_STATISTICS"),
              "statistics over " + Grouped(sc.ValidCount()) + " of " + Grouped(sc.width * sc.height) + " pixels");
    const RasterInfo info = Info(out);
    EXPECT_TRUE(info.noData[0].first && std::isnan(info.noData[0].second));
    const Mat ref = T * (d.x.colwise() - m);
    for (int k = 0; k < n; ++k)
        EXPECT_EQ(Mismatches(out, k + 1, sc, [](double got) { return std::isnan(got); },
                             [&](long long i, double got) {
                                 return std::abs(got - ref(k, i)) <= 1e-5 * (1 + std::abs(ref(k, i)));
                             }),
                  0)
            << "component " << k + 1;

    // The inverse writes the input's type: UInt16 truncates toward zero (within 1), Float32 keeps
    // the float components' rounding (within 1e-3). A noise-free band leaves T singular: only the
    // fill is checked then.
    ASSERT_TRUE(h.Run(MaskedInverse(out, dir.file("back.tif"), st))) << h.Text().toStdString();
    const bool floating = sc.fill == Fill::NaN;
    const double fill = floating ? std::nan("") : 0, tolerance = floating ? 1e-3 : 1.0;
    EXPECT_EQ(Info(dir.file("back.tif")).noData[0].first, true);
    for (int b = 0; b < n; ++b)
        EXPECT_EQ(Mismatches(dir.file("back.tif"), b + 1, sc,
                             [&](double got) { return floating ? std::isnan(got) : got == fill; },
                             [&](long long i, double got) {
                                 return d.dropped > 0 || std::abs(got - d.x(b, i)) <= tolerance;
                             }),
                  0)
            << "band " << b + 1;
}

INSTANTIATE_TEST_SUITE_P(Fills, MaskedMnfByFill,
                         ::testing::Values(Fill::NoDataValue, Fill::MaskBand, Fill::AlphaBand, Fill::NaN,
                                           Fill::SrcNoDataPerBand),
                         [](const auto& info) { return std::string(FillName(info.param)); });

// In a Float32 scene a pixel is masked where one band alone is +∞ or −∞, the others valid.
TEST(MaskedMnf, InfinitiesAreMaskedLikeNaN)
{
    TempDir dir;
    const MaskScene sc = MakeMaskScene(dir.file("in.tif"), Fill::NaN);
    GDALDataset* ds = GDALDataset::Open(sc.path.c_str(), GDAL_OF_UPDATE);
    for (int y = 0; y < sc.height; ++y)
        for (int x = 0; x < sc.width; ++x)
            for (int b = 0; b < sc.bands && !sc.Valid(x, y); ++b) {
                float v = static_cast<float>(sc.Value(b, x, y));
                if (b == 1)
                    v = x % 2 ? -INFINITY : INFINITY;
                ASSERT_EQ(ds->GetRasterBand(b + 1)->RasterIO(GF_Write, x, y, 1, 1, &v, 1, 1, GDT_Float32, 0, 0), CE_None);
            }
    GDALClose(ds);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(MaskedForward(sc.path, sc.mask, dir.file("o.tif"), dir.file("o.sta"))));
    EXPECT_EQ(boost::any_cast<stMaskedForwardMNFInfo>(h.algo().GetParams()).nValidPixels, sc.ValidCount());
    for (int k = 1; k <= sc.bands; ++k)
        EXPECT_EQ(Mismatches(dir.file("o.tif"), k, sc, [](double got) { return std::isnan(got); },
                             [](long long, double got) { return std::isfinite(got); }),
                  0);
}

// Nothing to mask, masks off, or a declared value that no pixel holds: the unmasked run's very
// bytes, forward (components and statistics file) and inverse.
TEST(MaskedMnf, NothingMaskedGivesTheUnmaskedRunsBytes)
{
    struct Case {
        const char* what;
        Fill fill;
        bool useMasks;
        double unusedNoData; // declared afterwards when not NaN
    } cases[] = {{"NoFill", Fill::None, true, std::nan("")},
                 {"MasksOff", Fill::NoDataValue, false, std::nan("")},
                 {"NoPixelHoldsTheNoDataValue", Fill::None, true, 60000}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        MaskScene sc = MakeMaskScene(dir.file("in.tif"), c.fill);
        sc.mask.bUseMasks = c.useMasks;
        if (!std::isnan(c.unusedNoData)) {
            GDALDataset* ds = GDALDataset::Open(sc.path.c_str(), GDAL_OF_UPDATE);
            for (int b = 1; b <= sc.bands; ++b)
                ds->GetRasterBand(b)->SetNoDataValue(c.unusedNoData);
            GDALClose(ds);
        }
        AlgoHarness plain, masked;
        stTransInfo seed = TransRecord(1, true, sc.path, dir.file("p.tif"));
        seed.strStatFile = Q(dir.file("p.sta"));
        ASSERT_TRUE(plain.Run(seed));
        ASSERT_TRUE(masked.Run(MaskedForward(sc.path, sc.mask, dir.file("m.tif"), dir.file("m.sta"))));
        EXPECT_EQ(ReadFile(dir.file("p.tif")), ReadFile(dir.file("m.tif")));
        EXPECT_EQ(ReadFile(dir.file("p.sta")), ReadFile(dir.file("m.sta")));
        stTransInfo inverse = TransRecord(1, false, dir.file("p.tif"), dir.file("pb.tif"));
        inverse.strStatFile = seed.strStatFile;
        ASSERT_TRUE(plain.Run(inverse));
        stMaskedTransInfo maskedInverse = MaskedInverse(dir.file("p.tif"), dir.file("mb.tif"), dir.file("p.sta"));
        maskedInverse.mask.bUseMasks = c.useMasks;
        ASSERT_TRUE(masked.Run(maskedInverse));
        EXPECT_EQ(ReadFile(dir.file("pb.tif")), ReadFile(dir.file("mb.tif")));
    }
}

// Too little left to take statistics from: a clear failure, code 1, no output and no statistics
// file, the input as it was. A cancel halfway leaves nothing either.
TEST(MaskedMnf, TooFewValidPixelsOrACancelLeaveNothingBehind)
{
    {
        TempDir dir;
        const MaskScene sc = MakeMaskScene(dir.file("in.tif"), Fill::MaskBand);
        AlgoHarness h;
        h.onProgress = [&](double p) {
            if (p > 50)
                h.algo().Terminate();
        };
        EXPECT_FALSE(h.Run(MaskedForward(sc.path, sc.mask, dir.file("o.tif"), dir.file("o.sta"))));
        EXPECT_EQ(h.Code(), -1010);
        EXPECT_FALSE(Exists(dir.file("o.tif")));
        EXPECT_FALSE(Exists(dir.file("o.sta")));
    }
    struct Case {
        const char* what;
        std::function<bool(int x, int y)> valid;
        const char* text;
    } cases[] = {
        {"AllMasked", [](int, int) { return false; },
         "Every pixel of the input is masked: there are no statistics to take."},
        // Every valid pixel's neighbours are masked: no noise sample.
        {"Checkerboard", [](int x, int y) { return (x + y) % 2 == 0; },
         "No unmasked pixel has unmasked neighbours: the noise cannot be estimated."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        const std::string in = dir.file("in.tif");
        WriteRaster(in, Shape(6, 5, 2, GDT_UInt16), [&](int b, int x, int y) { return c.valid(x, y) ? 10 + b + x : 0; });
        GDALDataset* ds = GDALDataset::Open(in.c_str(), GDAL_OF_UPDATE);
        for (int b = 1; b <= 2; ++b)
            ds->GetRasterBand(b)->SetNoDataValue(0);
        GDALClose(ds);
        const std::string before = ReadFile(in);
        AlgoHarness h;
        EXPECT_FALSE(h.Run(MaskedForward(in, {}, dir.file("o.tif"), dir.file("o.sta"))));
        EXPECT_EQ(h.Code(), 1);
        EXPECT_EQ(h.Text().toStdString(), c.text);
        EXPECT_FALSE(Exists(dir.file("o.tif")));
        EXPECT_FALSE(Exists(dir.file("o.sta")));
        EXPECT_EQ(ReadFile(in), before);
    }
}

} // namespace
