#include "AlgoHarness.h"
#include "OrvDataSource/DatasetFactory.h"
#include "TestSupport.h"
#include "WaveletReference.h"
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
#include <ostream>
#include <string>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
// The runs report a refused allocation; under AddressSanitizer an impossible request must come
// back null too, not abort.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

using tavtest::AlgoHarness;
using tavtest::Exists;
using tavtest::TempDir;
using tavtest::TransRecord;
using namespace wavelettest;

namespace {

// Single precision with taps rounded to seven decimals: the kernel's measured worst cases are
// 4.7e-7 (forward) and 7.3e-7 (round trip) of the input's peak magnitude; Float32 files add nothing.
constexpr double kForwardTolerance = 1e-6;
constexpr double kRoundTripTolerance = 1e-6;
constexpr long long kBudget = 100000000; // Execute's memory budget

const char* kForwardText = "Forward Wavelet Transform is running...";
const char* kInverseText = "Inverse Wavelet Transform is running...";

using tavtest::TypeRange;

// Ranges spanning zero or starting at it, so the peak magnitude is the range or half of it.
const TypeRange kTypes[] = {
    {GDT_Byte, 0, 255},         {GDT_UInt16, 0, 65535}, {GDT_Int16, -32768, 32767}, {GDT_UInt32, 0, 1e6},
    {GDT_Int32, -1e6, 1e6},     {GDT_Float32, -500, 1e3}, {GDT_Float64, -1e3, 1e3},
};

struct Shape {
    int w, h, bands;
};

std::string ShapeName(const Shape& s)
{
    return std::to_string(s.w) + "x" + std::to_string(s.h) + "x" + std::to_string(s.bands);
}

void PrintTo(const Shape& s, std::ostream* os) { *os << ShapeName(s); }

struct Scene {
    std::string path;
    Shape shape;
    tavtest::PixelFn fn;
    // Band b (0-based) as the run sees it: converted to single precision.
    std::vector<double> Band(int b) const
    {
        std::vector<double> v(static_cast<std::size_t>(shape.w) * shape.h);
        for (int y = 0; y < shape.h; ++y)
            for (int x = 0; x < shape.w; ++x)
                v[y * shape.w + x] = static_cast<float>(fn(b, x, y));
        return v;
    }
};

Scene MakeScene(const TempDir& dir, const std::string& name, Shape shape, const TypeRange& r = kTypes[5])
{
    Scene s{dir.file(name), shape, tavtest::RandomPixels(r, 1 + shape.w * 131 + shape.h * 17 + r.type)};
    tavtest::WriteRaster(s.path, tavtest::Shape(shape.w, shape.h, shape.bands, r.type), s.fn);
    return s;
}

QString Q(const std::string& s) { return QString::fromStdString(s); }

double Peak(const std::vector<double>& v)
{
    double p = 0;
    for (double x : v)
        p = std::max(p, std::fabs(x));
    return p;
}

// Every value within `bound`; the message names the worst one.
void ExpectNear(const std::vector<double>& got, const std::vector<double>& want, double bound, const std::string& what)
{
    ASSERT_EQ(got.size(), want.size()) << what;
    std::size_t at = 0;
    for (std::size_t i = 0; i < got.size(); ++i)
        if (std::fabs(got[i] - want[i]) > std::fabs(got[at] - want[at]))
            at = i;
    EXPECT_LE(std::fabs(got[at] - want[at]), bound)
        << what << ": worst at index " << at << ", got " << got[at] << " want " << want[at];
}

void ExpectPercents(const std::vector<double>& got, const std::vector<double>& want, const std::string& what = "")
{
    ASSERT_EQ(got.size(), want.size()) << what;
    for (std::size_t i = 0; i < got.size(); ++i)
        EXPECT_NEAR(got[i], want[i], 1e-9) << what << " report " << i;
}

// dir/dwt.tif, the forward run of `in` through Execute.
std::string Dwt(const TempDir& dir, const std::string& in)
{
    AlgoHarness h;
    EXPECT_TRUE(h.Run(TransRecord(3, true, in, dir.file("dwt.tif")))) << h.Text().toStdString();
    return dir.file("dwt.tif");
}

// The worker's runs over the whole image and every band.
bool Forward(WaveletTransformFunc& worker, const std::string& in, const std::string& out)
{
    return worker.Forward(Q(in), Q(out), "GTiff", nullptr, 0, -1, -1, -1, -1);
}

bool Inverse(WaveletTransformFunc& worker, const std::string& in, const std::string& out, int type = 6,
             long long budget = kBudget)
{
    return worker.Inverse(Q(in), Q(out), "GTiff", type, nullptr, 0, -1, -1, -1, -1, budget);
}

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

// No GDAL block cache while it lives: every partly written block goes to disk and is read back.
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

// The reports of a run over n bands: two marks per band, 100 j / 2n for the forward run; for the
// inverse 1, 2, 3 and 5, then 5 + 95 j / 2n.
std::vector<double> Marks(bool forward, int n)
{
    std::vector<double> v = forward ? std::vector<double>{} : std::vector<double>{1, 2, 3, 5};
    for (int j = forward ? 0 : 1; j < 2 * n; ++j)
        v.push_back(forward ? 100.0 * j / (2 * n) : 5 + 95.0 * j / (2 * n));
    return v;
}

// Execute's 0, the worker's marks with the algorithm as context, Execute's 100; the inverse's
// first three reports carry the forward wording.
void ExpectReports(AlgoHarness& h, bool forward, int n)
{
    std::vector<double> want = Marks(forward, n);
    want.insert(want.begin(), 0);
    want.push_back(100);
    ExpectPercents(h.Percents(), want, forward ? "forward" : "inverse");
    ASSERT_EQ(h.events.size(), want.size());
    for (std::size_t i = 1; i + 1 < h.events.size(); ++i) {
        EXPECT_EQ(h.events[i].message, QString(forward || i <= 3 ? kForwardText : kInverseText)) << i;
        EXPECT_EQ(h.events[i].context, &h.algo()) << i;
    }
    EXPECT_TRUE(h.events.front().message.isEmpty() && h.events.back().message.isEmpty());
}

// --- Forward against the direct computation, then back ------------------------------------------

class ForwardAndBack : public ::testing::TestWithParam<std::tuple<Shape, TypeRange>> {};

TEST_P(ForwardAndBack, ForwardMatchesRowsThenColumnsInDoubleAndInverseReturnsTheInput)
{
    const auto [shape, range] = GetParam();
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", shape, range);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.tif")))) << h.Text().toStdString();
    ExpectReports(h, true, shape.bands);
    ASSERT_TRUE(h.Run(TransRecord(3, false, dir.file("dwt.tif"), dir.file("back.tif")))) << h.Text().toStdString();
    ExpectReports(h, false, shape.bands);
    const auto in = tavtest::Info(s.path);
    for (const char* name : {"dwt.tif", "back.tif"}) {
        const auto out = tavtest::Info(dir.file(name));
        ASSERT_EQ(out.type, GDT_Float32) << name;
        ASSERT_EQ(out.bands, shape.bands) << name;
        ASSERT_EQ(out.width, shape.w) << name;
        ASSERT_EQ(out.height, shape.h) << name;
        EXPECT_TRUE(std::equal(out.gt, out.gt + 6, tavtest::kTestGeoTransform)) << name;
        EXPECT_FALSE(out.wkt.empty()) << name;
        EXPECT_EQ(out.wkt, in.wkt) << name;
    }
    for (int b = 0; b < shape.bands; ++b) {
        const auto input = s.Band(b);
        const std::string band = "band " + std::to_string(b + 1);
        ExpectNear(tavtest::ReadBand(dir.file("dwt.tif"), b + 1), ReferenceImage(input, shape.w, shape.h),
                   kForwardTolerance * Peak(input), "forward " + band);
        ExpectNear(tavtest::ReadBand(dir.file("back.tif"), b + 1), input, kRoundTripTolerance * Peak(input),
                   "round trip " + band);
    }
    EXPECT_FALSE(Exists(dir.file("back_temp.tif")));
}

// Even and odd widths and heights, one pixel, one row and one column, 1 to 6 bands.
const Shape kShapes[] = {{1, 1, 1}, {2, 3, 2},  {4, 4, 2},   {5, 3, 1},   {8, 6, 3},   {9, 4, 2},  {6, 11, 3},
                         {7, 16, 6}, {13, 1, 2}, {1, 7, 2}, {16, 11, 4}, {33, 20, 5}, {64, 48, 2}};

INSTANTIATE_TEST_SUITE_P(ShapesAndTypes, ForwardAndBack,
                         ::testing::Combine(::testing::ValuesIn(kShapes), ::testing::ValuesIn(kTypes)),
                         [](const auto& info) {
                             return ShapeName(std::get<0>(info.param)) + "_" +
                                    GDALGetDataTypeName(std::get<1>(info.param).type);
                         });

TEST(ForwardAndBack, LandsatSceneComesBack)
{
    const std::string scene = tavtest::SampleScene();
    if (scene.empty())
        GTEST_SKIP() << "../shared/data/L7_ETMs.tif is not there; the real-scene round trip is skipped";
    TempDir dir;
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, false, Dwt(dir, scene), dir.file("back.tif")))) << h.Text().toStdString();
    const int bands = tavtest::Info(scene).bands;
    ASSERT_EQ(tavtest::Info(dir.file("back.tif")).bands, bands);
    for (int b = 1; b <= bands; ++b) {
        const auto input = tavtest::ReadBand(scene, b);
        ExpectNear(tavtest::ReadBand(dir.file("back.tif"), b), input, kRoundTripTolerance * Peak(input),
                   "band " + std::to_string(b));
    }
}

TEST(ForwardLayout, ConstantBandKeepsItsValueInTheApproximationAndNoDetailInside)
{
    // 8 x 6 of 10: LL is 10 but along the last low-pass column and row, which see the zero
    // padding: (lo0 + lo1) 10 = 9.330127 there, and that squared at their corner.
    TempDir dir;
    tavtest::WriteRaster(dir.file("c.tif"), tavtest::Shape(8, 6, 1, GDT_Int16), [](int, int, int) { return 10; });
    const auto out = tavtest::ReadBand(Dwt(dir, dir.file("c.tif")), 1);
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

TEST(Georeference, InputReferencedByControlPointsGivesNoCoordinateSystem)
{
    // A VRT carries both a coordinate system and control points, which GTiff never does.
    TempDir dir;
    tavtest::WriteRaster(dir.file("plain.tif"), tavtest::Shape(4, 4, 1, GDT_Float32, false),
                         [](int, int x, int y) { return x + 10 * y; });
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
        EXPECT_EQ(tavtest::Info(Dwt(dir, dir.file("in.vrt"))).wkt.empty(), withGcps) << withGcps;
    }
}

// Integer outputs get the rebuilt values rounded to the nearest whole number and held inside
// the type's range, as GDAL converts.
TEST(InverseOutputType, IntegerTypesRoundAndClampTheRebuiltValues)
{
    TempDir dir;
    // Quarter values never round ambiguously; -40 .. 300 runs past both ends of Byte.
    auto fn = [](int, int x, int y) { return -40.25 + 10 * x + 47 * y + ((x + y) % 2 ? 0.5 : 0); };
    tavtest::WriteRaster(dir.file("in.tif"), tavtest::Shape(7, 6), fn);
    const std::string dwt = Dwt(dir, dir.file("in.tif"));
    struct Case {
        int code;
        double lo, hi;
    };
    for (const Case c : {Case{1, 0, 255}, Case{3, -32768, 32767}, Case{5, -2147483648.0, 2147483647.0}}) {
        TavTransformFunc algo;
        WaveletTransformFunc worker(algo.Context());
        const std::string out = dir.file(std::to_string(c.code) + ".tif");
        ASSERT_TRUE(Inverse(worker, dwt, out, c.code));
        const auto back = tavtest::ReadBand(out, 1);
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 7; ++x)
                EXPECT_EQ(back[y * 7 + x], std::clamp(std::round(fn(0, x, y)), c.lo, c.hi))
                    << "type " << c.code << " at " << x << "," << y;
    }
}

// --- Row-order streaming against the whole-band kernel passes ---------------------------------

// Bit patterns of a band read back as Float32, so that even the sign of a zero must agree.
std::vector<std::uint32_t> Bits(const std::vector<double>& v)
{
    std::vector<std::uint32_t> bits(v.size());
    std::transform(v.begin(), v.end(), bits.begin(),
                   [](double x) { return std::bit_cast<std::uint32_t>(static_cast<float>(x)); });
    return bits;
}

// What the runs compute band by band, whole: rows then the column-at-a-time reference, and back.
std::vector<double> WholeBandForward(const std::vector<double>& band, std::size_t w, std::size_t h)
{
    std::vector<float> in(band.begin(), band.end()), out(band.size());
    std::vector<float> scratch(std::max(WaveletKernel::LineScratchSize(w), WaveletKernel::PerColumnScratchSize(h)));
    for (std::size_t r = 0; r < h; ++r)
        WaveletKernel::ForwardLine(&in[r * w], &in[r * w], w, scratch.data());
    WaveletKernel::ForwardColumnsPerColumn(in.data(), out.data(), w, h, scratch.data());
    return {out.begin(), out.end()};
}

std::vector<double> WholeBandInverse(const std::vector<double>& band, std::size_t w, std::size_t h)
{
    std::vector<float> in(band.begin(), band.end()), out(band.size());
    std::vector<float> scratch(std::max(WaveletKernel::LineScratchSize(w), WaveletKernel::PerColumnScratchSize(h)));
    WaveletKernel::InverseColumnsPerColumn(in.data(), out.data(), w, h, scratch.data());
    for (std::size_t r = 0; r < h; ++r)
        WaveletKernel::InverseLine(&out[r * w], &out[r * w], w, scratch.data());
    return {out.begin(), out.end()};
}

struct StreamCase {
    Shape shape;
    std::size_t rows; // rows per chunk; 0: the run's own size
};

std::string StreamCaseName(const StreamCase& c) { return ShapeName(c.shape) + "_rows" + std::to_string(c.rows); }

void PrintTo(const StreamCase& c, std::ostream* os) { *os << StreamCaseName(c); }

// Chunk edges at every parity against the pairs of output rows, inside the files' blocks with the
// block cache off: the streamed runs write exactly what the whole-band passes give, and every
// progress mark once.
class StreamedRuns : public ::testing::TestWithParam<StreamCase> {};

TEST_P(StreamedRuns, ForwardEqualsWholeBandPassesBitForBit)
{
    const auto [shape, rows] = GetParam();
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", shape);
    NoBlockCache noCache;
    AlgoHarness h;
    WaveletTransformFunc worker(h.algo().Context());
    worker.SetRowsPerChunk(rows);
    ASSERT_TRUE(Forward(worker, s.path, dir.file("dwt.tif")));
    for (int b = 0; b < shape.bands; ++b)
        EXPECT_EQ(Bits(tavtest::ReadBand(dir.file("dwt.tif"), b + 1)),
                  Bits(WholeBandForward(s.Band(b), shape.w, shape.h)))
            << "band " << b + 1;
    ExpectPercents(h.Percents(), Marks(true, shape.bands));
}

// The inverse takes its chunk from the memory budget: two Float32 lines of the longer side and
// the border per row and band.
TEST_P(StreamedRuns, InverseEqualsWholeBandPassesBitForBit)
{
    const auto [shape, rows] = GetParam();
    TempDir dir;
    const std::string dwt = Dwt(dir, MakeScene(dir, "in.tif", shape).path);
    NoBlockCache noCache;
    AlgoHarness h;
    WaveletTransformFunc worker(h.algo().Context());
    const long long budget = rows ? 8LL * (std::max(shape.w, shape.h) + 4) * rows * shape.bands : kBudget;
    ASSERT_TRUE(Inverse(worker, dwt, dir.file("back.tif"), 6, budget));
    for (int b = 0; b < shape.bands; ++b)
        EXPECT_EQ(Bits(tavtest::ReadBand(dir.file("back.tif"), b + 1)),
                  Bits(WholeBandInverse(tavtest::ReadBand(dwt, b + 1), shape.w, shape.h)))
            << "band " << b + 1;
    ExpectPercents(h.Percents(), Marks(false, shape.bands));
    EXPECT_FALSE(Exists(dir.file("back_temp.tif")));
}

std::vector<StreamCase> StreamCases()
{
    // Even and odd sizes, one row and one column, 1 to 6 bands, wider and taller than 256.
    const Shape shapes[] = {{8, 6, 1}, {7, 5, 3}, {9, 13, 2}, {5, 12, 6},
                            {1, 9, 2}, {6, 1, 4}, {300, 21, 1}, {19, 270, 1}};
    std::vector<StreamCase> cases;
    for (const Shape& shape : shapes)
        for (std::size_t rows : {1, 2, 3, 4, 7, 0})
            cases.push_back({shape, rows});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(ShapesAndChunks, StreamedRuns, ::testing::ValuesIn(StreamCases()),
                         [](const auto& info) { return StreamCaseName(info.param); });

// --- The worker's own arguments: window and band list ----------------------------------------

TEST(Window, ZeroBasedBandsOfTheWindowStreamWithTheOriginMovedToIt)
{
    // Columns 3..11 and rows 2..14 of bands 3 and 1, in chunks of 3 rows.
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", {14, 17, 3}, kTypes[1]);
    const double gt[6] = {1000, 2, 0.5, 5000, 0.25, -3};
    GDALDataset* ds = GDALDataset::Open(s.path.c_str(), GDAL_OF_RASTER | GDAL_OF_UPDATE);
    ds->SetGeoTransform(const_cast<double*>(gt));
    GDALClose(ds);
    const int bands[] = {2, 0};
    TavTransformFunc algo;
    WaveletTransformFunc worker(algo.Context());
    worker.SetRowsPerChunk(3);
    ASSERT_TRUE(worker.Forward(Q(s.path), dir.qfile("win.tif"), "GTiff", bands, 2, 3, 11, 2, 14));
    const auto info = tavtest::Info(dir.file("win.tif"));
    ASSERT_EQ(info.bands, 2);
    ASSERT_EQ(info.width, 9);
    ASSERT_EQ(info.height, 13);
    const double expected[6] = {1000 + 2 * 3 + 0.5 * 2, 2, 0.5, 5000 + 0.25 * 3 - 3 * 2, 0.25, -3};
    for (int i = 0; i < 6; ++i)
        EXPECT_DOUBLE_EQ(info.gt[i], expected[i]) << "term " << i;
    for (int i = 0; i < 2; ++i) {
        const auto whole = s.Band(bands[i]);
        std::vector<double> window;
        for (int y = 2; y <= 14; ++y)
            for (int x = 3; x <= 11; ++x)
                window.push_back(whole[y * 14 + x]);
        EXPECT_EQ(Bits(tavtest::ReadBand(dir.file("win.tif"), i + 1)), Bits(WholeBandForward(window, 9, 13)))
            << "output band " << i + 1;
    }
}

// A negative first column or row means the whole image whatever the other bounds say; more
// bands listed than present fail without a text or an output, in both directions.
TEST(Window, NegativeStartMeansTheWholeImageAndTooLongBandListsFail)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", {6, 5, 2}, kTypes[0]);
    TavTransformFunc algo;
    WaveletTransformFunc worker(algo.Context());
    for (const auto& w : {std::array{-1, 2, 0, 1}, std::array{1, 3, -1, 2}}) {
        ASSERT_TRUE(worker.Forward(Q(s.path), dir.qfile("w.tif"), "GTiff", nullptr, 0, w[0], w[1], w[2], w[3]));
        const auto info = tavtest::Info(dir.file("w.tif"));
        EXPECT_EQ(std::pair(info.width, info.height), std::pair(6, 5));
    }
    const int bands[] = {0, 1, 0};
    const QString in = Q(s.path), out = dir.qfile("o.tif");
    for (bool forward : {true, false}) {
        EXPECT_FALSE(forward ? worker.Forward(in, out, "GTiff", bands, 3, -1, -1, -1, -1)
                             : worker.Inverse(in, out, "GTiff", 6, bands, 3, -1, -1, -1, -1, kBudget))
            << forward;
        EXPECT_TRUE(worker.ErrorText().isEmpty()) << forward;
        EXPECT_FALSE(Exists(dir.file("o.tif"))) << forward;
    }
}

// --- Failures ---------------------------------------------------------------------------------

TEST(InverseFailure, TemporaryNamedLikeTheInputIsRefusedAndTheInputKept)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "x_temp.tif", {4, 4, 1});
    const std::string before = tavtest::ReadFile(s.path);
    TavTransformFunc algo;
    WaveletTransformFunc worker(algo.Context());
    EXPECT_FALSE(Inverse(worker, s.path, dir.file("x.tif")));
    EXPECT_EQ(worker.ErrorText(), QString("OutFile Creat Fail!"));
    EXPECT_EQ(tavtest::ReadFile(s.path), before);
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

    const Scene byte = MakeScene(dir, "byte.tif", {4, 4, 1}, kTypes[0]);
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
    const char* input; // "scene", "byte", "missing-source" or "huge"
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
    std::string in = MakeScene(dir, "scene.tif", {6, 4, 2}, std::string(c.input) == "byte" ? kTypes[0] : kTypes[5]).path;
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
                      FailureCase{"InverseByteInput", false, "byte", "back.tif", "GTiff", "Datatype Error!"},
                      FailureCase{"ForwardUnreadableBand", true, "missing-source", "o.tif", "GTiff", "Convert Data Fail!"},
                      FailureCase{"ForwardNoMemory", true, "huge", "o.vrt", "VRT", "Apply memory Fail!"}),
    [](const auto& info) { return std::string(info.param.name); });

// The need is the bands times band 0's sample size times the whole input, even for a window, plus
// 100 MiB left over. 3 bands of 16 x 8: Int16 needs 768 bytes, Float32 1536.
TEST(DiskSpace, RelativeOutputNeedsItsBytesPlus100MiBFreeAndAbsoluteIsNotChecked)
{
    for (const bool forward : {true, false}) {
        TempDir dir;
        const Scene s = MakeScene(dir, "in.tif", {16, 8, 3}, TypeRange{forward ? GDT_Int16 : GDT_Float32, -100, 100});
        InFolder here(dir.path());
        TavTransformFunc algo;
        WaveletTransformFunc worker(algo.Context());
        const auto run = [&](unsigned long long free, const std::string& out) {
            tavtest::FakeFreeSpace fake(free);
            return forward ? worker.Forward(Q(s.path), Q(out), "GTiff", nullptr, 0, 1, 4, 2, 5)
                           : worker.Inverse(Q(s.path), Q(out), "GTiff", 6, nullptr, 0, 1, 4, 2, 5, kBudget);
        };
        // Free byte counts a float holds exactly, 64 either side of the need.
        const unsigned long long need = 104857600 + (forward ? 768 : 1536);
        EXPECT_TRUE(run(need, "fits.tif")) << worker.ErrorText().toStdString();
        EXPECT_FALSE(run(need - 64, "short.tif")) << forward;
        EXPECT_EQ(worker.ErrorText(), QString("Low Disk Space!"));
        EXPECT_FALSE(Exists(dir.file("short.tif")));
        EXPECT_FALSE(Exists(dir.file("short_temp.tif")));
        EXPECT_TRUE(run(0, dir.file("abs.tif"))) << "an absolute path is not checked";
    }
}

// --- The temporary and the side file ---------------------------------------------------------

// Execute removes the temporary too; these runs show the worker does it itself.
TEST(Temporary, HoldsTheColumnsBetweenThePassesAndTheWorkerRemovesItOnSuccessAndOnCancel)
{
    TempDir dir;
    const std::string dwt = Dwt(dir, MakeScene(dir, "in.tif", {8, 6, 2}).path);
    AlgoHarness h;
    std::vector<bool> seen;
    h.onProgress = [&](double) { seen.push_back(Exists(dir.file("back_temp.tif"))); };
    WaveletTransformFunc worker(h.algo().Context());
    ASSERT_TRUE(Inverse(worker, dwt, dir.file("back.tif")));
    // Reports 1, 2, 3, 5, then the marks of both passes: the temporary exists from 3 on.
    EXPECT_EQ(seen, (std::vector<bool>{false, false, true, true, true, true, true}));
    EXPECT_FALSE(Exists(dir.file("back_temp.tif")));
    EXPECT_FALSE(Exists(dir.file("dwt_temp.tif")));

    h.onProgress = [&](double p) {
        if (p > 5)
            h.algo().Terminate();
    };
    WaveletTransformFunc cancelled(h.algo().Context());
    EXPECT_FALSE(Inverse(cancelled, dwt, dir.file("back.tif")));
    EXPECT_FALSE(Exists(dir.file("back_temp.tif")));
}

TEST(SideFile, RpcCoefficientsAreCopiedBesideBothOutputs)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "scene.tif", {6, 4, 1});
    const std::string rpc = "LINE_OFF: 100\nSAMP_OFF: 200\n";
    tavtest::WriteText(dir.file("scene.rpb"), rpc);
    tavtest::WriteText(dir.file("dwt.v2.rpb"), "stale");
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(3, true, s.path, dir.file("dwt.v2.tif"))));
    EXPECT_EQ(tavtest::ReadFile(dir.file("dwt.v2.rpb")), rpc) << "an existing side file is replaced";
    ASSERT_TRUE(h.Run(TransRecord(3, false, dir.file("dwt.v2.tif"), dir.file("back.tif"))));
    EXPECT_EQ(tavtest::ReadFile(dir.file("back.rpb")), rpc);
    // Without a side file beside the input, none appears beside the output.
    std::filesystem::remove(dir.path() / "back.rpb");
    ASSERT_TRUE(h.Run(TransRecord(3, true, dir.file("back.tif"), dir.file("plain.tif"))));
    EXPECT_FALSE(Exists(dir.file("plain.rpb")));
}

} // namespace
