#include "BandNames.h"
#include "Quicklook.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>

using tavtest::TempDir;

namespace {

int Cli(const std::string& args)
{
    const int raw = std::system(("'" TAV_BIN_DIR "/tavtransform' " + args + " >/dev/null 2>&1").c_str());
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

// The run's record as sorted "KEY=value" lines.
std::vector<std::string> Domain(const std::string& path)
{
    std::unique_ptr<GDALDataset> ds(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER));
    char** items = ds->GetMetadata("TAVTRANSFORM");
    std::vector<std::string> lines(items, items + CSLCount(items));
    std::sort(lines.begin(), lines.end());
    return lines;
}

// 2-98 % stretch by nearest rank, from its definition.
std::vector<double> ReferenceStretch(const std::vector<double>& v)
{
    std::vector<double> s = v, out;
    std::sort(s.begin(), s.end());
    const double lo = s[size_t(0.02 * (s.size() - 1))], hi = s[size_t(0.98 * (s.size() - 1))];
    for (double x : v)
        out.push_back(std::round(255.0 * std::clamp((x - lo) / (hi - lo), 0.0, 1.0)));
    return out;
}

// Unnamed bands get a name saying what they hold, and the run is recorded; ENVI's own "Band N"
// counts as unnamed; PNG and COG keep neither and the run still succeeds.
TEST(Outputs, RunsNameTheirBandsAndRecordTheCommand)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), f = dir.file("f.tif"), d = dir.file("d.tif");
    tavtest::WriteRaster(in, tavtest::Shape(8, 6, 3, GDT_Byte), [](int b, int x, int y) { return b * 40 + x * y; });
    const std::vector<std::string> dwt = {"Wavelet quadrants (band 1)", "Wavelet quadrants (band 2)", "Wavelet quadrants (band 3)"};
    const std::vector<std::string> restored = {"Band 1 restored", "Band 2 restored", "Band 3 restored"};
    const struct { std::string args, source, output; std::vector<std::string> names; std::string options; } cases[] = {
        {"fft -b 3 -b 1", in, f, {"Real (band 3)", "Imaginary (band 3)", "Real (band 1)", "Imaginary (band 1)"},
         "-b 3 -b 1 -of GTiff"},
        {"fft-inverse", f, dir.file("fi.tif"), {restored[0], restored[1]}, "-ot Float32 -of GTiff"},
        {"dwt", in, d, dwt, "-of GTiff"},
        {"dwt-inverse", d, dir.file("di.tif"), restored, "-of GTiff"},
        {"dwt -of ENVI", in, dir.file("d.envi"), dwt, "-of ENVI"},
        {"fft-inverse -ot Byte -of PNG", f, dir.file("fi.png"), {"", ""}, ""},
        {"dwt -of COG", in, dir.file("d.cog"), {"", "", ""}, ""}, // changing it afterwards would undo its layout
    };
    for (const auto& c : cases) {
        ASSERT_EQ(Cli(c.args + " -q " + c.source + " " + c.output), 0) << c.args;
        EXPECT_EQ(tavtest::Info(c.output).descriptions, c.names) << c.args;
        const std::vector<std::string> record = {"COMMAND=" + c.args.substr(0, c.args.find(' ')), "INPUT=" + c.source,
                                                 "OPTIONS=" + c.options, "VERSION=tavtransform " TAV_VERSION};
        EXPECT_EQ(Domain(c.output), c.options.empty() ? std::vector<std::string>() : record) << c.args;
    }
    stForwardPCAInfo r;
    std::tie(r.strStatFile, r.strFormat, r.nComponents, r.bCovariance) = std::make_tuple("s.sta", "HFA", 2, false);
    Request pca;
    std::tie(pca.command, pca.record) = std::make_tuple("pca", r);
    EXPECT_EQ(BandName(pca, 2), "PC 2");
    EXPECT_EQ(RunMetadata(pca)[1].second, "-stats s.sta -ot Float32 -n 2 -corr -of HFA");
    EXPECT_EQ(RunMetadata(pca)[3], std::make_pair(std::string("STATISTICS"), std::string("s.sta")));
}

// Long side at most 1024 with the aspect kept; three bands or more give RGB, a spectrum pair grey.
TEST(Quicklook, SizeAndBandsFollowTheRaster)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), png = dir.file("q.png");
    const int cases[][7] = {{2050, 300, 1, 0, 1024, 150, 1}, {300, 2050, 4, 0, 150, 1024, 3},
                            {9, 7, 2, 0, 9, 7, 1},           {9, 7, 2, 1, 9, 7, 1}};
    for (const auto& c : cases) {
        tavtest::WriteRaster(in, tavtest::Shape(c[0], c[1], c[2], GDT_Byte), [](int b, int x, int y) { return (b + x + y) % 200; });
        ASSERT_EQ(WriteQuicklook(in, png, c[3]), "");
        const auto q = tavtest::Info(png);
        EXPECT_EQ(std::vector<int>({q.width, q.height, q.bands, q.type}), std::vector<int>({c[4], c[5], c[6], 1}));
    }
}

// Grey from a ramp, and the log magnitude of a real/imaginary pair, against the stretch's definition.
TEST(Quicklook, PixelsAreTheStretchedValues)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), png = dir.file("q.png");
    const tavtest::PixelFn ramp = [](int, int x, int y) { return float(std::pow(x + 10.0 * y, 1.5)); };
    const tavtest::PixelFn pair = [](int b, int x, int y) { return b == 0 ? x - 3.0 : y * y - 2.0; };
    for (bool spectrum : {false, true}) {
        tavtest::WriteRaster(in, tavtest::Shape(10, 7, 2, GDT_Float32), spectrum ? pair : ramp);
        std::vector<double> values;
        for (int y = 0; y < 7; ++y)
            for (int x = 0; x < 10; ++x)
                values.push_back(spectrum ? std::log(1.0 + std::hypot(pair(0, x, y), pair(1, x, y))) : ramp(0, x, y));
        ASSERT_EQ(WriteQuicklook(in, png, spectrum), "");
        EXPECT_EQ(tavtest::ReadBand(png, 1), ReferenceStretch(values)) << spectrum;
    }
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
    EXPECT_EQ(Cli("dwt -q -quicklook " + dir.file("no/q.png") + " " + in + " " + out), 1);
    EXPECT_TRUE(tavtest::Exists(out));
}

} // namespace
