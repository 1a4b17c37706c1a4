// The Tasseled Cap sets beyond the built-in three: the published tables through the command line,
// the record's own branch through the algorithm object, and the shared kernel's arithmetic.
#include "AlgoHarness.h"
#include "MaskScene.h"
#include "TestSupport.h"
#include "frame/stTasseledCapInfo.h"
#include "kt/KTCoefficients.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <memory>

using tavtest::AlgoHarness;
using tavtest::TempDir;

namespace {

using Matrix = std::vector<std::vector<double>>;

// The published tables, typed again from the papers' tables, independently of the product's copy.
struct Published {
    std::string sensor;
    int bands;
    Matrix m;
    std::vector<std::string> names;
    std::string doi; // or the journal, where the paper has none
};
const Published kSets[] = {
    {"oli", 6,
     {{0.3029, 0.2786, 0.4733, 0.5599, 0.5080, 0.1872},
      {-0.2941, -0.2430, -0.5424, 0.7276, 0.0713, -0.1608},
      {0.1511, 0.1973, 0.3283, 0.3407, -0.7117, -0.4559},
      {-0.8239, 0.0849, 0.4396, -0.0580, 0.2013, -0.2773},
      {-0.3294, 0.0557, 0.1056, 0.1855, -0.4349, 0.8085},
      {0.1079, -0.9023, 0.4119, 0.0575, -0.0259, 0.0252}},
     {"Brightness", "Greenness", "Wetness", "TCT4", "TCT5", "TCT6"}, "doi:10.1080/2150704X.2014.915434"},
    {"s2", 6,
     {{0.3510, 0.3813, 0.3437, 0.7196, 0.2396, 0.1949},
      {-0.3599, -0.3533, -0.4734, 0.6633, 0.0087, -0.2856},
      {0.2578, 0.2305, 0.0883, 0.1071, -0.7611, -0.5308}},
     {"Brightness", "Greenness", "Wetness"}, "doi:10.1109/JSTARS.2019.2938388"},
    {"modis", 7,
     {{0.4395, 0.5945, 0.2460, 0.3918, 0.3506, 0.2136, 0.2678},
      {-0.4064, 0.5129, -0.2744, -0.2893, 0.4882, -0.0036, -0.4169},
      {0.1147, 0.2489, 0.2408, 0.3132, -0.3122, -0.6416, -0.5087}},
     {"Brightness", "Greenness", "Wetness"}, "International Journal of Remote Sensing 28(22): 5079-5101"},
    {"tm-sr", 6,
     {{0.2043, 0.4158, 0.5524, 0.5741, 0.3124, 0.2303},
      {-0.1603, -0.2819, -0.4934, 0.7940, -0.0002, -0.1446},
      {0.0315, 0.2021, 0.3102, 0.1594, -0.6806, -0.6109},
      {-0.2117, -0.0284, 0.1302, -0.1007, 0.6529, -0.7078},
      {-0.8669, -0.1835, 0.3856, 0.0408, -0.1132, 0.2272},
      {0.3677, -0.8200, 0.4354, 0.0518, -0.0066, -0.0104}},
     {"Brightness", "Greenness", "Wetness", "Fourth", "Fifth", "Sixth"}, "doi:10.1016/0034-4257(85)90102-6"},
};

void PrintTo(const Published& p, std::ostream* os) { *os << p.sensor; }

const Published& Set(const std::string& sensor)
{
    for (const Published& p : kSets)
        if (p.sensor == sensor)
            return p;
    throw std::logic_error("no such set in the test");
}

// Component k of one pixel in double: the direct matrix product, plus the constant if any.
double Reference(const Matrix& m, const std::vector<double>& constants, size_t k, const std::vector<double>& px)
{
    double s = constants.empty() ? 0.0 : constants[k];
    for (size_t j = 0; j < px.size(); ++j)
        s += m[k][j] * px[j];
    return s;
}

// The built-in sets' tolerance: a single-precision sum of the same products.
double Tolerance(const std::vector<double>& px, double constant = 0)
{
    double mag = std::abs(constant);
    for (double v : px)
        mag += std::abs(v);
    return 4e-7 * mag * 8 + 1e-6;
}

struct Scene {
    std::string path;
    tavtest::PixelFn fn;
    int w = 9, h = 5;
};

// Reflectances 0..1 as Float32; a width that is no multiple of the kernel's four-pixel steps.
Scene Reflectance(const TempDir& dir, const std::string& name, int bands, int w = 9, int h = 5)
{
    Scene s{dir.file(name), tavtest::RandomPixels({GDT_Float32, 0.0, 1.0}, bands * 17 + w), w, h};
    tavtest::WriteRaster(s.path, tavtest::Shape(w, h, bands, GDT_Float32), s.fn);
    return s;
}

int Cli(const std::string& args)
{
    const int raw = std::system(("'" TAV_BIN_DIR "/tavtransform' " + args + " >/dev/null 2>&1").c_str());
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

// Every component of every pixel against the direct product over the input bands `used` (1-based).
void ExpectComponents(const Scene& s, const std::string& out, const Matrix& m, const std::vector<int>& used,
                      const std::vector<double>& constants = {})
{
    const auto info = tavtest::Info(out);
    ASSERT_EQ(info.bands, static_cast<int>(m.size())) << out;
    ASSERT_EQ(info.type, GDT_Float32);
    for (size_t k = 0; k < m.size(); ++k) {
        const auto band = tavtest::ReadBand(out, static_cast<int>(k) + 1);
        for (int y = 0; y < s.h; ++y)
            for (int x = 0; x < s.w; ++x) {
                std::vector<double> px;
                for (int b : used)
                    px.push_back(static_cast<float>(s.fn(b - 1, x, y)));
                ASSERT_NEAR(band[y * s.w + x], Reference(m, constants, k, px),
                            Tolerance(px, constants.empty() ? 0 : constants[k]))
                    << out << " component " << k + 1 << " at " << x << "," << y;
            }
    }
}

std::vector<int> Range(int first, int last)
{
    std::vector<int> r;
    for (int b = first; b <= last; ++b)
        r.push_back(b);
    return r;
}

class PublishedSets : public ::testing::TestWithParam<Published> {};

// The published components, named as published, their source recorded in the output.
TEST_P(PublishedSets, ComponentsAreTheDirectProductOfThePublishedTable)
{
    const Published& p = GetParam();
    TempDir dir;
    const Scene s = Reflectance(dir, "in.tif", p.bands);
    const std::string out = dir.file("out.tif");
    ASSERT_EQ(Cli("kt -q -sensor " + p.sensor + " " + s.path + " " + out), 0);
    ExpectComponents(s, out, p.m, Range(1, p.bands));
    const auto info = tavtest::Info(out);
    EXPECT_EQ(info.descriptions, p.names);
    EXPECT_EQ(info.gt[0], tavtest::kTestGeoTransform[0]) << "the input's origin, not half a pixel in";
    EXPECT_EQ(info.gt[3], tavtest::kTestGeoTransform[3]);
    std::unique_ptr<GDALDataset> ds(GDALDataset::Open(out.c_str(), GDAL_OF_RASTER));
    const char* source = ds->GetMetadataItem("COEFFICIENTS", "TAVTRANSFORM");
    ASSERT_TRUE(source);
    EXPECT_NE(std::string(source).find(p.doi), std::string::npos) << source;
    EXPECT_EQ(std::string(ds->GetMetadataItem("OPTIONS", "TAVTRANSFORM")), "-sensor " + p.sensor + " -of GTiff");
}

INSTANTIATE_TEST_SUITE_P(All, PublishedSets, ::testing::ValuesIn(kSets),
                         [](const auto& info) { return info.param.sensor == "tm-sr" ? std::string("tm_sr") : info.param.sensor; });

// Which bands of a longer stack each set reads, and the stacks it refuses (status 2, no output).
TEST(PublishedBandChoice, LongerStacksUseTheDocumentedBands)
{
    TempDir dir;
    const struct {
        std::string sensor;
        int bands;
        std::vector<int> used; // empty: refused
    } cases[] = {
        {"oli", 7, {2, 3, 4, 5, 6, 7}},   {"OLI", 11, {2, 3, 4, 5, 6, 7}}, {"oli", 5, {}},
        {"s2", 10, {1, 2, 3, 7, 9, 10}},  {"S2", 12, {2, 3, 4, 8, 11, 12}}, {"s2", 13, {2, 3, 4, 8, 12, 13}},
        {"s2", 7, {}},                    {"modis", 9, {1, 2, 3, 4, 5, 6, 7}}, {"modis", 6, {}},
        {"Tm-Sr", 7, {1, 2, 3, 4, 5, 7}}, {"tm-sr", 8, {}},
    };
    for (const auto& c : cases) {
        std::string lower = c.sensor;
        std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
        const Scene s = Reflectance(dir, std::to_string(c.bands) + "_in.tif", c.bands);
        const std::string out = dir.file(lower + std::to_string(c.bands) + ".tif");
        const int status = Cli("kt -q -sensor " + c.sensor + " " + s.path + " " + out);
        EXPECT_EQ(status, c.used.empty() ? 2 : 0) << c.sensor << " on " << c.bands << " bands";
        if (c.used.empty())
            EXPECT_FALSE(tavtest::Exists(out)) << c.sensor << " on " << c.bands << " bands";
        else
            ExpectComponents(s, out, Set(lower).m, c.used);
    }
}

void SetScales(const std::string& path, double scale, double offset)
{
    std::unique_ptr<GDALDataset> ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_UPDATE));
    for (int b = 1; b <= ds->GetRasterCount(); ++b) {
        ds->GetRasterBand(b)->SetScale(scale);
        ds->GetRasterBand(b)->SetOffset(offset);
    }
}

// Collection 2 style: UInt16 values with scale 0.0000275 and offset -0.2. -unscale gives what the
// reflectance itself gives; without it the stored values are used and a warning names each band.
TEST(Unscale, ScaledIntegersGiveTheComponentsOfTheirReflectance)
{
    TempDir dir;
    const double scale = 0.0000275, offset = -0.2;
    const std::string stored = dir.file("dn.tif"), reflectance = dir.file("r.tif");
    const tavtest::PixelFn dn = tavtest::RandomPixels({GDT_UInt16, 7273, 43636}, 5);
    tavtest::WriteRaster(stored, tavtest::Shape(9, 5, 6, GDT_UInt16), dn);
    SetScales(stored, scale, offset);
    tavtest::WriteRaster(reflectance, tavtest::Shape(9, 5, 6, GDT_Float32),
                         [&](int b, int x, int y) { return static_cast<float>(dn(b, x, y) * scale + offset); });
    ASSERT_EQ(Cli("kt -q -sensor oli -unscale " + stored + " " + dir.file("u.tif")), 0);
    ASSERT_EQ(Cli("kt -q -sensor oli " + reflectance + " " + dir.file("r_kt.tif")), 0);
    for (int k = 1; k <= 6; ++k)
        EXPECT_EQ(tavtest::ReadBand(dir.file("u.tif"), k), tavtest::ReadBand(dir.file("r_kt.tif"), k)) << k;
    ExpectComponents({reflectance, [&](int b, int x, int y) { return dn(b, x, y) * scale + offset; }, 9, 5},
                     dir.file("u.tif"), Set("oli").m, Range(1, 6));

    const std::string cmd = "'" TAV_BIN_DIR "/tavtransform' kt -q -sensor oli " + stored + " " + dir.file("s.tif") +
                            " 2> " + dir.file("err.txt");
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    const std::string err = tavtest::ReadFile(dir.file("err.txt"));
    for (int b = 1; b <= 6; ++b)
        EXPECT_NE(err.find("Warning: INPUT band " + std::to_string(b) + " has scale 2.75e-05 and offset -0.2"),
                  std::string::npos) << err;
    ExpectComponents({stored, dn, 9, 5}, dir.file("s.tif"), Set("oli").m, Range(1, 6));
    EXPECT_EQ(Cli("kt -q -sensor etm -unscale " + stored + " " + dir.file("e.tif")), 2) << "the built-in sets read stored values";
    EXPECT_FALSE(tavtest::Exists(dir.file("e.tif")));
}

// Collection 2 fill: a pixel that is no-data (0) in any band is NaN in every component, which is the
// outputs' no-data value; the other pixels are the components of their reflectance.
TEST(Unscale, NoDataPixelsStayNoData)
{
    TempDir dir;
    tavtest::RasterShape shape = tavtest::Shape(6, 2, 6, GDT_UInt16);
    shape.noData.assign(6, 0);
    const tavtest::PixelFn dn = [](int b, int x, int y) { return x == 0 || (x == 1 && b == 2) ? 0 : 9000 + 1000 * b + x + y; };
    tavtest::WriteRaster(dir.file("fill.tif"), shape, dn);
    SetScales(dir.file("fill.tif"), 0.0000275, -0.2);
    ASSERT_EQ(Cli("kt -q -sensor oli -unscale " + dir.file("fill.tif") + " " + dir.file("o.tif")), 0);
    const auto info = tavtest::Info(dir.file("o.tif"));
    for (int k = 0; k < 6; ++k) {
        EXPECT_TRUE(info.noData[k].first && std::isnan(info.noData[k].second)) << k;
        const auto band = tavtest::ReadBand(dir.file("o.tif"), k + 1);
        for (int i = 0; i < 12; ++i) {
            std::vector<double> px;
            for (int b = 0; b < 6; ++b)
                px.push_back(static_cast<float>(dn(b, i % 6, i / 6) * 0.0000275 - 0.2));
            if (i % 6 < 2)
                EXPECT_TRUE(std::isnan(band[i])) << k << " " << i;
            else
                EXPECT_NEAR(band[i], Reference(Set("oli").m, {}, k, px), Tolerance(px)) << k << " " << i;
        }
    }
}

// The mask options on the command line, for the sets the host brings and the built-in ones: the
// default masks, -srcnodata per INPUT band (band 6's value is one that band 7 holds inside the
// scene: only the bands read may count), -dstnodata, -nomask, a scene without no-data.
TEST(MaskedSets, MaskOptionsDecideWhichPixelsAreNoDataAndTheirValue)
{
    using tavtest::Fill;
    TempDir dir;
    tavtest::WriteText(dir.file("own.csv"), "A,0.5,0.25,-1,2,0,1,0\nB,1,1,1,1,1,1,3\n");
    const double nan = std::nan("");
    const std::string perBand = "-srcnodata \"1000 1011 1022 1033 1044 100 1066\"";
    const struct Case {
        const char* what;
        Fill fill;
        int bands;
        std::string set, mask;
        bool masked;  // no-data exactly at the fill; else nothing declared and no NaN anywhere
        double value; // the value at the fill, declared
    } cases[] = {
        {"oli, declared 0", Fill::NoDataValue, 6, "-sensor oli", "", true, nan},
        {"s2, mask band", Fill::MaskBand, 6, "-sensor s2", "", true, nan},
        {"own set, NaN", Fill::NaN, 6, "-coefficients " + dir.file("own.csv"), "", true, nan},
        {"tm-sr on 7 bands, per band", Fill::SrcNoDataPerBand, 7, "-sensor tm-sr", perBand, true, nan},
        {"tm on 7 bands, per band", Fill::SrcNoDataPerBand, 7, "-sensor tm", perBand, true, nan},
        {"modis, one value", Fill::NoDataValue, 7, "-sensor modis", "-srcnodata 0", true, nan},
        {"oli, -dstnodata", Fill::NoDataValue, 6, "-sensor oli", "-dstnodata -9999", true, -9999},
        {"oli, -nomask", Fill::NoDataValue, 6, "-sensor oli", "-nomask", false, 0},
        {"oli, no no-data", Fill::None, 6, "-sensor oli", "", false, 0},
    };
    for (const Case& c : cases) {
        const auto sc = tavtest::MakeMaskScene(dir.file("in.tif"), c.fill, 37, 29, c.bands);
        const std::string out = dir.file("out.tif"), plain = dir.file("plain.tif");
        ASSERT_EQ(Cli("kt -q " + c.set + " " + c.mask + " " + sc.path + " " + out), 0) << c.what;
        ASSERT_EQ(Cli("kt -q " + c.set + " -nomask " + sc.path + " " + plain), 0) << c.what;
        const auto info = tavtest::Info(out);
        for (int k = 1; k <= info.bands; ++k) {
            const auto got = tavtest::ReadBand(out, k), want = tavtest::ReadBand(plain, k);
            const bool declared = info.noData[k - 1].first;
            EXPECT_EQ(declared, c.masked) << c.what << " band " << k;
            if (declared) {
                EXPECT_TRUE(std::isnan(c.value) ? std::isnan(info.noData[k - 1].second)
                                                : info.noData[k - 1].second == c.value) << c.what;
            }
            long long wrong = 0;
            for (int y = 0; y < sc.height; ++y)
                for (int x = 0; x < sc.width; ++x) {
                    const size_t i = static_cast<size_t>(y) * sc.width + x;
                    if (!c.masked || sc.Valid(x, y)) {
                        wrong += !(got[i] == want[i]) || std::isnan(got[i]);
                    } else {
                        wrong += std::isnan(c.value) ? !std::isnan(got[i]) : got[i] != c.value;
                    }
                }
            EXPECT_EQ(wrong, 0) << c.what << " band " << k;
        }
    }
}

// Mask options that do not fit: status 2, the reason, no output.
TEST(MaskedSets, MaskOptionsThatDoNotFitAreUsageErrors)
{
    TempDir dir;
    const Scene s = Reflectance(dir, "in.tif", 6);
    const std::string out = dir.file("o.tif");
    const struct {
        std::string options, text;
    } cases[] = {
        {"-sensor oli -srcnodata \"1 2\"", "option -srcnodata gives 2 values; INPUT has 6 bands"},
        {"-sensor s2 -nomask -dstnodata 0", "option -nomask turns masking off"},
        {"-sensor oli -srcnodata x", "option -srcnodata takes numbers"},
    };
    for (const auto& c : cases) {
        const std::string log = dir.file("log.txt");
        const int raw = std::system(("'" TAV_BIN_DIR "/tavtransform' kt -q " + c.options + " " + s.path + " " + out +
                                     " >'" + log + "' 2>&1").c_str());
        EXPECT_EQ(WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, 2) << c.options;
        EXPECT_NE(tavtest::ReadFile(log).find(c.text), std::string::npos) << tavtest::ReadFile(log);
        EXPECT_FALSE(tavtest::Exists(out)) << c.options;
    }
}

// ---- the record's own branch ----

stTasseledCapInfo Record(const std::string& in, const std::string& out, const Matrix& m, const std::vector<int>& bands)
{
    stTasseledCapInfo r;
    r.trans = tavtest::TransRecord(4, true, in, out);
    for (size_t k = 0; k < m.size(); ++k) {
        r.vecNames.push_back(QString("C%1").arg(k + 1));
        r.vecCoefficients.insert(r.vecCoefficients.end(), m[k].begin(), m[k].end());
    }
    r.vecBands = bands;
    return r;
}

// Band counts the kernel fixes at compile time and counts it takes at run time, with constants,
// bands in any order and repeated, against the direct product.
TEST(SetRecord, AnyBandCountWithConstantsMatchesTheDirectProduct)
{
    TempDir dir;
    const Scene s = Reflectance(dir, "in.tif", 12, 23, 3);
    for (const std::vector<int>& bands : {std::vector<int>{3}, {5, 1, 1, 2}, {1, 2, 3, 4, 5, 6, 7, 8},
                                          {12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2}}) {
        Matrix m(2, std::vector<double>(bands.size()));
        for (size_t j = 0; j < bands.size(); ++j)
            std::tie(m[0][j], m[1][j]) = std::make_pair(0.1 * (j + 1), -0.05 * j + 0.3);
        for (const std::vector<double>& constants : {std::vector<double>{}, {10.25, -3.5}}) {
            const std::string out = dir.file(std::to_string(bands.size()) + "_bands.tif");
            auto record = Record(s.path, out, m, bands);
            record.vecConstants = constants;
            AlgoHarness h;
            ASSERT_TRUE(h.Run(record)) << h.Text().toStdString();
            ExpectComponents(s, out, m, bands, constants);
            EXPECT_EQ(tavtest::Info(out).descriptions, (std::vector<std::string>{"C1", "C2"}));
        }
    }
}

// A record whose parts do not agree, or that reads a band the input lacks, fails with code 1 and
// its text, and leaves an earlier file at the output path alone; an input that does not open is 2.
TEST(SetRecord, BadRecordsFailWithTheirTextAndTouchNothing)
{
    TempDir dir;
    const Scene s = Reflectance(dir, "in.tif", 6);
    const std::string out = dir.file("earlier.tif");
    tavtest::WriteText(out, "an earlier result");
    const Matrix m = {{1, 2, 3}};
    struct Case {
        stTasseledCapInfo record;
        int code;
        const char* text;
    };
    std::vector<Case> cases(7, {Record(s.path, out, m, {1, 2, 3}), 1, "The coefficient set is malformed!"});
    cases[0].record.vecCoefficients.pop_back();
    cases[1].record.vecNames.push_back("extra");
    cases[2].record.vecConstants = {1, 2};
    cases[3].record.vecScale = {1, 1, 1};
    cases[4].record.vecCoefficients[1] = std::nan("");
    cases[5].record.vecBands = {1, 2, 7};
    cases[5].text = "The input has fewer bands than the coefficient set uses!";
    cases[6].record.trans.strInputFile = QString::fromStdString(dir.file("none.tif"));
    cases[6].code = 2;
    cases[6].text = "Failed to open the input file!";
    for (const Case& c : cases) {
        AlgoHarness h;
        EXPECT_FALSE(h.Run(c.record));
        EXPECT_EQ(h.Code(), c.code) << c.text;
        EXPECT_EQ(h.Text(), QString(c.text));
        EXPECT_EQ(tavtest::ReadFile(out), "an earlier result") << c.text;
    }
}

// A cancel mid-run leaves -1010 and removes the output the run created.
TEST(SetRecord, CancelledRunRemovesItsOutput)
{
    TempDir dir;
    const Scene s = Reflectance(dir, "in.tif", 6, 40, 30);
    AlgoHarness h;
    h.onProgress = [&](double p) {
        if (p > 40)
            h.algo().Terminate();
    };
    EXPECT_FALSE(h.Run(Record(s.path, dir.file("o.tif"), Set("oli").m, Range(1, 6))));
    EXPECT_EQ(h.Code(), -1010);
    EXPECT_FALSE(tavtest::Exists(dir.file("o.tif")));
    EXPECT_EQ(h.Percents().back(), 100);
}

// ---- the shared kernel keeps the built-in sets' arithmetic to the bit ----

// Single precision, products in band order, the constant last, the all-zero rule of code 0.
TEST(BuiltinArithmetic, EveryBuiltinComponentIsTheSinglePrecisionSumToTheBit)
{
    TempDir dir;
    const Scene s = Reflectance(dir, "in.tif", 6, 37, 4);
    for (int sensor : {0, 1, 2}) {
        const KTSensorSet& set = KTSensor(sensor);
        AlgoHarness h;
        auto record = tavtest::TransRecord(4, true, s.path, dir.file("o.tif"));
        record.nSensorType = sensor;
        ASSERT_TRUE(h.Run(record));
        for (int k = 0; k < set.components; ++k) {
            const auto band = tavtest::ReadBand(dir.file("o.tif"), k + 1);
            for (int i = 0; i < s.w * s.h; ++i) {
                float sum = 0.0f;
                for (int j = 0; j < set.weights; ++j)
                    sum += set.matrix[k * set.weights + j] * static_cast<float>(s.fn(j, i % s.w, i / s.w));
                if (set.hasConstant)
                    sum += set.constants[k];
                ASSERT_EQ(band[i], sum) << "sensor " << sensor << " component " << k + 1 << " pixel " << i;
            }
        }
    }
}

} // namespace
