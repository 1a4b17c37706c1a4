#include "AlgoHarness.h"
#include "TestSupport.h"
#include "frame/RasterAccess.h"
#include "kt/KTTransformFunc.h"

#include <gdal_utils.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>

using tavtest::AlgoHarness;
using tavtest::TempDir;
using tavtest::TransRecord;

namespace {

// The published coefficient tables, written out again independently of the product's copy.
const std::vector<std::vector<double>> kTM = {
    {0.2909, 0.2493, 0.4806, 0.5568, 0.4438, 0.1706},
    {-0.2728, -0.2174, -0.5508, 0.7221, 0.0733, -0.1648},
    {0.1446, 0.1761, 0.3322, 0.3396, -0.6210, -0.4186}};
const std::vector<double> kTMConst = {10.3695, -0.7310, -3.3828};
const std::vector<std::vector<double>> kMSS = {
    {0.443, 0.632, 0.586, 0.264}, {-0.290, -0.562, 0.600, 0.491},
    {-0.824, 0.533, -0.050, 0.185}, {0.223, 0.012, -0.543, 0.809}};
const std::vector<std::vector<double>> kETM = {
    {0.3561, 0.3972, 0.3904, 0.6966, 0.2286, 0.1596},
    {-0.3344, -0.3544, -0.4556, 0.6966, -0.0242, -0.2630},
    {0.2626, 0.2141, 0.0926, 0.0656, -0.7629, -0.5388},
    {0.0805, -0.0498, 0.1950, -0.1327, 0.5752, -0.7775},
    {-0.7252, -0.0202, 0.6683, 0.0631, -0.1494, -0.0274},
    {0.4000, -0.8172, 0.3832, 0.0602, -0.1095, 0.0985}};

const std::vector<std::vector<double>>& Matrix(int sensor) { return sensor == 0 ? kTM : sensor == 1 ? kMSS : kETM; }

// Expected components of one pixel given its used band values, in double.
std::vector<double> Reference(int sensor, const std::vector<double>& used)
{
    const auto& m = Matrix(sensor);
    const bool allZero = std::all_of(used.begin(), used.end(), [](double v) { return v == 0; });
    std::vector<double> out;
    for (size_t k = 0; k < m.size(); ++k) {
        double s = 0;
        for (size_t j = 0; j < m[k].size(); ++j)
            s += m[k][j] * used[j];
        if (sensor == 0)
            s = allZero ? 0.0 : s + kTMConst[k];
        out.push_back(s);
    }
    return out;
}

// Tolerance of a single-precision sum of the same products.
double Tolerance(int sensor, const std::vector<double>& used)
{
    double mag = sensor == 0 ? 11 : 0;
    for (double v : used)
        mag += std::abs(v);
    return 4e-7 * mag * 8 + 1e-6;
}

using tavtest::TypeRange;

const TypeRange kRanges[] = {
    {GDT_Byte, 0, 255},   {GDT_UInt16, 0, 65535}, {GDT_Int16, -32768, 32767}, {GDT_UInt32, 0, 4e9},
    {GDT_Int32, -2e9, 2e9}, {GDT_Float32, -1e4, 1e4}, {GDT_Float64, -1e6, 1e6},
};

struct Scene {
    std::string path;
    tavtest::PixelFn fn;
    int w, h, bands;
};

Scene MakeScene(const TempDir& dir, const std::string& name, int bands, const TypeRange& r, int w = 7, int h = 5)
{
    Scene s{dir.file(name), tavtest::RandomPixels(r, bands * 31 + r.type), w, h, bands};
    tavtest::WriteRaster(s.path, tavtest::Shape(w, h, bands, r.type), s.fn);
    return s;
}

// Runs the transform and checks every component of every pixel against the reference,
// reading the input bands `used` (1-based).
void ExpectComponents(const Scene& s, int sensor, const std::vector<int>& used, const std::string& out)
{
    AlgoHarness h;
    auto record = TransRecord(4, true, s.path, out);
    record.nSensorType = sensor;
    ASSERT_TRUE(h.Run(record)) << h.Text().toStdString();
    const auto info = tavtest::Info(out);
    ASSERT_EQ(info.type, GDT_Float32);
    ASSERT_EQ(info.bands, static_cast<int>(Matrix(sensor).size()));
    std::vector<std::vector<double>> bands;
    for (int k = 1; k <= info.bands; ++k)
        bands.push_back(tavtest::ReadBand(out, k));
    for (int y = 0; y < s.h; ++y)
        for (int x = 0; x < s.w; ++x) {
            std::vector<double> px;
            for (int b : used)
                px.push_back(static_cast<double>(static_cast<float>(s.fn(b - 1, x, y))));
            const auto want = Reference(sensor, px);
            for (size_t k = 0; k < want.size(); ++k)
                ASSERT_NEAR(bands[k][y * s.w + x], want[k], Tolerance(sensor, px))
                    << "sensor " << sensor << " component " << k << " at " << x << "," << y;
        }
}

class EveryTypeAndSensor : public ::testing::TestWithParam<std::tuple<TypeRange, int>> {};

TEST_P(EveryTypeAndSensor, ComponentsMatchTheDirectMatrixProduct)
{
    const auto [range, sensor] = GetParam();
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, range);
    const std::vector<int> used = sensor == 1 ? std::vector<int>{1, 2, 3, 4} : std::vector<int>{1, 2, 3, 4, 5, 6};
    ExpectComponents(s, sensor, used, dir.file("out.tif"));
}

INSTANTIATE_TEST_SUITE_P(All, EveryTypeAndSensor,
                         ::testing::Combine(::testing::ValuesIn(kRanges), ::testing::Values(0, 1, 2)),
                         [](const auto& info) {
                             return std::string(GDALGetDataTypeName(std::get<0>(info.param).type)) + "_sensor" +
                                    std::to_string(std::get<1>(info.param));
                         });

TEST(BandChoice, SevenBandTMSceneUsesBandSevenAndEightBandsUseOneToSix)
{
    TempDir dir;
    const Scene seven = MakeScene(dir, "seven.tif", 7, kRanges[0]);
    ExpectComponents(seven, 0, {1, 2, 3, 4, 5, 7}, dir.file("seven_tm.tif"));
    // Only the TM set swaps band 7 in.
    ExpectComponents(seven, 2, {1, 2, 3, 4, 5, 6}, dir.file("seven_etm.tif"));
    const Scene eight = MakeScene(dir, "eight.tif", 8, kRanges[0]);
    ExpectComponents(eight, 0, {1, 2, 3, 4, 5, 6}, dir.file("eight_tm.tif"));
}

// A mosaic of a Byte band and wider bands: each is converted from its own type, none clamped to Byte.
TEST(BandChoice, BandsOfMixedTypesAreEachReadInTheirOwnType)
{
    TempDir dir;
    const tavtest::PixelFn fn = [](int b, int x, int y) { return b == 0 ? 200.0 + x : -500.0 + 400 * b + y; };
    std::vector<std::string> files;
    for (int b = 0; b < 6; ++b) {
        files.push_back(dir.file("b" + std::to_string(b) + ".tif"));
        tavtest::WriteRaster(files.back(), tavtest::Shape(4, 3, 1, b == 0 ? GDT_Byte : GDT_Int16),
                             [&](int, int x, int y) { return fn(b, x, y); });
    }
    std::vector<const char*> names;
    for (const auto& f : files)
        names.push_back(f.c_str());
    const char* argv[] = {"-separate", nullptr};
    GDALBuildVRTOptions* options = GDALBuildVRTOptionsNew(const_cast<char**>(argv), nullptr);
    GDALClose(GDALBuildVRT(dir.file("mixed.vrt").c_str(), 6, nullptr, names.data(), options, nullptr));
    GDALBuildVRTOptionsFree(options);
    ExpectComponents({dir.file("mixed.vrt"), fn, 4, 3, 6}, 2, {1, 2, 3, 4, 5, 6}, dir.file("out.tif"));
}

TEST(BandChoice, FiveBandsFailForSixBandSetsAndServeMss)
{
    TempDir dir;
    const Scene five = MakeScene(dir, "five.tif", 5, kRanges[0]);
    for (int sensor : {0, 2}) {
        AlgoHarness h;
        auto record = TransRecord(4, true, five.path, dir.file("o.tif"));
        record.nSensorType = sensor;
        EXPECT_FALSE(h.Run(record));
        EXPECT_EQ(h.Code(), 1);
        EXPECT_EQ(h.Text(), QString("Input file is inconsistent with the sensor type! "));
        EXPECT_FALSE(tavtest::Exists(dir.file("o.tif")));
    }
    ExpectComponents(five, 1, {1, 2, 3, 4}, dir.file("mss.tif"));
}

TEST(Values, AllZeroTMPixelGivesZeroNotTheConstants)
{
    TempDir dir;
    // Pixel 0 all zero; pixel 1 zero but for band 3; pixel 2 all zero too.
    tavtest::WriteRaster(dir.file("z.tif"), tavtest::Shape(3, 1, 6, GDT_Byte),
                         [](int b, int x, int) { return x == 1 && b == 2 ? 1 : 0; });
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(4, true, dir.file("z.tif"), dir.file("tm.tif"))));
    for (int k = 0; k < 3; ++k) {
        const auto band = tavtest::ReadBand(dir.file("tm.tif"), k + 1);
        EXPECT_EQ(band[0], 0.0);
        EXPECT_EQ(band[2], 0.0);
        EXPECT_NEAR(band[1], kTM[k][2] + kTMConst[k], 1e-5);
    }
    auto etm = TransRecord(4, true, dir.file("z.tif"), dir.file("etm.tif"));
    etm.nSensorType = 2;
    ASSERT_TRUE(h.Run(etm));
    EXPECT_EQ(tavtest::ReadBand(dir.file("etm.tif"), 1)[0], 0.0);
}

TEST(Georeference, OnePixelImageShiftsTheOriginByHalfAPixelAndNamesItsBands)
{
    TempDir dir;
    tavtest::WriteRaster(dir.file("one.tif"), tavtest::Shape(1, 1, 6), [](int b, int, int) { return b + 1; });
    const std::vector<std::vector<std::string>> names = {
        {"Brightness", "green", "humidity"},
        {"Soil Brightness Index", "Green index", "Yellowness index", "The fourth component"},
        {"Brightness", "green", "humidity", "The fourth component", "The fifth component", "The sixth component"}};
    for (int sensor : {0, 1, 2}) {
        AlgoHarness h;
        auto record = TransRecord(4, true, dir.file("one.tif"), dir.file("kt" + std::to_string(sensor) + ".tif"));
        record.nSensorType = sensor;
        ASSERT_TRUE(h.Run(record));
        const auto info = tavtest::Info(record.strOutputFile.toStdString());
        EXPECT_EQ(info.width, 1);
        EXPECT_EQ(info.height, 1);
        EXPECT_EQ(info.descriptions, names[sensor]);
        const double* g = tavtest::kTestGeoTransform;
        EXPECT_DOUBLE_EQ(info.gt[0], g[0] + 0.5 * g[1]);
        EXPECT_DOUBLE_EQ(info.gt[3], g[3] + 0.5 * g[5]);
        EXPECT_EQ(info.gt[1], g[1]);
        EXPECT_EQ(info.gt[5], g[5]);
        EXPECT_NE(info.wkt.find("UTM zone 25S"), std::string::npos);
    }
}

TEST(Georeference, NoDataIsCarriedBandByBand)
{
    TempDir dir;
    tavtest::RasterShape shape;
    shape.bands = 6;
    shape.driver = "HFA"; // keeps a no-data value per band, unlike GTiff
    shape.noData = {-1, -2, -3, -4, -5, -6};
    tavtest::WriteRaster(dir.file("nd.img"), shape, [](int b, int x, int) { return b + x; });
    AlgoHarness h;
    auto record = TransRecord(4, true, dir.file("nd.img"), dir.file("out.img"), "HFA");
    record.nSensorType = 2;
    ASSERT_TRUE(h.Run(record));
    const auto info = tavtest::Info(dir.file("out.img"));
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(info.noData[i], std::make_pair(true, -1.0 - i)) << "band " << i + 1;
}


// Each refusal with its code and text; an earlier file at the output path stays when the run
// refuses before creating anything (here for want of space on a relative path).
TEST(Failures, RefusalsGiveTheirCodeAndTextAndKeepAnEarlierOutput)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, kRanges[0]);
    tavtest::WriteText(dir.file("notes.tif"), "plain text");
    tavtest::WriteText(dir.file("earlier.tif"), "an earlier result");
    const std::string relative = std::filesystem::relative(dir.file("earlier.tif")).string();
    struct Case {
        std::string in, out;
        unsigned long long freeBytes;
        int code;
        const char* text;
    };
    const Case cases[] = {{dir.file("notes.tif"), dir.file("o.tif"), ~0ull, 2, "Failed to open the input file!"},
                          {s.path, dir.file("no/such/folder/o.tif"), ~0ull, 1, "OutFile Creat Fail!"},
                          {s.path, relative, 1024ull * 1024 * 50, 1, "Low Disk Space!"}};
    for (const Case& c : cases) {
        tavtest::FakeFreeSpace drive(c.freeBytes);
        AlgoHarness h;
        EXPECT_FALSE(h.Run(TransRecord(4, true, c.in, c.out)));
        EXPECT_EQ(h.Code(), c.code) << c.text;
        EXPECT_EQ(h.Text(), QString(c.text));
    }
    EXPECT_EQ(tavtest::ReadFile(dir.file("earlier.tif")), "an earlier result");
}

// Each row start is reported in single precision below 100.
TEST(Progress, RowStartsInSinglePrecision)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, kRanges[0], 4, 3);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(TransRecord(4, true, s.path, dir.file("o.tif"))));
    const float third = 1.0f / 3.0f * 100.0f, twoThirds = 2.0f / 3.0f * 100.0f;
    EXPECT_EQ(h.Percents(), (std::vector<double>{0, 0, third, twoThirds, 100}));
    EXPECT_EQ(h.events[1].message, QString("Tasseled Cap Transform is running..."));
}

TEST(Failures, InvalidWindowTouchesNothing)
{
    TempDir dir;
    TavTransformFunc algo;
    KTTransformFunc worker(algo.Context());
    EXPECT_FALSE(worker.Run(dir.qfile("missing.tif"), dir.qfile("o.tif"), "GTiff", 0, 3, 1, 0, 5));
    int code = 0;
    QString text;
    algo.GetErrorInfo(code, text);
    EXPECT_EQ(code, 1);
    EXPECT_TRUE(worker.ErrorText().isEmpty());
    EXPECT_FALSE(worker.Run(dir.qfile("missing.tif"), dir.qfile("o.tif"), "GTiff", 0, 0, 4, 3, 2));
    EXPECT_FALSE(tavtest::Exists(dir.file("o.tif")));
}

TEST(Window, InclusiveWindowShiftsOriginToItsCorner)
{
    TempDir dir;
    const Scene s = MakeScene(dir, "in.tif", 6, kRanges[0], 7, 5);
    TavTransformFunc algo;
    KTTransformFunc worker(algo.Context());
    ASSERT_TRUE(worker.Run(QString::fromStdString(s.path), dir.qfile("w.tif"), "GTiff", 2, 2, 4, 1, 3));
    const auto info = tavtest::Info(dir.file("w.tif"));
    EXPECT_EQ(info.width, 3);
    EXPECT_EQ(info.height, 3);
    const double* g = tavtest::kTestGeoTransform;
    EXPECT_DOUBLE_EQ(info.gt[0], g[0] + 2.5 * g[1]);
    EXPECT_DOUBLE_EQ(info.gt[3], g[3] + 1.5 * g[5]);
    std::vector<double> px;
    for (int b = 0; b < 6; ++b)
        px.push_back(s.fn(b, 2, 1));
    EXPECT_NEAR(tavtest::ReadBand(dir.file("w.tif"), 1)[0], Reference(2, px)[0], Tolerance(2, px));
}

TEST(EndToEnd, LandsatSceneThroughTheCommandLineMatchesTheReference)
{
    const std::string scene = tavtest::SampleScene();
    if (scene.empty())
        GTEST_SKIP() << "../shared/data/L7_ETMs.tif is absent";
    const std::string bin = TAV_BIN_DIR;
    TempDir dir;
    const std::string out = dir.file("kt.tif");
    const std::string cmd = bin + "/tavtransform kt -q -sensor etm '" + scene + "' '" + out + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    std::vector<std::vector<double>> in, res;
    for (int b = 1; b <= 6; ++b) {
        in.push_back(tavtest::ReadBand(scene, b));
        res.push_back(tavtest::ReadBand(out, b));
    }
    double worst = 0;
    for (size_t i = 0; i < in[0].size(); ++i) {
        std::vector<double> px;
        for (int b = 0; b < 6; ++b)
            px.push_back(in[b][i]);
        const auto want = Reference(2, px);
        for (int k = 0; k < 6; ++k)
            worst = std::max(worst, std::abs(res[k][i] - want[k]));
    }
    EXPECT_LT(worst, 2e-4) << "DN up to 255, six products in single precision";
}

} // namespace
