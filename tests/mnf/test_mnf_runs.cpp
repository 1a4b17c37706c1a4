#include "AlgoHarness.h"
#include "TestSupport.h"
#include "mnf/CMNFTransFunc.h"
#include "mnf/MNFStatsFile.h"

#include <Eigen/Dense>
#include <QStringList>
#include <gtest/gtest.h>

#include <random>

using tavtest::AlgoHarness;
using tavtest::TempDir;
using tavtest::TransRecord;

namespace mnftest {
std::string Records(const std::vector<std::string>& texts);
}

namespace {

using Mat = Eigen::MatrixXd;

stTransInfo Mnf(bool forward, const std::string& in, const std::string& out, const std::string& stats)
{
    stTransInfo info = TransRecord(1, forward, in, out);
    info.strStatFile = QString::fromStdString(stats);
    return info;
}

// Noise and data covariances of a scene written straight from the estimate's definition.
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
        d.x.push_back(tavtest::ReadBand(path, b));
    Eigen::VectorXd ns = Eigen::VectorXd::Zero(n), z(n), v(n);
    for (int y = 0; y < h; ++y)
        for (int c = 0; c < w; ++c) {
            const int up = y == 0 ? 1 : y - 1, side = c + 1 < w ? c + 1 : c - 1; // first row looks down
            for (int b = 0; b < n; ++b) {
                auto f = [&](int yy, int cc) { return float(d.x[b][yy * w + cc]); };
                z[b] = double(f(y, c)) - double(0.5f * (f(up, c) + f(y, side)));
                v[b] = f(y, c);
            }
            ns += z;
            d.noise += z * z.transpose();
            d.mean += v;
            d.data += v * v.transpose();
        }
    d.noise = (d.noise - ns * ns.transpose() / N) / (2 * N);
    d.data = (d.data - d.mean * d.mean.transpose() / N) / N;
    d.mean /= N;
    return d;
}

struct Scene {
    const char* what;
    int w, h, n;
    GDALDataType type;
    int constantBand; // -1: none
};

const Scene kScenes[] = {
    {"ThreeBandsUInt16", 7, 5, 3, GDT_UInt16, -1},
    {"TwoColumnsInt16", 2, 6, 2, GDT_Int16, -1},
    {"OneBandFloat32", 5, 4, 1, GDT_Float32, -1},
    {"ConstantBandByte", 6, 5, 3, GDT_Byte, 1},
};

// Forward against the direct covariances: T whitens the noise (T·C_N·Tᵀ = I, a noise-free band's
// component dropped), diagonalises the data in falling order, and the components are T·(x − m).
// A larger block budget gives the same bits; the inverse gives the input back.
TEST(MNFRuns, ForwardAgainstDirectStatisticsAndRoundTrip)
{
    for (const Scene& s : kScenes) {
        SCOPED_TRACE(s.what);
        TempDir dir;
        const std::string in = dir.file("in.tif"), out = dir.file("mnf.tif"), st = dir.file("mnf.sta");
        tavtest::WriteRaster(in, tavtest::Shape(s.w, s.h, s.n, s.type), [&](int b, int x, int y) {
            std::mt19937 rng(b * 1000 + y * 50 + x);
            return b == s.constantBand ? 9.0 : double(std::uniform_int_distribution<int>(0, 200)(rng) + 20 * b * x);
        });
        AlgoHarness h;
        ASSERT_TRUE(h.Run(Mnf(true, in, out, st))) << h.Text().toStdString();
        const Direct d = DirectStatistics(in);
        MNFStats stats;
        QString error;
        ASSERT_TRUE(ReadMNFStats(QString::fromStdString(st), stats, error));
        EXPECT_EQ(stats.pixelType, int(s.type));
        const Mat T = Eigen::Map<Eigen::Matrix<double, -1, -1, Eigen::RowMajor>>(stats.matrix.data(), s.n, s.n);
        const Eigen::VectorXd m = Eigen::Map<Eigen::VectorXd>(stats.means.data(), s.n);
        EXPECT_LT((m - d.mean).cwiseAbs().maxCoeff(), 1e-7);
        Mat white = Mat::Identity(s.n, s.n);
        if (s.constantBand >= 0)
            white(s.n - 1, s.n - 1) = 0;
        EXPECT_LT((T * d.noise * T.transpose() - white).cwiseAbs().maxCoeff(), 1e-5);
        const Mat snr = T * d.data * T.transpose();
        for (int k = 0; k < s.n; ++k)
            for (int j = 0; j < s.n; ++j)
                EXPECT_TRUE(j == k ? (k == 0 || snr(k, k) <= snr(k - 1, k - 1) + 1e-9) : std::abs(snr(k, j)) < 0.02);
        for (int k = 0; k < s.n; ++k) {
            const auto y = tavtest::ReadBand(out, k + 1);
            for (size_t p = 0; p < y.size(); ++p) {
                double ref = 0;
                for (int b = 0; b < s.n; ++b)
                    ref += (d.x[b][p] - m[b]) * T(k, b);
                ASSERT_NEAR(y[p], ref, 1e-4 * (1 + std::abs(ref))) << k << " " << p;
            }
        }
        const auto percents = h.Percents();
        const int units = 3 * s.h + 4 * s.n;
        ASSERT_EQ(int(percents.size()), units + 2);
        EXPECT_EQ(percents[units], double(float(units - 1) / float(units) * 100.0f));

        CMNFTransFunc wide(h.algo().Context());
        const int twoRows = 2 * s.w * s.n * 4 * 2;
        ASSERT_TRUE(wide.Forward(QString::fromStdString(in), dir.qfile("wide.tif"), dir.qfile("wide.sta"), "GTiff",
                                 nullptr, 0, -1, -1, -1, -1, twoRows));
        for (int k = 1; k <= s.n; ++k)
            EXPECT_EQ(tavtest::ReadBand(dir.file("wide.tif"), k), tavtest::ReadBand(out, k));

        if (s.constantBand >= 0)
            continue; // its matrix is singular: nothing to invert
        ASSERT_TRUE(h.Run(Mnf(false, out, dir.file("back.tif"), st))) << h.Text().toStdString();
        EXPECT_EQ(tavtest::Info(dir.file("back.tif")).type, s.type);
        for (int b = 0; b < s.n; ++b) {
            const auto back = tavtest::ReadBand(dir.file("back.tif"), b + 1);
            for (size_t p = 0; p < back.size(); ++p)
                ASSERT_NEAR(back[p], d.x[b][p], s.type == GDT_Float32 ? 1e-3 : 1.0) << b << " " << p;
        }
    }
}

TEST(MNFRuns, SampleSceneRoundTrip)
{
    const std::string scene = tavtest::SampleScene();
    if (scene.empty())
        GTEST_SKIP() << "L7_ETMs.tif is not beside the project";
    TempDir dir;
    AlgoHarness h;
    ASSERT_TRUE(h.Run(Mnf(true, scene, dir.file("c.tif"), dir.file("c.sta"))));
    ASSERT_TRUE(h.Run(Mnf(false, dir.file("c.tif"), dir.file("b.tif"), dir.file("c.sta"))));
    EXPECT_EQ(tavtest::Info(dir.file("b.tif")).type, GDT_Byte);
    for (int b = 1; b <= 6; ++b) {
        const auto x = tavtest::ReadBand(scene, b), back = tavtest::ReadBand(dir.file("b.tif"), b);
        for (size_t p = 0; p < x.size(); ++p)
            ASSERT_LE(std::abs(back[p] - x[p]), 1.0) << b << " " << p;
    }
}

struct Failure {
    const char* what;
    bool forward;
    std::string input, output, stats; // "@" in stats: write these records into the stats path
    const char* text;
};

TEST(MNFRuns, FailuresLeaveNoOutput)
{
    TempDir dir;
    const std::string two = dir.file("two.tif"), big = dir.file("big.tif"), st = dir.file("s.sta");
    tavtest::WriteRaster(two, tavtest::Shape(4, 3, 2, GDT_UInt16), [](int b, int x, int y) { return b + x * y; });
    GDALDataset* sparse = GetGDALDriverManager()->GetDriverByName("GTiff")->Create(big.c_str(), 70000, 70000, 1,
                                                                                   GDT_Byte, nullptr);
    GDALClose(sparse);
    const std::string good = "Band Num = 2|ImgType = 2|pdblVect = {1,0,0,1}|pdblMean = { 0,0}";
    const Failure cases[] = {
        {"ForwardInputMissing", true, dir.file("none.tif"), dir.file("o.tif"), st, "Failed to open the input file!"},
        {"ForwardOutputNotCreated", true, two, dir.file("no/o.tif"), st, "OutFile Creat Fail!"},
        {"ForwardPixelCountOver32Bits", true, big, dir.file("o.tif"), st,
         "The image has too many pixels for the noise statistics!"},
        {"InverseStatsPathEmpty", false, two, dir.file("o.tif"), "", "The Stats file does not exist!"},
        {"InverseStatsMissing", false, two, dir.file("o.tif"), dir.file("none.sta"), "The Stats file is error!"},
        {"InverseInputMissing", false, dir.file("none.tif"), dir.file("o.tif"), "@" + good, "Failed to open the input file!"},
        {"InverseOutputNotCreated", false, two, dir.file("no/o.tif"), "@" + good, "OutFile Creat Fail!"},
        {"InverseBandCountMismatch", false, two, dir.file("o.tif"),
         "@Band Num = 3|ImgType = 2|pdblVect = {1,0,0,0,1,0,0,0,1}|pdblMean = { 0,0,0}",
         "The band count of the input file does not match the Stats file!"},
        {"InverseTooFewValues", false, two, dir.file("o.tif"), "@Band Num = 2|ImgType = 2|pdblVect = {1,0,0}|pdblMean = { 0,0}",
         "The Stats file holds fewer values than its band count needs!"},
        {"InverseBandCountTooLarge", false, two, dir.file("o.tif"), "@Band Num = 2000000000|ImgType = 2|pdblVect = {1}|pdblMean = { 0}",
         "The band count of the Stats file is too large!"},
    };
    for (const Failure& c : cases) {
        SCOPED_TRACE(c.what);
        std::string stats = c.stats;
        if (!stats.empty() && stats[0] == '@') {
            std::vector<std::string> records;
            for (const QString& r : QString::fromStdString(stats.substr(1)).split('|'))
                records.push_back(r.toStdString());
            tavtest::WriteText(st, mnftest::Records(records));
            stats = st;
        } else if (c.forward) {
            tavtest::WriteText(st, "old statistics");
        }
        tavtest::WriteText(c.output, "old output");
        AlgoHarness h;
        EXPECT_FALSE(h.Run(Mnf(c.forward, c.input, c.output, stats)));
        EXPECT_EQ(h.Code(), 1);
        EXPECT_EQ(h.Text().toStdString(), c.text);
        EXPECT_FALSE(tavtest::Exists(c.output));
        EXPECT_FALSE(tavtest::Exists(st));
    }
    // A window given back to front fails with an empty text.
    AlgoHarness h;
    CMNFTransFunc worker(h.algo().Context());
    EXPECT_FALSE(worker.Forward(QString::fromStdString(two), dir.qfile("w.tif"), dir.qfile("w.sta"), "GTiff", nullptr,
                                0, 3, 1, 0, 2, 16));
    EXPECT_EQ(worker.ErrorText(), QString());
}

// Terminate in the middle of either run: -1010, empty text, its files removed.
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
        EXPECT_EQ(h.Code(), -1010);
        EXPECT_EQ(h.Text(), QString());
        EXPECT_FALSE(tavtest::Exists(out));
        EXPECT_FALSE(tavtest::Exists(dir.file("f.sta")));
        EXPECT_EQ(reports, 6);
    }
}

} // namespace
