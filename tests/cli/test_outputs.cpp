#include "BandNames.h"
#include "Quicklook.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>

using tavtest::TempDir;

namespace {

int Cli(const std::string& args)
{
    const std::string cmd = std::string("'") + TAV_BIN_DIR + "/tavtransform' " + args + " >/dev/null 2>&1";
    const int raw = std::system(cmd.c_str());
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

std::map<std::string, std::string> Domain(const std::string& path)
{
    std::map<std::string, std::string> items;
    GDALDataset* ds = GDALDataset::Open(path.c_str(), GDAL_OF_RASTER);
    for (char** p = ds ? ds->GetMetadata("TAVTRANSFORM") : nullptr; p && *p; ++p) {
        const std::string kv = *p;
        items[kv.substr(0, kv.find('='))] = kv.substr(kv.find('=') + 1);
    }
    GDALClose(ds);
    return items;
}

// 2-98 % stretch by nearest rank, written from its definition.
std::vector<int> ReferenceStretch(std::vector<double> v)
{
    std::vector<double> sorted = v;
    std::sort(sorted.begin(), sorted.end());
    const double lo = sorted[static_cast<size_t>(0.02 * (sorted.size() - 1))];
    const double hi = sorted[static_cast<size_t>(0.98 * (sorted.size() - 1))];
    std::vector<int> out;
    for (double x : v)
        out.push_back(static_cast<int>(std::lround(255.0 * std::clamp((x - lo) / (hi - lo), 0.0, 1.0))));
    return out;
}

std::vector<int> Rounded(const std::vector<double>& v) { return std::vector<int>(v.begin(), v.end()); }

// Every command's unnamed bands get a name saying what they hold; the run is recorded beside them.
TEST(Outputs, RunsNameTheirBandsAndRecordTheCommand)
{
    TempDir dir;
    const std::string in = dir.file("in.tif");
    tavtest::WriteRaster(in, tavtest::Shape(8, 6, 3, GDT_Byte), [](int b, int x, int y) { return b * 40 + x * y; });
    struct Case {
        std::string args, output;
        std::vector<std::string> names;
        std::string options;
    } cases[] = {
        {"fft -b 3 -b 1", "f.tif", {"Real (band 3)", "Imaginary (band 3)", "Real (band 1)", "Imaginary (band 1)"},
         "-b 3 -b 1 -of GTiff"},
        {"fft-inverse", "fi.tif", {"Band 1 restored", "Band 2 restored"}, "-ot Float32 -of GTiff"},
        {"dwt", "d.tif", {"Wavelet quadrants (band 1)", "Wavelet quadrants (band 2)", "Wavelet quadrants (band 3)"},
         "-of GTiff"},
        {"dwt-inverse", "di.tif", {"Band 1 restored", "Band 2 restored", "Band 3 restored"}, "-of GTiff"},
        // ENVI's own "Band N" placeholders count as unnamed; PNG keeps neither, and the run still succeeds.
        {"dwt -of ENVI", "d.envi", {"Wavelet quadrants (band 1)", "Wavelet quadrants (band 2)", "Wavelet quadrants (band 3)"},
         "-of ENVI"},
        {"fft-inverse -ot Byte -of PNG", "fi.png", {"", ""}, ""},
    };
    for (const Case& c : cases) {
        const std::string source = c.args.find("fft-inverse") == 0 ? dir.file("f.tif")
                                   : c.args == "dwt-inverse"      ? dir.file("d.tif")
                                                                  : in;
        ASSERT_EQ(Cli(c.args + " -q " + source + " " + dir.file(c.output)), 0) << c.args;
        EXPECT_EQ(tavtest::Info(dir.file(c.output)).descriptions, c.names) << c.args;
        const auto domain = Domain(dir.file(c.output));
        if (c.options.empty()) {
            EXPECT_TRUE(domain.empty());
            continue;
        }
        EXPECT_EQ(domain.at("COMMAND"), c.args.substr(0, c.args.find(' '))) << c.args;
        EXPECT_EQ(domain.at("OPTIONS"), c.options);
        EXPECT_EQ(domain.at("INPUT"), source);
        EXPECT_EQ(domain.at("VERSION"), std::string("tavtransform ") + TAV_VERSION);
    }
    // Names the plug-in gave stay; the statistics file and the principal components' options are recorded.
    Request pca;
    pca.command = "pca";
    stForwardPCAInfo r;
    r.strStatFile = "s.sta";
    r.nComponents = 2;
    r.bCovariance = false;
    r.strFormat = "HFA";
    pca.record = r;
    EXPECT_EQ(BandName(pca, 2), "PC 2");
    EXPECT_EQ(RunMetadata(pca)[1].second, "-stats s.sta -ot Float32 -n 2 -corr -of HFA");
    EXPECT_EQ(RunMetadata(pca)[3], std::make_pair(std::string("STATISTICS"), std::string("s.sta")));
}

struct QuicklookCase {
    int width, height, bands;
    bool spectrum;
    int qw, qh, qbands;
};

// Long side at most 1024, aspect kept; three bands or more give RGB, a spectrum pair gives grey.
TEST(Quicklook, SizeAndBandsFollowTheRaster)
{
    TempDir dir;
    const QuicklookCase cases[] = {
        {2050, 300, 1, false, 1024, 150, 1}, {300, 2050, 4, false, 150, 1024, 3},
        {9, 7, 2, false, 9, 7, 1},           {9, 7, 2, true, 9, 7, 1},
    };
    for (const auto& c : cases) {
        const std::string in = dir.file("in.tif"), png = dir.file("q.png");
        tavtest::WriteRaster(in, tavtest::Shape(c.width, c.height, c.bands, GDT_Byte), [](int b, int x, int y) {
            return (b + x + y) % 200;
        });
        ASSERT_EQ(WriteQuicklook(in, png, c.spectrum), "") << c.width;
        const tavtest::RasterInfo info = tavtest::Info(png);
        EXPECT_EQ(std::make_tuple(info.width, info.height, info.bands, info.type),
                  std::make_tuple(c.qw, c.qh, c.qbands, GDT_Byte))
            << c.width << "x" << c.height;
    }
}

// Grey from a ramp, and the log magnitude of a real/imaginary pair, against the stretch's definition.
TEST(Quicklook, PixelsAreTheStretchedValues)
{
    TempDir dir;
    const std::string ramp = dir.file("ramp.tif"), pair = dir.file("pair.tif"), png = dir.file("q.png");
    auto rampFn = [](int, int x, int y) { return std::pow(x + 10.0 * y, 1.5); };
    tavtest::WriteRaster(ramp, tavtest::Shape(10, 10, 1, GDT_Float32), rampFn);
    std::vector<double> values;
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x)
            values.push_back(static_cast<float>(rampFn(0, x, y)));
    ASSERT_EQ(WriteQuicklook(ramp, png, false), "");
    EXPECT_EQ(Rounded(tavtest::ReadBand(png, 1)), ReferenceStretch(values));

    auto pairFn = [](int b, int x, int y) { return b == 0 ? x - 3.0 : y * y - 2.0; };
    tavtest::WriteRaster(pair, tavtest::Shape(7, 5, 2, GDT_Float32), pairFn);
    std::vector<double> magnitudes;
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x)
            magnitudes.push_back(std::log(1.0 + std::sqrt(std::pow(pairFn(0, x, y), 2) + std::pow(pairFn(1, x, y), 2))));
    ASSERT_EQ(WriteQuicklook(pair, png, true), "");
    EXPECT_EQ(Rounded(tavtest::ReadBand(png, 1)), ReferenceStretch(magnitudes));
}

// A bad -quicklook is a usage error before anything runs; an unwritable one fails after the run, output kept.
TEST(Quicklook, BadRequestsAreRefused)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), out = dir.file("o.tif");
    tavtest::WriteRaster(in, tavtest::Shape(8, 6, 2, GDT_Byte), [](int, int x, int) { return x; });
    EXPECT_EQ(Cli("dwt -q -quicklook " + dir.file("q.jpg") + " " + in + " " + out), 2);
    EXPECT_EQ(Cli("pca -q -stats-only -stats " + dir.file("s.sta") + " -quicklook " + dir.file("q.png") + " " + in), 2);
    EXPECT_FALSE(tavtest::Exists(out));
    EXPECT_EQ(Cli("dwt -q -quicklook " + dir.file("no/such/q.png") + " " + in + " " + out), 1);
    EXPECT_TRUE(tavtest::Exists(out));
    EXPECT_NE(WriteQuicklook(dir.file("missing.tif"), dir.file("q.png"), false), "");
    EXPECT_FALSE(tavtest::Exists(dir.file("q.png")));
}

} // namespace
