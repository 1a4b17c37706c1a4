#include "AlgoHarness.h"
#include "TestSupport.h"
#include "mnf/CMNFTransFunc.h"
#include "mnf/MNFStatsFile.h"

#include <Eigen/Dense>
#include <QStringList>
#include <gtest/gtest.h>

#include <random>

using tavtest::AlgoHarness;
using tavtest::ReadBand;
using tavtest::TempDir;

namespace mnftest {
std::string Records(const std::vector<std::string>& texts);
}

namespace {

using Mat = Eigen::MatrixXd;

stTransInfo Mnf(bool forward, const std::string& in, const std::string& out, const std::string& stats)
{
    stTransInfo info = tavtest::TransRecord(1, forward, in, out);
    info.strStatFile = QString::fromStdString(stats);
    return info;
}

// Records separated by "|" into a statistics file.
void WriteStats(const std::string& path, const QString& records)
{
    std::vector<std::string> list;
    for (const QString& r : records.split('|'))
        list.push_back(r.toStdString());
    tavtest::WriteText(path, mnftest::Records(list));
}

// Covariances straight from the definitions: the first row looks down for its upper neighbour,
// the last column looks left, half-sums in single precision, the noise over 2N.
struct Direct {
    Mat noise, data;
    Eigen::VectorXd mean;
    std::vector<std::vector<double>> x; // per band, row-major
};

Direct DirectStatistics(const std::string& path)
{
    const auto info = tavtest::Info(path);
    const int n = info.bands, w = info.width, h = info.height;
    const double N = double(w) * h;
    Direct d{Mat::Zero(n, n), Mat::Zero(n, n), Eigen::VectorXd::Zero(n), {}};
    for (int b = 1; b <= n; ++b)
        d.x.push_back(ReadBand(path, b));
    Eigen::VectorXd noiseSum = Eigen::VectorXd::Zero(n), z(n), v(n);
    for (int y = 0; y < h; ++y)
        for (int c = 0; c < w; ++c) {
            const int up = y == 0 ? 1 : y - 1, side = c + 1 < w ? c + 1 : c - 1;
            for (int b = 0; b < n; ++b) {
                auto f = [&](int yy, int cc) { return float(d.x[b][yy * w + cc]); };
                z[b] = double(f(y, c)) - double(0.5f * (f(up, c) + f(y, side)));
                v[b] = f(y, c);
            }
            noiseSum += z;
            d.noise += z * z.transpose();
            d.mean += v;
            d.data += v * v.transpose();
        }
    d.noise = (d.noise - noiseSum * noiseSum.transpose() / N) / (2 * N);
    d.data = (d.data - d.mean * d.mean.transpose() / N) / N;
    d.mean /= N;
    return d;
}

// Forward against the direct covariances: T whitens the noise (T·C_N·Tᵀ = I, a noise-free band's
// component dropped), diagonalises the data in falling order, the components are T·(x − m), and
// a budget of two rows a block gives the same bits. The inverse gives the input back. Also on the
// Landsat sample (width 0) where it is beside the project.
TEST(MNFRuns, ForwardAgainstDirectStatisticsAndRoundTrip)
{
    struct { const char* what; int w, h, n; GDALDataType type; int constantBand; } scenes[] = {
        {"ThreeBandsUInt16", 7, 5, 3, GDT_UInt16, -1}, {"TwoColumnsInt16", 2, 6, 2, GDT_Int16, -1},
        {"OneBandFloat32", 5, 4, 1, GDT_Float32, -1}, {"ConstantBandByte", 6, 5, 3, GDT_Byte, 1},
        {"NineBandsFloat32", 4, 3, 9, GDT_Float32, -1}, {"LandsatSample", 0, 0, 6, GDT_Byte, -1}};
    for (const auto& s : scenes) {
        SCOPED_TRACE(s.what);
        TempDir dir;
        const std::string in = s.w ? dir.file("in.tif") : tavtest::SampleScene(), out = dir.file("mnf.tif"),
                          st = dir.file("mnf.sta");
        if (in.empty()) {
            std::printf("L7_ETMs.tif is not beside the project: skipped\n");
            continue;
        }
        if (s.w)
            tavtest::WriteRaster(in, tavtest::Shape(s.w, s.h, s.n, s.type), [&](int b, int x, int y) {
                std::mt19937 rng(b * 1000 + y * 50 + x);
                const double v = b == s.constantBand ? 9 : std::uniform_int_distribution<int>(0, 200)(rng) + 20 * b * x;
                return s.type == GDT_Float32 ? 16777216 + 2 * v : v; // half-sums that only float rounds
            });
        AlgoHarness h;
        ASSERT_TRUE(h.Run(Mnf(true, in, out, st))) << h.Text().toStdString();
        const int units = 3 * tavtest::Info(in).height + 4 * s.n, w = tavtest::Info(in).width;
        ASSERT_EQ(int(h.Percents().size()), units + 2);
        EXPECT_EQ(h.Percents()[units], double(float(units - 1) / float(units) * 100.0f));
        const Direct d = DirectStatistics(in);
        MNFStats stats;
        QString error;
        ASSERT_TRUE(ReadMNFStats(QString::fromStdString(st), stats, error));
        EXPECT_EQ(stats.pixelType, int(s.type));
        const Mat T = Eigen::Map<Eigen::Matrix<double, -1, -1, Eigen::RowMajor>>(stats.matrix.data(), s.n, s.n);
        const Eigen::VectorXd m = Eigen::Map<Eigen::VectorXd>(stats.means.data(), s.n);
        EXPECT_LT((m - d.mean).cwiseAbs().maxCoeff(), 1e-9 * (1 + d.mean.cwiseAbs().maxCoeff()));
        Mat white = Mat::Identity(s.n, s.n);
        if (s.constantBand >= 0)
            white(s.n - 1, s.n - 1) = 0;
        EXPECT_LT((T * d.noise * T.transpose() - white).cwiseAbs().maxCoeff(), 1e-3);
        const Mat snr = T * d.data * T.transpose();
        EXPECT_LT((snr - Mat(snr.diagonal().asDiagonal())).cwiseAbs().maxCoeff(), 0.02);
        for (int k = 1; k < s.n; ++k)
            EXPECT_LE(snr(k, k), snr(k - 1, k - 1));
        CMNFTransFunc wide(h.algo().Context());
        ASSERT_TRUE(wide.Forward(QString::fromStdString(in), dir.qfile("w.tif"), dir.qfile("w.sta"), "GTiff", nullptr,
                                 0, -1, -1, -1, -1, 2 * w * s.n * 4 * 2));
        for (int k = 0; k < s.n; ++k) {
            const auto y = ReadBand(out, k + 1);
            EXPECT_EQ(ReadBand(dir.file("w.tif"), k + 1), y);
            for (size_t p = 0; p < y.size(); ++p) {
                double ref = 0;
                for (int b = 0; b < s.n; ++b)
                    ref += (d.x[b][p] - d.mean[b]) * T(k, b);
                ASSERT_NEAR(y[p], ref, 1e-4 * (1 + std::abs(ref))) << k << " " << p;
            }
        }
        if (s.constantBand >= 0)
            continue; // its matrix is singular: nothing to invert
        ASSERT_TRUE(h.Run(Mnf(false, out, dir.file("back.tif"), st))) << h.Text().toStdString();
        EXPECT_EQ(tavtest::Info(dir.file("back.tif")).type, s.type);
        for (int b = 0; b < s.n; ++b) {
            const auto back = ReadBand(dir.file("back.tif"), b + 1);
            for (size_t p = 0; p < back.size(); ++p)
                ASSERT_NEAR(back[p], d.x[b][p], s.type == GDT_Float32 ? 0.05 : 1.0) << b << " " << p;
        }
    }
}

// One band: pixel = component ÷ t0 + m0 (here 2c + 0.25), integers truncated toward zero and
// wrapped to their low bytes, NaN and ±∞ stored as 0; progress per row in single precision.
TEST(MNFRuns, InverseTruncatesAndWraps)
{
    const double inf = INFINITY, nan = NAN;
    const std::vector<double> c = {1.25, -2, 250000, nan, inf, -inf, 1e30, 0};
    struct { int type; std::vector<double> want; } cases[] = {
        {1, {2, 253, 32, 0, 0, 0, 0, 0}},       {2, {2, 65533, 41248, 0, 0, 0, 0, 0}},
        {3, {2, -3, -24288, 0, 0, 0, 0, 0}},    {4, {2, 4294967293, 500000, 0, 0, 0, 0, 0}},
        {5, {2, -3, 500000, 0, 0, 0, 0, 0}},    {7, {2.75, -3.75, 500000.25, nan, inf, -inf, 2 * double(1e30f), 0.25}}};
    TempDir dir;
    tavtest::WriteRaster(dir.file("c.tif"), tavtest::Shape(4, 2), [&](int, int x, int y) { return c[y * 4 + x]; });
    for (const auto& k : cases) {
        WriteStats(dir.file("s.sta"), QString("Band Num = 1|ImgType = %1|pdblVect = 0.5|pdblMean = 0.25").arg(k.type));
        AlgoHarness h;
        ASSERT_TRUE(h.Run(Mnf(false, dir.file("c.tif"), dir.file("o.tif"), dir.file("s.sta"))));
        EXPECT_EQ(h.Percents(), (std::vector<double>{0, 0, 50, 100}));
        const auto got = ReadBand(dir.file("o.tif"), 1);
        for (size_t p = 0; p < c.size(); ++p)
            EXPECT_TRUE(got[p] == k.want[p] || (std::isnan(got[p]) && std::isnan(k.want[p]))) << k.type << " " << p;
    }
}

TEST(MNFRuns, FailuresLeaveNoOutput)
{
    TempDir dir;
    const std::string two = dir.file("two.tif"), big = dir.file("big.tif"), st = dir.file("s.sta"), o = dir.file("o.tif");
    tavtest::WriteRaster(two, tavtest::Shape(4, 3, 2, GDT_UInt16), [](int b, int x, int y) { return b + x * y; });
    GDALClose(GetGDALDriverManager()->GetDriverByName("GTiff")->Create(big.c_str(), 70000, 70000, 1, GDT_Byte, nullptr));
    const QString good = "B = 2|T = 2|V = {1,0,0,1}|M = { 0,0}";
    struct { bool forward; std::string input, output; QString stats; const char* text; } cases[] = {
        {true, dir.file("none.tif"), o, "", "Failed to open the input file!"},
        {true, two, dir.file("no/o.tif"), "", "OutFile Creat Fail!"},
        {true, big, o, "", "The image has too many pixels for the noise statistics!"},
        {false, two, o, "-", "The Stats file does not exist!"},
        {false, two, o, "B = 2|T = 2", "The Stats file is error!"},
        {false, dir.file("none.tif"), o, good, "Failed to open the input file!"},
        {false, two, dir.file("no/o.tif"), good, "OutFile Creat Fail!"},
        {false, two, o, "B = 3|T = 2|V = {1,0,0,0,1,0,0,0,1}|M = { 0,0,0}",
         "The band count of the input file does not match the Stats file!"},
        {false, two, o, "B = 2|T = 2|V = {1,0,0}|M = { 0,0}", "The Stats file holds fewer values than its band count needs!"},
        {false, two, o, "B = 2000000000|T = 2|V = {1}|M = { 0}", "The band count of the Stats file is too large!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        if (c.stats != "-")
            WriteStats(st, c.forward ? "old" : c.stats);
        tavtest::WriteText(c.output, "old output");
        AlgoHarness h;
        EXPECT_FALSE(h.Run(Mnf(c.forward, c.input, c.output, c.stats == "-" ? "" : st)));
        EXPECT_EQ(h.Code(), 1);
        EXPECT_EQ(h.Text().toStdString(), c.text);
        EXPECT_FALSE(tavtest::Exists(c.output) || tavtest::Exists(st));
    }
    AlgoHarness h; // a window given back to front: an empty text
    CMNFTransFunc worker(h.algo().Context());
    EXPECT_FALSE(worker.Forward(QString::fromStdString(two), dir.qfile("w.tif"), dir.qfile("w.sta"), "GTiff", nullptr,
                                0, 3, 1, 0, 2, 16));
    EXPECT_EQ(worker.ErrorText(), QString());
}

// Terminate in the middle of either run: -1010, an empty text, its files removed.
TEST(MNFRuns, CancelMidRun)
{
    TempDir dir;
    const std::string in = dir.file("in.tif"), out = dir.file("o.tif"), st = dir.file("s.sta");
    tavtest::WriteRaster(in, tavtest::Shape(6, 8, 2, GDT_Int16), [](int b, int x, int y) { return (b + 1) * x - y * y; });
    ASSERT_TRUE(AlgoHarness().Run(Mnf(true, in, dir.file("c.tif"), st)));
    for (bool forward : {true, false}) {
        AlgoHarness h;
        int reports = 0;
        h.onProgress = [&](double) {
            if (++reports == 5)
                h.algo().Terminate();
        };
        EXPECT_FALSE(h.Run(Mnf(forward, forward ? in : dir.file("c.tif"), out, forward ? dir.file("f.sta") : st)));
        EXPECT_EQ(std::make_tuple(h.Code(), h.Text(), reports), std::make_tuple(-1010, QString(), 6));
        EXPECT_FALSE(tavtest::Exists(out) || tavtest::Exists(dir.file("f.sta")));
    }
}

} // namespace
