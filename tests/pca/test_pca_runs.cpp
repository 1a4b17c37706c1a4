#include "AlgoHarness.h"
#include "TestSupport.h"
#include "frame/PCARecords.h"

#include <Eigen/Dense>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <sys/wait.h>

using namespace tavtest;

namespace {

QString Q(const std::string& s) { return QString::fromStdString(s); }

stForwardPCAInfo Fwd(const std::string& in, const std::string& stats, const std::string& out, int type = 6,
                     bool center = false, int comps = 0, bool stepwise = false, bool cov = true)
{
    return {Q(in), Q(stats), Q(out), "GTiff", type, center, comps, cov, stepwise, {}, {}, {}};
}

stInversePCAInfo Inv(const std::string& in, const std::string& stats, const std::string& out, int type = 6)
{
    return {Q(in), Q(stats), Q(out), "GTiff", type};
}

std::vector<double> ReadDoubles(const std::string& path)
{
    const std::string bytes = ReadFile(path);
    std::vector<double> v(bytes.size() / 8);
    return std::memcpy(v.data(), bytes.data(), v.size() * 8), v;
}

void WriteDoubles(const std::string& path, const std::vector<double>& v)
{
    WriteText(path, std::string(reinterpret_cast<const char*>(v.data()), v.size() * 8));
}

double Pixel(int b, int x, int y) { return (x * 7 + y * 13 + b * b * 31 + x * y * b) % 251; }

// A raster's first `bands` bands as the columns of a pixels × bands matrix.
Eigen::MatrixXd Pixels(const std::string& path, int bands)
{
    Eigen::MatrixXd m(Info(path).width * Info(path).height, bands);
    for (int b = 0; b < bands; ++b)
        m.col(b) = Eigen::Map<const Eigen::VectorXd>(ReadBand(path, b + 1).data(), m.rows());
    return m;
}

} // namespace

// Statistics only, on scenes of two full blocks of 4 Mi samples, of a short last block and of rows
// too wide to be read whole: means and the population covariance (or correlation) at their offsets
// against a direct two-pass formula, the eigenvalues handed back and stored. A rotation-only run of
// the same object then projects bands 1..3 with the kept eigenvectors and zero means.
TEST(PcaModes, StatisticsOnlyAcrossBlocksThenRotationOnlyWithThreeComponents)
{
    TempDir dir;
    struct Scene { int width, height; bool covariance; };
    for (const auto& [width, height, covariance] :
         {Scene{4096, 512, true}, Scene{4096, 300, false}, Scene{22000, 3, true}}) {
        const std::string in = dir.file("in.tif");
        WriteRaster(in, Shape(width, height, 4, GDT_Byte), Pixel);
        AlgoHarness h;
        ASSERT_TRUE(h.Run(Fwd(in, dir.file("s.sta"), dir.file("o.tif"), 6, true, 0, true, covariance)));
        EXPECT_FALSE(Exists(dir.file("o.tif"))) << "statistics only";
        std::vector<double> percents = {0, 0, 15, 30, 30, 32, 35, 37, 40, 40, 42, 45, 47, 50, 100}; // two blocks
        if (height < 256)
            percents.erase(percents.begin() + 2);
        EXPECT_EQ(h.Percents(), percents) << height;
        const Eigen::MatrixXd x = Pixels(in, 4);
        const Eigen::MatrixXd centred = x.rowwise() - x.colwise().mean();
        Eigen::MatrixXd c = centred.transpose() * centred / double(x.rows());
        const Eigen::VectorXd sd = c.diagonal().cwiseSqrt();
        c = covariance ? c : Eigen::MatrixXd(c.cwiseQuotient(sd * sd.transpose()));
        const std::vector<double> file = ReadDoubles(dir.file("s.sta"));
        ASSERT_EQ(file.size(), 2 * 16 + 12 + 1u);
        EXPECT_LT((Eigen::Map<const Eigen::RowVector4d>(&file[1]) - x.colwise().mean()).norm(), 1e-9) << height;
        EXPECT_LT((Eigen::Map<const Eigen::Matrix4d>(&file[5]) - c).norm(), 1e-9 * c.norm()) << height;
        const auto& back = boost::any_cast<const stForwardPCAInfo&>(h.algo().GetParams());
        ASSERT_EQ(back.vecContribution.size() + back.vecEigenValues.size(), 8u);
        const Eigen::Map<const Eigen::Matrix4d> vt(file.data() + 21); // file rows read as columns
        for (int k = 0; k < 4; ++k) {
            EXPECT_EQ(file[37 + k], back.vecEigenValues[k]);
            EXPECT_EQ(file[41 + k], back.vecCumulative[k]);
            EXPECT_NEAR(back.vecContribution[k], back.vecEigenValues[k] / c.trace(), 1e-12);
            EXPECT_LT((c * vt.row(k).transpose() - back.vecEigenValues[k] * vt.row(k).transpose()).norm(), 1e-2);
        }
        ASSERT_TRUE(h.Run(Fwd(in, dir.file("s3.sta"), dir.file("r.tif"), 6, true, 3, true)));
        const Eigen::MatrixXd expected = Pixels(in, 3) * vt.transpose().topLeftCorner(3, 3);
        EXPECT_LT((Pixels(dir.file("r.tif"), 3) - expected).cwiseAbs().maxCoeff(), 1e-9) << width;
    }
}

// Forward with mean subtraction into Float64 and back restores the input; the statistics file is
// read through a non-ASCII path, with its count given as 4.9 and cut short after the eigenvectors.
TEST(PcaRoundTrip, ForwardThenInverseRestoresTheInput)
{
    TempDir dir;
    std::vector<std::pair<std::string, int>> scenes = {{dir.file("in.tif"), 4}, {dir.file("in9.tif"), 9}};
    WriteRaster(scenes[0].first, Shape(33, 17, 4, GDT_UInt16), [](int b, int x, int y) { return Pixel(b, x, y) * 90; });
    WriteRaster(scenes[1].first, Shape(20, 11, 9, GDT_Int32), [](int b, int x, int y) { return Pixel(b, x, y) - x * b; });
    if (!SampleScene().empty())
        scenes.push_back({SampleScene(), 6});
    GTEST_LOG_(INFO) << (SampleScene().empty() ? "L7_ETMs.tif is absent; synthetic scene only" : "");
    for (const auto& [in, n] : scenes) {
        const std::string stats = dir.file("statistik_é.sta");
        AlgoHarness h;
        ASSERT_TRUE(h.Run(Fwd(in, stats, dir.file("pc.tif"), 6, true, n)));
        ASSERT_TRUE(h.Run(Inv(dir.file("pc.tif"), stats, dir.file("back.tif"), 9)));
        EXPECT_EQ(Info(dir.file("back.tif")).type, GDT_Float64);
        EXPECT_LT((Pixels(dir.file("back.tif"), n) - Pixels(in, n)).cwiseAbs().maxCoeff(), 1e-8) << in;
        std::vector<double> file = ReadDoubles(stats);
        file.resize(1 + n + 2 * n * n);
        file[0] = n + 0.9;
        WriteDoubles(stats, file);
        ASSERT_TRUE(h.Run(Inv(dir.file("pc.tif"), stats, dir.file("back2.tif"), 6))) << h.Text().toStdString();
        EXPECT_LT((Pixels(dir.file("back2.tif"), n) - Pixels(in, n)).cwiseAbs().maxCoeff(), 1e-2) << in;
    }
}

// Back-rotated values outside Byte are placed by the component raster's range, values inside are
// truncated: the identity rotation of a hand-made statistics file makes the components the values.
TEST(PcaInverse, ValuesOutsideTheTypeAreStretchedByTheComponentRange)
{
    TempDir dir;
    const std::string in = dir.file("c.tif");
    auto value = [](int b, int x, int y) { return (x * 37 + y * 101 + b * 59) % 700 - 150.25; };
    WriteRaster(in, Shape(3000, 40, 2), value);
    WriteDoubles(dir.file("id.sta"), {2, 0, 0, 0, 0, 0, 0, 1, 0, 0, 1, 1, 1, 1, 1});
    ASSERT_TRUE(AlgoHarness().Run(Inv(in, dir.file("id.sta"), dir.file("b.tif"), 0)));
    const double lo = -150.25, hi = 548.75; // the smallest and largest value above
    for (int b = 0; b < 2; ++b) {
        const std::vector<double> got = ReadBand(dir.file("b.tif"), b + 1);
        for (int p = 0; p < 3000 * 40; ++p) {
            const double c = value(b, p % 3000, p / 3000);
            const double want = c > 0 && c < 255 ? std::trunc(c)
                                : c <= lo        ? 0
                                : c >= hi        ? 255
                                                 : std::trunc((c - lo) * 255 / (hi - lo));
            ASSERT_EQ(got[p], want) << b << " " << p;
        }
    }
}

// Progress of a one-block statistics pass over 3 bands, worked out by hand; a constant band in
// correlation mode still ends, with exactly 1.0 on the diagonal.
TEST(PcaProgress, StatisticsPassByHandAndCorrelationWithAConstantBand)
{
    TempDir dir;
    const std::string in = dir.file("in.tif");
    WriteRaster(in, Shape(6, 5, 3), [](int b, int x, int y) { return b == 1 ? 42.0 : Pixel(b, x, y) / 3.0; });
    AlgoHarness ok;
    ASSERT_TRUE(ok.Run(Fwd(in, dir.file("c.sta"), "", 6, false, 0, true, false)));
    EXPECT_EQ(ok.Percents(), (std::vector<double>{0, 0, 30, 30, 33, 36, 40, 40, 43, 46, 50, 100}));
    EXPECT_EQ(ok.events[1].message, QString("Forward PCA Rotation is running..."));
    const std::vector<double> corr = ReadDoubles(dir.file("c.sta"));
    EXPECT_TRUE(corr[4] == 1.0 && corr[8] == 1.0 && corr[12] == 1.0 && !std::isfinite(corr[5]));
}

// Statistics files no one should trust, and inputs or outputs that cannot be had: a clear message,
// code 1, no output. A file of a count alone reads the rest as zeros, without complaint.
TEST(PcaFailures, HostileStatisticsAndUnusableFilesFailCleanly)
{
    TempDir dir;
    const std::string in = dir.file("in.tif");
    WriteRaster(in, Shape(6, 5, 3), Pixel);
    for (const std::vector<double>& file : std::vector<std::vector<double>>{
             {0}, {-3}, {std::nan("")}, {1e9}, {3e9}, {1e300}, {}, {4, 1, 2}}) {
        WriteDoubles(dir.file("bad.sta"), file);
        AlgoHarness h;
        EXPECT_FALSE(h.Run(Inv(in, dir.file("bad.sta"), dir.file("o.tif"))) || Exists(dir.file("o.tif")));
        EXPECT_EQ(std::make_pair(h.Code(), h.Text()), std::make_pair(0, QString())) << "Execute sets neither";
    }
    WriteDoubles(dir.file("short.sta"), {3});
    EXPECT_TRUE(AlgoHarness().Run(Inv(in, dir.file("short.sta"), dir.file("z.tif"))));

    WriteText(dir.file("text.tif"), "not a raster");
    // Input not opened, output or statistics file not created, and, with no stepwise and no
    // components, no routine on a fresh engine: failures whose code and text Execute leaves alone.
    const stForwardPCAInfo runs[] = {
        Fwd(dir.file("text.tif"), dir.file("s.sta"), dir.file("o.tif"), 6, false, 3),
        Fwd(in, dir.file("s.sta"), dir.file("no/such/dir/o.tif"), 6, false, 3),
        Fwd(in, dir.file("no/such/s.sta"), dir.file("o.tif"), 6, false, 3),
        Fwd(in, dir.file("s.sta"), dir.file("o.tif")),
    };
    for (const auto& record : runs) {
        AlgoHarness f;
        EXPECT_FALSE(f.Run(record) || Exists(dir.file("o.tif")));
        EXPECT_EQ(std::make_pair(f.Code(), f.Text()), std::make_pair(0, QString())) << "Execute sets neither";
    }
}

// The command line: the eigenvalue table of a statistics-only run, and pca-inverse refusing a
// statistics file whose size does not fit its band count, naming both sizes.
TEST(PcaCommandLine, EigenTableAndStatisticsSizeCheck)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), stats = dir.file("s.sta");
    WriteRaster(in, Shape(6, 5, 3), Pixel);
    auto run = [&](const std::string& args, std::string& text) {
        const int raw = std::system((TAV_BIN_DIR "/tavtransform " + args + " >" + dir.file("o.txt") + " 2>&1").c_str());
        return text = ReadFile(dir.file("o.txt")), WEXITSTATUS(raw);
    };
    std::string text;
    ASSERT_EQ(run("pca -q -stats-only -stats " + stats + " " + in, text), 0) << text;
    const std::vector<double> file = ReadDoubles(stats);
    char row[64];
    std::snprintf(row, sizeof row, "1          %16.6f", file[1 + 3 + 18]);
    EXPECT_NE(text.find(row), std::string::npos) << text;
    EXPECT_NE(text.find("100.0000\n"), std::string::npos) << text;

    WriteDoubles(stats, std::vector<double>(file.begin(), file.end() - 1));
    EXPECT_EQ(run("pca-inverse -q -stats " + stats + " " + in + " " + dir.file("b.tif"), text), 2);
    EXPECT_NE(text.find("holds 216 bytes; for its 3 bands it must hold 224 bytes"), std::string::npos) << text;
    EXPECT_FALSE(Exists(dir.file("b.tif")));
}
