#include "AlgoHarness.h"
#include "OrvDataSource/DatasetFactory.h"
#include "TestSupport.h"
#include "frame/RasterAccess.h"
#include "wavelet/WaveletKernel.h"
#include "wavelet/WaveletTransform.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTranslator>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
// The runs take their work memory from a non-throwing allocator and report a refusal; under
// AddressSanitizer an impossible request must come back null too, not abort.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

using tavtest::AlgoHarness;
using tavtest::Exists;
using tavtest::TempDir;
using tavtest::TransRecord;

namespace {

const double kSqrt3 = std::sqrt(3.0);
// The four-tap Daubechies pair, low-pass taps summing to one, exactly.
const std::array<double, 4> kLo = {(1 + kSqrt3) / 8, (3 + kSqrt3) / 8, (3 - kSqrt3) / 8, (1 - kSqrt3) / 8};
const std::array<double, 4> kHi = {(1 - kSqrt3) / 8, -(3 - kSqrt3) / 8, (3 + kSqrt3) / 8, -(1 + kSqrt3) / 8};

// Single-precision arithmetic with taps rounded to seven decimals: the kernel's measured worst
// cases are 4.7e-7 (forward) and 7.3e-7 (round trip) of the input's peak magnitude. Files add
// nothing, Float32 is stored exactly.
constexpr double kForwardTolerance = 1e-6;
constexpr double kRoundTripTolerance = 1e-6;

const char* kForwardText = "Forward Wavelet Transform is running...";
const char* kInverseText = "Inverse Wavelet Transform is running...";

// One line from the definition: low-pass over the line and zeros, high-pass over e0, 0, the
// line and zeros; low-pass values from slot 0, high-pass from slot n/2 (overwriting for odd n).
std::vector<double> ReferenceLine(const std::vector<double>& x)
{
    const std::size_t n = x.size();
    auto at = [&](std::size_t i) { return i < n ? x[i] : 0.0; };
    const double e0 = -(kLo[2] / kLo[0]) * at(0) - (kLo[3] / kLo[0]) * at(1);
    auto ext = [&](std::size_t i) { return i == 0 ? e0 : i == 1 ? 0.0 : at(i - 2); };
    std::vector<double> y(n);
    for (std::size_t k = 0; k < n; k += 2)
        y[k / 2] = kLo[0] * at(k) + kLo[1] * at(k + 1) + kLo[2] * at(k + 2) + kLo[3] * at(k + 3);
    for (std::size_t k = 0; k < n; k += 2)
        y[n / 2 + k / 2] = kHi[0] * ext(k) + kHi[1] * ext(k + 1) + kHi[2] * ext(k + 2) + kHi[3] * ext(k + 3);
    return y;
}

// Rows, then columns.
std::vector<double> ReferenceImage(std::vector<double> img, int w, int h)
{
    for (int r = 0; r < h; ++r) {
        const auto row = ReferenceLine(std::vector<double>(img.begin() + r * w, img.begin() + (r + 1) * w));
        std::copy(row.begin(), row.end(), img.begin() + r * w);
    }
    for (int c = 0; c < w; ++c) {
        std::vector<double> col(h);
        for (int r = 0; r < h; ++r)
            col[r] = img[r * w + c];
        col = ReferenceLine(col);
        for (int r = 0; r < h; ++r)
            img[r * w + c] = col[r];
    }
    return img;
}

struct TypeRange {
    GDALDataType type;
    double lo, hi;
};

const TypeRange kTypes[] = {
    {GDT_Byte, 0, 255},         {GDT_UInt16, 0, 65535}, {GDT_Int16, -32768, 32767}, {GDT_UInt32, 0, 1e6},
    {GDT_Int32, -1e6, 1e6},     {GDT_Float32, -500, 1e3}, {GDT_Float64, -1e3, 1e3},
};

void PrintTo(const TypeRange& r, std::ostream* os) { *os << GDALGetDataTypeName(r.type); }

bool IsInteger(GDALDataType t) { return t != GDT_Float32 && t != GDT_Float64; }

// Repeatable pixels; integer types get whole numbers, Float64 keeps digits a float cannot hold.
tavtest::PixelFn RandomPixels(const TypeRange& r, unsigned seed)
{
    return [r, seed](int b, int x, int y) {
        std::mt19937 rng(seed * 7919u + b * 104729u + y * 1299709u + x);
        const double v = std::uniform_real_distribution<double>(r.lo, r.hi)(rng);
        return IsInteger(r.type) ? std::floor(v) : v;
    };
}

struct Scene {
    std::string path;
    int w, h, bands;
    tavtest::PixelFn fn;
    // Band b (0-based) as the run sees it: converted to single precision.
    std::vector<double> Band(int b) const
    {
        std::vector<double> v(static_cast<std::size_t>(w) * h);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                v[y * w + x] = static_cast<float>(fn(b, x, y));
        return v;
    }
};

Scene MakeScene(const TempDir& dir, const std::string& name, int w, int h, int bands, const TypeRange& r,
                unsigned seed = 1)
{
    tavtest::RasterShape raster;
    raster.width = w;
    raster.height = h;
    raster.bands = bands;
    raster.type = r.type;
    Scene s{dir.file(name), w, h, bands, RandomPixels(r, seed + w * 131 + h * 17 + r.type)};
    tavtest::WriteRaster(s.path, raster, s.fn);
    return s;
}

double Peak(const std::vector<double>& v)
{
    double p = 0;
    for (double x : v)
        p = std::max(p, std::fabs(x));
    return p;
}

// Largest difference of two images, with the index where it occurs for the message.
std::pair<double, std::size_t> MaxDifference(const std::vector<double>& a, const std::vector<double>& b)
{
    std::pair<double, std::size_t> worst{0, 0};
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::fabs(a[i] - b[i]) > worst.first)
            worst = {std::fabs(a[i] - b[i]), i};
    return worst;
}

void ExpectNear(const std::vector<double>& got, const std::vector<double>& want, double bound, const std::string& what)
{
    ASSERT_EQ(got.size(), want.size()) << what;
    const auto [diff, at] = MaxDifference(got, want);
    EXPECT_LE(diff, bound) << what << ": worst at index " << at << ", got " << got[at] << " want " << want[at];
}

// "stem<n>.tif"
std::string Numbered(const char* stem, long long n)
{
    std::string name = stem;
    name += std::to_string(n);
    name += ".tif";
    return name;
}

std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Replaces the free-space query for one test and puts the real one back.
class FakeFreeSpace {
public:
    explicit FakeFreeSpace(unsigned long long bytes) : m_saved(FreeSpaceSeam())
    {
        FreeSpaceSeam() = [bytes](const QString&) { return bytes; };
    }
    ~FakeFreeSpace() { FreeSpaceSeam() = m_saved; }

private:
    FreeSpaceQuery m_saved;
};

// Runs with the working folder set to `dir`, so that outputs can be named relative to it.
class InFolder {
public:
    explicit InFolder(const std::filesystem::path& dir) : m_saved(std::filesystem::current_path())
    {
        std::filesystem::current_path(dir);
    }
    ~InFolder() { std::filesystem::current_path(m_saved); }

private:
    std::filesystem::path m_saved;
};

// --- Forward through Execute against the direct computation ---------------------------------------

struct Shape {
    int w, h, bands;
};

std::string ShapeName(const Shape& s)
{
    return std::to_string(s.w) + "x" + std::to_string(s.h) + "x" + std::to_string(s.bands);
}

void PrintTo(const Shape& s, std::ostream* os) { *os << ShapeName(s); }

class ForwardAgainstReference : public ::testing::TestWithParam<std::tuple<Shape, TypeRange>> {};

TEST_P(ForwardAgainstReference, EveryBandMatchesRowsThenColumnsInDouble)
{
    const auto [shape, range] = GetParam();
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", shape.w, shape.h, shape.bands, range);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.tif")))) << h.Text().toStdString();
    const auto info = tavtest::Info(dir.file("dwt.tif"));
    ASSERT_EQ(info.type, GDT_Float32);
    ASSERT_EQ(info.bands, shape.bands);
    ASSERT_EQ(info.width, shape.w);
    ASSERT_EQ(info.height, shape.h);
    for (int b = 0; b < shape.bands; ++b) {
        const auto input = s.Band(b);
        ExpectNear(tavtest::ReadBand(dir.file("dwt.tif"), b + 1), ReferenceImage(input, shape.w, shape.h),
                   kForwardTolerance * Peak(input), "band " + std::to_string(b + 1));
    }
}

// Even and odd widths and heights, the one-pixel and one-line borders included.
const Shape kForwardShapes[] = {{8, 6, 2}, {7, 5, 3}, {9, 4, 2}, {6, 11, 3}, {1, 1, 2}, {2, 3, 2}, {13, 1, 2}};

INSTANTIATE_TEST_SUITE_P(ShapesAndTypes, ForwardAgainstReference,
                         ::testing::Combine(::testing::ValuesIn(kForwardShapes), ::testing::ValuesIn(kTypes)),
                         [](const auto& info) {
                             return ShapeName(std::get<0>(info.param)) + "_" +
                                    GDALGetDataTypeName(std::get<1>(info.param).type);
                         });

TEST(ForwardLayout, ConstantBandKeepsItsValueInTheApproximationAndNoDetailInside)
{
    // 8 x 6 of 10: LL is 10 but along the last low-pass column and row, which see the zero
    // padding: (lo0 + lo1) 10 = 9.330127 there, and that squared at their corner.
    TempDir dir;
    tavtest::RasterShape raster;
    raster.width = 8;
    raster.height = 6;
    raster.type = GDT_Int16;
    tavtest::WriteRaster(dir.file("c.tif"), raster, [](int, int, int) { return 10; });
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, dir.file("c.tif"), dir.file("dwt.tif"))));
    const auto out = tavtest::ReadBand(dir.file("dwt.tif"), 1);
    const double edge = kLo[0] + kLo[1];
    EXPECT_NEAR(10 * edge, 9.330127, 1e-6);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x) {
            const double v = out[y * 8 + x];
            const bool highInRow = x >= 4, highInColumn = y >= 3;
            // The first high-pass value of a line sees the left border extension.
            const bool border = (highInRow && x == 4) || (highInColumn && y == 3);
            if (!highInRow && !highInColumn) {
                EXPECT_NEAR(v, 10 * (x == 3 ? edge : 1) * (y == 2 ? edge : 1), 1e-5) << x << "," << y;
            } else if (!border) {
                EXPECT_NEAR(v, 0, 1e-5) << x << "," << y;
            }
        }
}

// --- Georeference ------------------------------------------------------------------------------

TEST(Georeference, OutputKeepsTheGeoTransformAndCoordinateSystem)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, 4, 2, kTypes[1]);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.tif"))));
    ASSERT_TRUE(h.Run(TransRecord(3, false, dir.file("dwt.tif"), dir.file("back.tif"))));
    const auto in = tavtest::Info(s.path);
    for (const char* name : {"dwt.tif", "back.tif"}) {
        const auto out = tavtest::Info(dir.file(name));
        for (int i = 0; i < 6; ++i)
            EXPECT_DOUBLE_EQ(out.gt[i], tavtest::kTestGeoTransform[i]) << name << " term " << i;
        EXPECT_FALSE(out.wkt.empty()) << name;
        EXPECT_EQ(out.wkt, in.wkt) << name;
    }
}

TEST(Georeference, InputReferencedByControlPointsGivesNoCoordinateSystem)
{
    // A VRT carries both a coordinate system and control points, which GTiff never does.
    TempDir dir;
    tavtest::RasterShape raster;
    raster.width = 4;
    raster.height = 4;
    raster.geo = false;
    tavtest::WriteRaster(dir.file("plain.tif"), raster, [](int, int x, int y) { return x + 10 * y; });
    const std::string vrt = R"(<VRTDataset rasterXSize="4" rasterYSize="4">
  <SRS>EPSG:31985</SRS>%s
  <VRTRasterBand dataType="Float32" band="1"><SimpleSource>
    <SourceFilename relativeToVRT="1">plain.tif</SourceFilename><SourceBand>1</SourceBand>
  </SimpleSource></VRTRasterBand></VRTDataset>)";
    const std::string gcps = R"(
  <GCPList Projection="EPSG:4326">
    <GCP Id="1" Pixel="0" Line="0" X="-35" Y="-8"/><GCP Id="2" Pixel="4" Line="0" X="-34.9" Y="-8"/>
    <GCP Id="3" Pixel="0" Line="4" X="-35" Y="-8.1"/>
  </GCPList>)";
    for (const bool withGcps : {false, true}) {
        std::string text = vrt;
        text.replace(text.find("%s"), 2, withGcps ? gcps : "");
        tavtest::WriteText(dir.file("in.vrt"), text);
        AlgoHarness h;
        ASSERT_TRUE(h.Run(TransRecord(3, true, dir.file("in.vrt"), dir.file("dwt.tif")))) << h.Text().toStdString();
        EXPECT_EQ(tavtest::Info(dir.file("dwt.tif")).wkt.empty(), withGcps) << withGcps;
    }
}

// --- The worker's own arguments: window and band list ----------------------------------------

TEST(Window, OriginMovesToTheWindowAndOnlyItsPixelsAreTransformed)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 9, 7, 2, kTypes[5]);
    const double gt[6] = {1000, 2, 0.5, 5000, 0.25, -3};
    {
        GDALDataset* ds = GDALDataset::Open(s.path.c_str(), GDAL_OF_RASTER | GDAL_OF_UPDATE);
        ds->SetGeoTransform(const_cast<double*>(gt));
        GDALClose(ds);
    }
    // Columns 2..6, rows 1..3: a 5 x 3 window.
    TavTransformFunc algo;
    WaveletTransformFunc worker(&algo);
    ASSERT_TRUE(worker.Forward(QString::fromStdString(s.path), dir.qfile("win.tif"), "GTiff", nullptr, 0, 2, 6, 1, 3));
    const auto info = tavtest::Info(dir.file("win.tif"));
    ASSERT_EQ(info.width, 5);
    ASSERT_EQ(info.height, 3);
    const double expected[6] = {1000 + 2 * 2 + 0.5 * 1, 2, 0.5, 5000 + 0.25 * 2 - 3 * 1, 0.25, -3};
    for (int i = 0; i < 6; ++i)
        EXPECT_DOUBLE_EQ(info.gt[i], expected[i]) << "term " << i;
    for (int b = 0; b < 2; ++b) {
        const auto whole = s.Band(b);
        std::vector<double> window;
        for (int y = 1; y <= 3; ++y)
            for (int x = 2; x <= 6; ++x)
                window.push_back(whole[y * 9 + x]);
        ExpectNear(tavtest::ReadBand(dir.file("win.tif"), b + 1), ReferenceImage(window, 5, 3),
                   kForwardTolerance * Peak(window), "band " + std::to_string(b + 1));
    }
}

TEST(Window, NegativeFirstColumnOrRowMeansTheWholeImage)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, 5, 1, kTypes[0]);
    TavTransformFunc algo;
    WaveletTransformFunc worker(&algo);
    const int windows[][4] = {{-1, 2, 0, 1}, {1, 3, -1, 2}};
    for (const auto& w : windows) {
        const QString out = dir.qfile(Numbered("w", w[0]));
        ASSERT_TRUE(worker.Forward(QString::fromStdString(s.path), out, "GTiff", nullptr, 0, w[0], w[1], w[2], w[3]));
        const auto info = tavtest::Info(out.toStdString());
        EXPECT_EQ(info.width, 6);
        EXPECT_EQ(info.height, 5);
    }
}

TEST(BandList, ZeroBasedIndicesPickTheBandsInTheirOrder)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 5, 4, 3, kTypes[2]);
    TavTransformFunc algo;
    WaveletTransformFunc worker(&algo);
    const int bands[] = {2, 0};
    ASSERT_TRUE(worker.Forward(QString::fromStdString(s.path), dir.qfile("pick.tif"), "GTiff", bands, 2, -1, -1, -1, -1));
    ASSERT_EQ(tavtest::Info(dir.file("pick.tif")).bands, 2);
    for (int i = 0; i < 2; ++i) {
        const auto input = s.Band(bands[i]);
        ExpectNear(tavtest::ReadBand(dir.file("pick.tif"), i + 1), ReferenceImage(input, 5, 4),
                   kForwardTolerance * Peak(input), "output band " + std::to_string(i + 1));
    }
}

TEST(BandList, MoreBandsListedThanPresentFailWithoutTextOrOutput)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 4, 4, 2, kTypes[5]);
    const int bands[] = {0, 1, 0};
    for (bool forward : {true, false}) {
        TavTransformFunc algo;
        WaveletTransformFunc worker(&algo);
        const QString in = QString::fromStdString(s.path), out = dir.qfile("o.tif");
        const bool ok = forward ? worker.Forward(in, out, "GTiff", bands, 3, -1, -1, -1, -1)
                                : worker.Inverse(in, out, "GTiff", 6, bands, 3, -1, -1, -1, -1, 100000000);
        EXPECT_FALSE(ok) << forward;
        EXPECT_TRUE(worker.ErrorText().isEmpty()) << forward;
        EXPECT_FALSE(Exists(dir.file("o.tif"))) << forward;
    }
}

// --- Round trips ------------------------------------------------------------------------------

class RoundTrip : public ::testing::TestWithParam<std::tuple<Shape, TypeRange>> {};

TEST_P(RoundTrip, InverseOfForwardReturnsEveryBand)
{
    const auto [shape, range] = GetParam();
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", shape.w, shape.h, shape.bands, range, 7);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.tif")))) << h.Text().toStdString();
    ASSERT_TRUE(h.Run(TransRecord(3, false, dir.file("dwt.tif"), dir.file("back.tif")))) << h.Text().toStdString();
    const auto info = tavtest::Info(dir.file("back.tif"));
    ASSERT_EQ(info.type, GDT_Float32);
    ASSERT_EQ(info.bands, shape.bands);
    for (int b = 0; b < shape.bands; ++b) {
        const auto input = s.Band(b);
        ExpectNear(tavtest::ReadBand(dir.file("back.tif"), b + 1), input, kRoundTripTolerance * Peak(input),
                   "band " + std::to_string(b + 1));
    }
    EXPECT_FALSE(Exists(WaveletTempPath(dir.qfile("back.tif")).toStdString()));
}

// Even and odd widths and heights, 1 to 6 bands; inputs spanning zero or starting at it, so the
// peak magnitude is the range (or half of it).
const Shape kRoundTripShapes[] = {{1, 1, 1}, {2, 2, 2}, {5, 3, 1}, {8, 6, 3}, {7, 9, 6},
                                  {16, 11, 4}, {33, 20, 5}, {1, 7, 2}, {9, 1, 1}, {64, 48, 2}};

INSTANTIATE_TEST_SUITE_P(ShapesAndBands, RoundTrip,
                         ::testing::Combine(::testing::ValuesIn(kRoundTripShapes),
                                            ::testing::Values(kTypes[0], kTypes[2], kTypes[5])),
                         [](const auto& info) {
                             return ShapeName(std::get<0>(info.param)) + "_" +
                                    GDALGetDataTypeName(std::get<1>(info.param).type);
                         });

TEST(RoundTrip, LandsatSceneComesBack)
{
    const std::string scene = tavtest::SampleScene();
    if (scene.empty())
        GTEST_SKIP() << "../shared/data/L7_ETMs.tif is not there; the real-scene round trip is skipped";
    TempDir dir;
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, scene, dir.file("dwt.tif")))) << h.Text().toStdString();
    ASSERT_TRUE(h.Run(TransRecord(3, false, dir.file("dwt.tif"), dir.file("back.tif")))) << h.Text().toStdString();
    const auto in = tavtest::Info(scene);
    ASSERT_EQ(tavtest::Info(dir.file("back.tif")).bands, in.bands);
    for (int b = 1; b <= in.bands; ++b) {
        const auto input = tavtest::ReadBand(scene, b);
        ExpectNear(tavtest::ReadBand(dir.file("back.tif"), b), input, kRoundTripTolerance * Peak(input),
                   "band " + std::to_string(b));
    }
}

// Integer outputs get the rebuilt values rounded to the nearest whole number and held inside
// the type's range, as GDAL converts.
TEST(InverseOutputType, IntegerTypesRoundAndClampTheRebuiltValues)
{
    TempDir dir;
    tavtest::RasterShape raster;
    raster.width = 7;
    raster.height = 6;
    // Quarter values never round ambiguously; -40 .. 300 runs past both ends of Byte.
    auto fn = [](int, int x, int y) { return -40.25 + 10 * x + 47 * y + ((x + y) % 2 ? 0.5 : 0); };
    tavtest::WriteRaster(dir.file("in.tif"), raster, fn);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, dir.file("in.tif"), dir.file("dwt.tif"))));
    struct Case {
        int code;
        double lo, hi;
    };
    for (const Case c : {Case{1, 0, 255}, Case{3, -32768, 32767}, Case{5, -2147483648.0, 2147483647.0}}) {
        TavTransformFunc algo;
        WaveletTransformFunc worker(&algo);
        const QString out = dir.qfile(Numbered("t", c.code));
        ASSERT_TRUE(worker.Inverse(dir.qfile("dwt.tif"), out, "GTiff", c.code, nullptr, 0, -1, -1, -1, -1, 100000000));
        const auto back = tavtest::ReadBand(out.toStdString(), 1);
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 7; ++x)
                EXPECT_EQ(back[y * 7 + x], std::clamp(std::round(fn(0, x, y)), c.lo, c.hi))
                    << "type " << c.code << " at " << x << "," << y;
    }
}

// No GDAL block cache while it lives: every partly written block goes to disk and is read back
// to be completed.
class NoBlockCache {
public:
    NoBlockCache()
    {
        OrvDataSource::DatasetFactory::Instance(); // sets its own cache once; this comes after
        m_saved = GDALGetCacheMax64();
        GDALSetCacheMax64(0);
    }
    ~NoBlockCache() { GDALSetCacheMax64(m_saved); }

private:
    GIntBig m_saved = 0;
};

// The memory budget only decides how many rows go into a chunk, never the numbers; with the block
// cache off, chunk edges anywhere in the files.
class InverseChunks : public ::testing::TestWithParam<Shape> {};

TEST_P(InverseChunks, SmallMemoryBudgetsGiveTheSameBitsAsOneChunk)
{
    const Shape shape = GetParam();
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", shape.w, shape.h, shape.bands, kTypes[5]);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.tif"))));
    const long long perLine = 8 * (std::max(shape.w, shape.h) + 4);
    NoBlockCache noCache;
    std::vector<std::vector<double>> reference;
    for (long long budget : {100000000LL, perLine * 101, perLine * 5, perLine * 2, 0LL}) {
        TavTransformFunc algo;
        WaveletTransformFunc worker(&algo);
        const std::string out = dir.file(Numbered("b", budget));
        ASSERT_TRUE(worker.Inverse(dir.qfile("dwt.tif"), QString::fromStdString(out), "GTiff", 6, nullptr, 0, -1, -1,
                                   -1, -1, budget));
        for (int b = 0; b < shape.bands; ++b) {
            const auto band = tavtest::ReadBand(out, b + 1);
            if (static_cast<int>(reference.size()) < shape.bands)
                reference.push_back(band);
            else
                EXPECT_EQ(band, reference[b]) << "budget " << budget << " band " << b + 1;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, InverseChunks, ::testing::Values(Shape{23, 17, 2}, Shape{300, 21, 1}, Shape{19, 270, 1}),
                         [](const auto& info) { return ShapeName(info.param); });

// --- Row-order streaming against the whole-band kernel passes ---------------------------------

// A band read back as the Float32 it was written as, or as the run reads it.
std::vector<float> Floats(const std::vector<double>& v)
{
    return std::vector<float>(v.begin(), v.end());
}

// Bit patterns, so that even the sign of a zero must agree.
std::vector<std::uint32_t> Bits(const std::vector<float>& v)
{
    std::vector<std::uint32_t> bits(v.size());
    std::transform(v.begin(), v.end(), bits.begin(), [](float x) { return std::bit_cast<std::uint32_t>(x); });
    return bits;
}

// What the runs computed band by band, whole: rows then columns, and back.
std::vector<float> WholeBandForward(std::vector<float> band, std::size_t w, std::size_t h)
{
    std::vector<float> scratch(std::max(WaveletKernel::LineScratchSize(w), WaveletKernel::ColumnScratchSize(w)));
    std::vector<float> out(band.size());
    WaveletKernel::ForwardRows(band.data(), band.data(), w, h, scratch.data());
    WaveletKernel::ForwardColumns(band.data(), out.data(), w, h, scratch.data());
    return out;
}

std::vector<float> WholeBandInverse(const std::vector<float>& band, std::size_t w, std::size_t h)
{
    std::vector<float> scratch(std::max(WaveletKernel::LineScratchSize(w), WaveletKernel::ColumnScratchSize(w)));
    std::vector<float> out(band.size());
    WaveletKernel::InverseColumns(band.data(), out.data(), w, h, scratch.data());
    WaveletKernel::InverseRows(out.data(), out.data(), w, h, scratch.data());
    return out;
}

struct StreamCase {
    Shape shape;
    std::size_t rowsPerChunk; // 0: the run's own size
};

std::string StreamCaseName(const StreamCase& c)
{
    return ShapeName(c.shape) + "_rows" + std::to_string(c.rowsPerChunk);
}

void PrintTo(const StreamCase& c, std::ostream* os) { *os << StreamCaseName(c); }

// Chunk edges at every parity and offset against the pairs of output rows: the streamed runs
// must write exactly the values the whole-band passes give.
class StreamedRuns : public ::testing::TestWithParam<StreamCase> {};

TEST_P(StreamedRuns, ForwardEqualsWholeBandPassesBitForBit)
{
    const auto [shape, rows] = GetParam();
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", shape.w, shape.h, shape.bands, kTypes[5]);
    TavTransformFunc algo;
    WaveletTransformFunc worker(&algo);
    worker.SetRowsPerChunk(rows);
    ASSERT_TRUE(worker.Forward(QString::fromStdString(s.path), dir.qfile("dwt.tif"), "GTiff", nullptr, 0, -1, -1, -1,
                               -1));
    for (int b = 0; b < shape.bands; ++b) {
        const auto want = WholeBandForward(Floats(s.Band(b)), shape.w, shape.h);
        EXPECT_EQ(Bits(Floats(tavtest::ReadBand(dir.file("dwt.tif"), b + 1))), Bits(want)) << "band " << b + 1;
    }
}

TEST_P(StreamedRuns, InverseEqualsWholeBandPassesBitForBit)
{
    const auto [shape, rows] = GetParam();
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", shape.w, shape.h, shape.bands, kTypes[5]);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.tif"))));
    TavTransformFunc algo;
    WaveletTransformFunc worker(&algo);
    worker.SetRowsPerChunk(rows);
    ASSERT_TRUE(worker.Inverse(dir.qfile("dwt.tif"), dir.qfile("back.tif"), "GTiff", 6, nullptr, 0, -1, -1, -1, -1,
                               100000000));
    for (int b = 0; b < shape.bands; ++b) {
        const auto want = WholeBandInverse(Floats(tavtest::ReadBand(dir.file("dwt.tif"), b + 1)), shape.w, shape.h);
        EXPECT_EQ(Bits(Floats(tavtest::ReadBand(dir.file("back.tif"), b + 1))), Bits(want)) << "band " << b + 1;
    }
    EXPECT_FALSE(Exists(dir.file("back_temp.tif")));
}

std::vector<StreamCase> StreamCases()
{
    // Even and odd sizes, one row and one column, 1 to 6 bands.
    const Shape shapes[] = {{8, 6, 1}, {7, 5, 3}, {9, 13, 2}, {5, 12, 6}, {1, 9, 2},
                            {6, 1, 4}, {2, 3, 5}, {33, 21, 3}, {12, 2, 1}, {4, 4, 2}};
    std::vector<StreamCase> cases;
    for (const Shape& shape : shapes)
        for (std::size_t rows : {1, 2, 3, 4, 5, 7, 0})
            cases.push_back({shape, rows});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(ShapesAndChunks, StreamedRuns, ::testing::ValuesIn(StreamCases()),
                         [](const auto& info) { return StreamCaseName(info.param); });

TEST(StreamedRuns, WindowAndBandListStreamTheirOwnPixels)
{
    // Columns 3..11 and rows 2..14 of bands 3 and 1, in chunks of 3 rows.
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 14, 17, 3, kTypes[1]);
    const int bands[] = {2, 0};
    TavTransformFunc algo;
    WaveletTransformFunc worker(&algo);
    worker.SetRowsPerChunk(3);
    ASSERT_TRUE(worker.Forward(QString::fromStdString(s.path), dir.qfile("win.tif"), "GTiff", bands, 2, 3, 11, 2, 14));
    for (int i = 0; i < 2; ++i) {
        const auto whole = s.Band(bands[i]);
        std::vector<float> window;
        for (int y = 2; y <= 14; ++y)
            for (int x = 3; x <= 11; ++x)
                window.push_back(static_cast<float>(whole[y * 14 + x]));
        EXPECT_EQ(Bits(Floats(tavtest::ReadBand(dir.file("win.tif"), i + 1))), Bits(WholeBandForward(window, 9, 13)))
            << "output band " << i + 1;
    }
}

// --- Failures ---------------------------------------------------------------------------------

TEST(InverseFailure, ByteInputIsRefusedBeforeAnyOutputExists)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "byte.tif", 6, 4, 2, kTypes[0]);
    TavTransformFunc algo;
    WaveletTransformFunc worker(&algo);
    EXPECT_FALSE(worker.Inverse(QString::fromStdString(s.path), dir.qfile("back.tif"), "GTiff", 6, nullptr, 0, -1, -1,
                                -1, -1, 100000000));
    EXPECT_EQ(worker.ErrorText(), QString("Datatype Error!"));
    EXPECT_FALSE(Exists(dir.file("back.tif")));
    EXPECT_FALSE(Exists(dir.file("back_temp.tif")));

    AlgoHarness h;
    EXPECT_FALSE(h.Run(TransRecord(3, false, s.path, dir.file("back.tif"))));
    EXPECT_EQ(h.Code(), 1);
    EXPECT_EQ(h.Text(), QString("Datatype Error!"));
}

// Translates every text to "[context] text", so the context a message was looked up in shows.
class ContextTagger : public QTranslator {
public:
    QString translate(const char* context, const char* source, const char* = nullptr, int = -1) const override
    {
        return QStringLiteral("[%1] %2").arg(QLatin1String(context), QLatin1String(source));
    }
    bool isEmpty() const override { return false; }
};

TEST(Translation, ForwardLooksUpItsOpenFailureUnderTheFourierLabelAndTheRestUnderItsOwn)
{
    int argc = 1;
    char name[] = "wavelet_transform_tests";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    ContextTagger tagger;
    QCoreApplication::installTranslator(&tagger);

    TempDir dir;
    AlgoHarness h;
    EXPECT_FALSE(h.Run(TransRecord(3, true, dir.file("missing.tif"), dir.file("o.tif"))));
    EXPECT_EQ(h.Text(), QString("[TavTransFFTFunc] Failed to open the input file!"));
    EXPECT_FALSE(h.Run(TransRecord(3, false, dir.file("missing.tif"), dir.file("o.tif"))));
    EXPECT_EQ(h.Text(), QString("[WaveletTransformFunc] Failed to open the input file!"));

    const Scene byte = MakeScene(dir, "byte.tif", 4, 4, 1, kTypes[0]);
    EXPECT_FALSE(h.Run(TransRecord(3, false, byte.path, dir.file("o.tif"))));
    EXPECT_EQ(h.Text(), QString("[WaveletTransformFunc] Datatype Error!"));

    ASSERT_TRUE(h.Run(TransRecord(3, true, byte.path, dir.file("dwt.tif"))));
    EXPECT_EQ(h.events[1].message, QString("[WaveletTransformFunc] Forward Wavelet Transform is running..."));
    EXPECT_FALSE(h.Run(TransRecord(3, true, byte.path, dir.file("no/such/folder/o.tif"))));
    EXPECT_EQ(h.Text(), QString("[WaveletTransformFunc] OutFile Creat Fail!"));
    QCoreApplication::removeTranslator(&tagger);
}

struct FailureCase {
    const char* name;
    bool forward;
    const char* input;  // "scene", "missing-source" or "huge"
    const char* output;
    const char* format;
    const char* text;
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class RunFailure : public ::testing::TestWithParam<FailureCase> {};

TEST_P(RunFailure, FailsWithItsTextAndLeavesNoOutput)
{
    const FailureCase c = GetParam();
    TempDir dir;
    std::string in = MakeScene(dir, "scene.tif", 6, 4, 2, kTypes[5]).path;
    if (std::string(c.input) == "missing-source") {
        // A band whose pixels cannot be read: its source file is gone.
        in = dir.file("broken.vrt");
        tavtest::WriteText(in, R"(<VRTDataset rasterXSize="6" rasterYSize="4">
  <VRTRasterBand dataType="Float32" band="1"><SimpleSource>
    <SourceFilename relativeToVRT="1">gone.tif</SourceFilename><SourceBand>1</SourceBand>
    <SrcRect xOff="0" yOff="0" xSize="6" ySize="4"/><DstRect xOff="0" yOff="0" xSize="6" ySize="4"/>
  </SimpleSource></VRTRasterBand></VRTDataset>)");
    } else if (std::string(c.input) == "huge") {
        // Rows of 300 bands of 2e9 pixels: even the few rows the run holds are terabytes, more than
        // any allocator gives (AddressSanitizer's included). A VRT output costs nothing to create.
        in = dir.file("huge.vrt");
        std::string vrt = R"(<VRTDataset rasterXSize="2000000000" rasterYSize="2000000000">)";
        for (int b = 1; b <= 300; ++b)
            vrt += R"(<VRTRasterBand dataType="Byte" band=")" + std::to_string(b) + R"("/>)";
        tavtest::WriteText(in, vrt + "</VRTDataset>");
    }
    AlgoHarness h;
    EXPECT_FALSE(h.Run(TransRecord(3, c.forward, in, dir.file(c.output), c.format)));
    EXPECT_EQ(h.Code(), 1);
    EXPECT_EQ(h.Text(), QString(c.text));
    EXPECT_FALSE(Exists(dir.file(c.output)));
    EXPECT_FALSE(Exists(WaveletTempPath(dir.qfile(c.output)).toStdString()));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RunFailure,
    ::testing::Values(FailureCase{"ForwardFolderMissing", true, "scene", "no/folder/o.tif", "GTiff", "OutFile Creat Fail!"},
                      FailureCase{"InverseFolderMissing", false, "scene", "no/folder/o.tif", "GTiff", "OutFile Creat Fail!"},
                      FailureCase{"ForwardUnknownFormat", true, "scene", "o.tif", "NoSuchFormat", "OutFile Creat Fail!"},
                      FailureCase{"InverseUnknownFormat", false, "scene", "o.tif", "NoSuchFormat", "OutFile Creat Fail!"},
                      FailureCase{"ForwardUnreadableBand", true, "missing-source", "o.tif", "GTiff", "Convert Data Fail!"},
                      FailureCase{"ForwardNoMemory", true, "huge", "o.vrt", "VRT", "Apply memory Fail!"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(InverseFailure, TemporaryNamedLikeTheInputIsRefusedAndTheInputKept)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "x_temp.tif", 4, 4, 1, kTypes[5]);
    const std::string before = Slurp(s.path);
    TavTransformFunc algo;
    WaveletTransformFunc worker(&algo);
    EXPECT_FALSE(worker.Inverse(QString::fromStdString(s.path), dir.qfile("x.tif"), "GTiff", 6, nullptr, 0, -1, -1,
                                -1, -1, 100000000));
    EXPECT_EQ(worker.ErrorText(), QString("OutFile Creat Fail!"));
    EXPECT_EQ(Slurp(s.path), before);
}

// The need is the bands times band 0's sample size times the whole input, even for a window;
// less than 100 MiB left over fails. 3 bands of 16 x 8: Int16 needs 768 bytes, Float32 1536.
struct DiskCase {
    const char* name;
    bool forward;
    GDALDataType type;
    long long need;
};

void PrintTo(const DiskCase& c, std::ostream* os) { *os << c.name; }

class DiskSpace : public ::testing::TestWithParam<DiskCase> {};

TEST_P(DiskSpace, RelativeOutputNeedsItsBytesPlus100MiBFree)
{
    const DiskCase c = GetParam();
    TempDir dir;
    const TypeRange range{c.type, -100, 100};
    const Scene s = MakeScene(dir, "in.tif", 16, 8, 3, range);
    InFolder here(dir.path());
    const long long reserve = 104857600;
    // Free byte counts a float holds exactly, 64 either side of the need.
    for (const long long slack : {0LL, -64LL}) {
        FakeFreeSpace fake(static_cast<unsigned long long>(reserve + c.need + slack));
        TavTransformFunc algo;
        WaveletTransformFunc worker(&algo);
        const bool ok = c.forward
                            ? worker.Forward(QString::fromStdString(s.path), "o.tif", "GTiff", nullptr, 0, 1, 4, 2, 5)
                            : worker.Inverse(QString::fromStdString(s.path), "o.tif", "GTiff", 6, nullptr, 0, 1, 4, 2,
                                             5, 100000000);
        if (slack == 0) {
            EXPECT_TRUE(ok) << worker.ErrorText().toStdString();
        } else {
            EXPECT_FALSE(ok);
            EXPECT_EQ(worker.ErrorText(), QString("Low Disk Space!"));
        }
        std::filesystem::remove(dir.path() / "o.tif");
    }
}

INSTANTIATE_TEST_SUITE_P(Runs, DiskSpace,
                         ::testing::Values(DiskCase{"Forward", true, GDT_Int16, 768},
                                           DiskCase{"Inverse", false, GDT_Float32, 1536}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(DiskSpace, FullDiskStopsBothRunsThroughExecuteButNotForAbsolutePaths)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, 4, 2, kTypes[5]);
    FakeFreeSpace full(0);
    InFolder here(dir.path());
    for (bool forward : {true, false}) {
        AlgoHarness h;
        EXPECT_FALSE(h.Run(TransRecord(3, forward, s.path, "rel.tif")));
        EXPECT_EQ(h.Code(), 1);
        EXPECT_EQ(h.Text(), QString("Low Disk Space!"));
        EXPECT_FALSE(Exists(dir.file("rel.tif")));
        EXPECT_FALSE(Exists(dir.file("rel_temp.tif")));
        // An absolute path is not checked.
        EXPECT_TRUE(h.Run(TransRecord(3, forward, s.path, dir.file("abs.tif")))) << h.Text().toStdString();
    }
}

// --- Cancellation -----------------------------------------------------------------------------

// Terminate at the n-th report of the worker: the run polls after every report and before every
// chunk of rows, so it stops there.
struct CancelCase {
    const char* name;
    bool forward;
    int stopAtReport; // 1-based, counting the worker's reports only
    std::vector<double> percents;
};

void PrintTo(const CancelCase& c, std::ostream* os) { *os << c.name; }

class CancelAtAReport : public ::testing::TestWithParam<CancelCase> {};

TEST_P(CancelAtAReport, StopsAtTheNextPollAndLeavesNothing)
{
    const CancelCase c = GetParam();
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 8, 6, 2, kTypes[5]);
    std::string in = s.path;
    if (!c.forward) {
        AlgoHarness fwd;
        ASSERT_TRUE(fwd.Run(TransRecord(3, true, s.path, dir.file("dwt.tif"))));
        in = dir.file("dwt.tif");
    }
    AlgoHarness h;
    int reports = -1; // Execute's own 0 comes first
    h.onProgress = [&](double) {
        if (++reports == c.stopAtReport)
            h.algo().Terminate();
    };
    EXPECT_FALSE(h.Run(TransRecord(3, c.forward, in, dir.file("out.tif"))));
    EXPECT_EQ(h.Code(), -1010);
    EXPECT_TRUE(h.Text().isEmpty());
    EXPECT_EQ(h.Percents(), c.percents);
    EXPECT_FALSE(Exists(dir.file("out.tif")));
    EXPECT_FALSE(Exists(dir.file("out_temp.tif")));
}

// Forward, 2 bands: marks 0, 25, 50 and 75 as the rows go by. Inverse, 2 bands: 1, 2, 3, 5, then
// 28.75 in the column synthesis, 52.5 and 76.25 in the row synthesis. A one-chunk scene reports
// every mark of a pass before its chunk.
INSTANTIATE_TEST_SUITE_P(
    Reports, CancelAtAReport,
    ::testing::Values(CancelCase{"ForwardFirstMark", true, 1, {0, 0, 100}},
                      CancelCase{"ForwardSecondMark", true, 2, {0, 0, 25, 100}},
                      CancelCase{"ForwardThirdMark", true, 3, {0, 0, 25, 50, 100}},
                      CancelCase{"InverseBeforeColumns", false, 4, {0, 1, 2, 3, 5, 100}},
                      CancelCase{"InverseInColumns", false, 5, {0, 1, 2, 3, 5, 28.75, 100}},
                      CancelCase{"InverseBeforeRows", false, 6, {0, 1, 2, 3, 5, 28.75, 52.5, 100}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Cancellation, TheWorkerItselfRemovesItsTemporary)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 8, 6, 1, kTypes[5]);
    AlgoHarness fwd;
    ASSERT_TRUE(fwd.Run(TransRecord(3, true, s.path, dir.file("dwt.tif"))));
    AlgoHarness h;
    h.algo().Terminate();
    WaveletTransformFunc worker(&h.algo());
    EXPECT_FALSE(worker.Inverse(dir.qfile("dwt.tif"), dir.qfile("back.tif"), "GTiff", 6, nullptr, 0, -1, -1, -1, -1,
                                100000000));
    EXPECT_FALSE(Exists(dir.file("back_temp.tif")));
}

// --- The temporary, the side file and progress -------------------------------------------------

TEST(Temporary, HoldsTheColumnsBetweenThePassesAndIsGoneAfterASuccess)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 8, 6, 2, kTypes[5]);
    AlgoHarness fwd;
    ASSERT_TRUE(fwd.Run(TransRecord(3, true, s.path, dir.file("dwt.tif"))));
    AlgoHarness h;
    std::vector<bool> seen;
    h.onProgress = [&](double) { seen.push_back(Exists(dir.file("back_temp.tif"))); };
    WaveletTransformFunc worker(&h.algo());
    ASSERT_TRUE(worker.Inverse(dir.qfile("dwt.tif"), dir.qfile("back.tif"), "GTiff", 6, nullptr, 0, -1, -1, -1, -1,
                               100000000));
    // Reports 1, 2, 3, 5, then the marks of both passes: the temporary exists from 3 on.
    EXPECT_EQ(seen, (std::vector<bool>{false, false, true, true, true, true, true}));
    EXPECT_FALSE(Exists(dir.file("back_temp.tif")));
    EXPECT_FALSE(Exists(dir.file("dwt_temp.tif")));
}

TEST(SideFile, RpcCoefficientsAreCopiedBesideBothOutputs)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "scene.tif", 6, 4, 1, kTypes[5]);
    const std::string rpc = "LINE_OFF: 100\nSAMP_OFF: 200\n";
    tavtest::WriteText(dir.file("scene.rpb"), rpc);
    tavtest::WriteText(dir.file("dwt.v2.rpb"), "stale");
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.v2.tif"))));
    EXPECT_EQ(Slurp(dir.file("dwt.v2.rpb")), rpc) << "an existing side file is replaced";
    ASSERT_TRUE(h.Run(TransRecord(3, false, dir.file("dwt.v2.tif"), dir.file("back.tif"))));
    EXPECT_EQ(Slurp(dir.file("back.rpb")), rpc);
    // Without a side file beside the input, none appears beside the output.
    std::filesystem::remove(dir.path() / "back.rpb");
    ASSERT_TRUE(h.Run(TransRecord(3, true, dir.file("back.tif"), dir.file("plain.tif"))));
    EXPECT_FALSE(Exists(dir.file("plain.rpb")));
}

TEST(Progress, ForwardReportsTwicePerBandGrowingWithItsOwnMessage)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, 4, 3, kTypes[0]);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.tif"))));
    const std::vector<double> want{0, 0, 100.0 / 6, 200.0 / 6, 300.0 / 6, 400.0 / 6, 500.0 / 6, 100};
    ASSERT_EQ(h.events.size(), want.size());
    for (std::size_t i = 0; i < want.size(); ++i) {
        EXPECT_NEAR(h.events[i].percent, want[i], 1e-9) << i;
        EXPECT_EQ(h.events[i].message, i == 0 || i + 1 == want.size() ? QString() : QString(kForwardText)) << i;
        EXPECT_EQ(h.events[i].context, &h.algo());
    }
}

TEST(Progress, InverseBeginsWithTheForwardWordingAt1And2And3)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, 4, 2, kTypes[5]);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.tif"))));
    ASSERT_TRUE(h.Run(TransRecord(3, false, dir.file("dwt.tif"), dir.file("back.tif"))));
    const std::vector<double> want{0, 1, 2, 3, 5, 28.75, 52.5, 76.25, 100};
    EXPECT_EQ(h.Percents(), want);
    ASSERT_EQ(h.events.size(), want.size());
    for (std::size_t i = 1; i <= 3; ++i)
        EXPECT_EQ(h.events[i].message, QString(kForwardText)) << i;
    for (std::size_t i = 4; i + 1 < want.size(); ++i)
        EXPECT_EQ(h.events[i].message, QString(kInverseText)) << i;
}

TEST(Progress, EveryChunkSizeGivesTheSameMarksOnce)
{
    // Chunks of one row put the marks in different chunks; none may repeat or go missing.
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, 9, 2, kTypes[5]);
    for (std::size_t rows : {1, 2, 3, 0}) {
        AlgoHarness h;
        WaveletTransformFunc forward(&h.algo());
        forward.SetRowsPerChunk(rows);
        ASSERT_TRUE(forward.Forward(QString::fromStdString(s.path), dir.qfile("dwt.tif"), "GTiff", nullptr, 0, -1, -1,
                                    -1, -1));
        EXPECT_EQ(h.Percents(), (std::vector<double>{0, 25, 50, 75})) << "rows " << rows;
        h.events.clear();
        WaveletTransformFunc inverse(&h.algo());
        inverse.SetRowsPerChunk(rows);
        ASSERT_TRUE(inverse.Inverse(dir.qfile("dwt.tif"), dir.qfile("back.tif"), "GTiff", 6, nullptr, 0, -1, -1, -1,
                                    -1, 100000000));
        EXPECT_EQ(h.Percents(), (std::vector<double>{1, 2, 3, 5, 28.75, 52.5, 76.25})) << "rows " << rows;
    }
}

} // namespace
