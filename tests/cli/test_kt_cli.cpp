// kt's own sets on the command line: the user's CSV file, the help that lists every set.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <memory>

using tavtest::TempDir;

namespace {

struct Result {
    int status;
    std::string err, out;
};

Result Kt(const TempDir& dir, const std::string& args)
{
    const std::string cmd = "'" TAV_BIN_DIR "/tavtransform' kt " + args + " > " + dir.file("out.txt") + " 2> " +
                            dir.file("err.txt");
    const int raw = std::system(cmd.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, tavtest::ReadFile(dir.file("err.txt")),
            tavtest::ReadFile(dir.file("out.txt"))};
}

const char* kOliRows = "Brightness,0.3029,0.2786,0.4733,0.5599,0.5080,0.1872\n"
                       "Greenness,-0.2941,-0.2430,-0.5424,0.7276,0.0713,-0.1608\n"
                       "Wetness,0.1511,0.1973,0.3283,0.3407,-0.7117,-0.4559\n";

// Each kind of bad file, or a file that does not fit INPUT, is a usage error that says what is
// wrong where, and nothing is written.
TEST(CoefficientFile, MalformedFilesAreRefusedWithTheirMessageAndNothingWritten)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), out = dir.file("o.tif");
    tavtest::WriteRaster(in, tavtest::Shape(5, 4, 6, GDT_Float32), [](int b, int x, int y) { return 0.1 * b + x * y; });
    const struct {
        std::string text, message;
    } cases[] = {
        {"# nothing but a comment\n\n", "c.csv' holds no coefficient rows"},
        {"a,1,2,3,4,5,6\n,1,2,3,4,5,6\n", "c.csv' line 2: the first field, the component's name, is empty"},
        {"Brightness\n", "c.csv' line 1: no coefficients after the name 'Brightness'"},
        {"# set\nb,0.1,abc,0.3,0.4,0.5,0.6\n", "c.csv' line 2, field 3: 'abc' is not a number"},
        {"b,0.1,,0.3,0.4,0.5,0.6\n", "c.csv' line 1, field 3: empty where a number belongs"},
        {"b,0.1,0.2,0.3,0.4,0.5,inf\n", "field 7: 'inf' is not a number"},
        {"b,0.1,0.2,0.3,0.4,0.5x,0.6\n", "field 6: '0.5x' is not a number"},
        {"b,1,2,3,4,5,6\ng,1,2,3,4,5\n", "c.csv' line 2: 5 numbers where the first row has 6"},
        {"b,1,2,3,4\ng,1,2,3,4\n", "the rows of '" + dir.file("c.csv") + "' have 4 numbers, INPUT has 6 bands"},
        {"b,1,2,3,4,5,6,7,8\n", "have 8 numbers, INPUT has 6 bands"},
    };
    for (const auto& c : cases) {
        tavtest::WriteText(dir.file("c.csv"), c.text);
        const Result r = Kt(dir, "-q -coefficients " + dir.file("c.csv") + " " + in + " " + out);
        EXPECT_EQ(r.status, 2) << c.text << r.err;
        EXPECT_NE(r.err.find("option -coefficients: "), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.text << r.err;
        EXPECT_FALSE(tavtest::Exists(out)) << c.text;
    }
    tavtest::WriteText(dir.file("c.csv"), kOliRows);
    const struct {
        std::string args, message;
    } misuse[] = {
        {"-coefficients " + dir.file("none.csv") + " " + in + " " + out, "cannot read '" + dir.file("none.csv")},
        {"-sensor oli -coefficients " + dir.file("c.csv") + " " + in + " " + out, "exclude each other"},
        {"-sensor etm -coefficients " + dir.file("c.csv") + " " + in + " " + out, "exclude each other"},
        {"-coefficients " + dir.file("c.csv") + " " + in + " " + dir.file("c.csv"), "same file as the coefficient file"},
        {"-sensor modis " + in + " " + out, "-sensor modis takes a stack of 7 or more bands (see 'tavtransform kt --help'); INPUT has 6"},
    };
    for (const auto& c : misuse) {
        const Result r = Kt(dir, "-q " + c.args);
        EXPECT_EQ(r.status, 2) << c.args << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << r.err;
        EXPECT_FALSE(tavtest::Exists(out)) << c.args;
    }
    EXPECT_EQ(tavtest::ReadFile(dir.file("c.csv")), kOliRows);
}

// A header, comments, quoted names, spaces and a constant column; the names become band names and
// the file is recorded. The OLI rows, after a byte order mark, give exactly what -sensor oli gives.
TEST(CoefficientFile, UsersSetWithConstantsIsTheDirectProductPlusTheConstant)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), csv = dir.file("mine.csv");
    const tavtest::PixelFn fn = tavtest::RandomPixels({GDT_UInt16, 0, 10000}, 3);
    tavtest::WriteRaster(in, tavtest::Shape(11, 3, 3, GDT_UInt16), fn);
    tavtest::WriteText(csv, "component, blue, green, red, constant\n# mine\n\n"
                            "\"Soil line\", 0.5, 0.25, +1e-1, 10\r\nOther,-1,0,2,-2.5\n");
    ASSERT_EQ(Kt(dir, "-q -coefficients " + csv + " " + in + " " + dir.file("o.tif")).status, 0);
    const double m[2][4] = {{0.5, 0.25, 0.1, 10}, {-1, 0, 2, -2.5}};
    for (int k = 0; k < 2; ++k) {
        const auto band = tavtest::ReadBand(dir.file("o.tif"), k + 1);
        for (int i = 0; i < 33; ++i) {
            double want = m[k][3], mag = std::abs(m[k][3]);
            for (int j = 0; j < 3; ++j) {
                want += m[k][j] * fn(j, i % 11, i / 11);
                mag += std::abs(fn(j, i % 11, i / 11));
            }
            ASSERT_NEAR(band[i], want, 4e-7 * mag * 8 + 1e-6) << k << " " << i;
        }
    }
    const auto info = tavtest::Info(dir.file("o.tif"));
    EXPECT_EQ(info.descriptions, (std::vector<std::string>{"Soil line", "Other"}));
    std::unique_ptr<GDALDataset> ds(GDALDataset::Open(dir.file("o.tif").c_str(), GDAL_OF_RASTER));
    EXPECT_EQ(std::string(ds->GetMetadataItem("COEFFICIENTS", "TAVTRANSFORM")), csv);
    EXPECT_EQ(std::string(ds->GetMetadataItem("OPTIONS", "TAVTRANSFORM")), "-coefficients " + csv + " -of GTiff");

    tavtest::WriteRaster(in, tavtest::Shape(11, 3, 6, GDT_UInt16), fn);
    tavtest::WriteText(csv, std::string("\xEF\xBB\xBF") + kOliRows); // a spreadsheet's byte order mark
    ASSERT_EQ(Kt(dir, "-q -coefficients " + csv + " " + in + " " + dir.file("u.tif")).status, 0);
    EXPECT_EQ(tavtest::Info(dir.file("u.tif")).descriptions, (std::vector<std::string>{"Brightness", "Greenness", "Wetness"}));
    ASSERT_EQ(Kt(dir, "-q -sensor oli " + in + " " + dir.file("p.tif")).status, 0);
    for (int k = 1; k <= 3; ++k)
        EXPECT_EQ(tavtest::ReadBand(dir.file("u.tif"), k), tavtest::ReadBand(dir.file("p.tif"), k)) << k;
}

TEST(KtHelp, ListsEverySetWithItsInputQuantityAndSource)
{
    TempDir dir;
    const Result r = Kt(dir, "--help");
    ASSERT_EQ(r.status, 0);
    for (const char* expected :
         {"tm     Landsat 4, 5 TM, DN", "mss    Landsat MSS, DN", "etm    Landsat 7 ETM+, TOA reflectance",
          "oli    Landsat 8 and 9 OLI, TOA reflectance", "s2     Sentinel-2 MSI Level-1C, TOA reflectance",
          "modis  MODIS NBAR (MCD43), surface reflectance", "tm-sr  Landsat 4, 5 TM (and 7 ETM+), surface reflectance",
          "doi:10.1080/2150704X.2014.915434", "doi:10.1109/JSTARS.2019.2938388", "28(22): 5079-5101",
          "doi:10.1016/0034-4257(85)90102-6", "-coefficients FILE.csv", "-unscale"})
        EXPECT_NE(r.out.find(expected), std::string::npos) << expected << "\n" << r.out;
}

} // namespace
