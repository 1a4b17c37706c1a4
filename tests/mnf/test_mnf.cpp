#include "AlgoHarness.h"
#include "TestSupport.h"
#include "mnf/CMNFTransFunc.h"
#include "mnf/MNFKernels.h"
#include "mnf/MNFStatsFile.h"

#include <Eigen/Dense>
#include <QStringList>
#include <gdal_priv.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>

namespace {

using namespace tavtest;
using Mat = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using Vec = std::vector<double>;
Mat M(int n, const Vec& v) { return Eigen::Map<const Mat>(v.data(), n, n); }

// Records separated by "|", as the stream encodes them, written out by hand: a big-endian byte
// length, then UTF-16 big-endian code units.
std::string Records(const QString& joined)
{
    std::string out;
    for (const QString& record : joined.split('|')) {
        const uint32_t bytes = 2 * record.size();
        out += {char(bytes >> 24), char(bytes >> 16), char(bytes >> 8), char(bytes)};
        for (QChar c : record)
            out += {char(c.unicode() >> 8), char(c.unicode())};
    }
    return out;
}

stTransInfo Mnf(bool forward, const std::string& in, const std::string& out, const std::string& stats)
{
    stTransInfo info = TransRecord(1, forward, in, out);
    info.strStatFile = QString::fromStdString(stats);
    return info;
}

// Sorted eigenpairs: a sorted diagonal; equal eigenvalues in input order; and a matrix whose
// eigenvector (1,-1,1,-1)/2 (eigenvalue -1) the rotations leave summing to exactly zero: its sign
// stays. Eigenpairs of covariances in general are held by the forward run's whitening checks.
TEST(MNFKernels, HandCases)
{
    struct { int n; Vec a, values, vectors; } cases[] = {
        {3, {1, 0, 0, 0, 3, 0, 0, 0, 2}, {3, 2, 1}, {0, 0, 1, 1, 0, 0, 0, 1, 0}},
        {3, {2, 0, 0, 0, 5, 0, 0, 0, 2}, {5, 2, 2}, {0, 1, 0, 1, 0, 0, 0, 0, 1}},
        {4, {3, -1, -2, 3, -1, 3, 3, -2, -2, 3, 3, -1, 3, -2, -1, 3}, {9, 3, 1, -1}, {}},
    };
    for (auto& c : cases) {
        Vec v(c.n * c.n), d(c.n * c.n);
        SortedEigen(c.a.data(), c.n, v.data(), d.data(), true);
        for (int k = 0; k < c.n; ++k)
            EXPECT_NEAR(d[k * c.n + k], c.values[k], 1e-9);
        EXPECT_TRUE(c.vectors.empty() || v == c.vectors);
        EXPECT_TRUE(c.n < 4 || (M(4, v).col(3).sum() == 0.0 && std::abs(v[3] - 0.5) < 1e-9));
    }
    Vec v = {3, 0, 4, 2};
    EXPECT_TRUE(NormalizeColumns(v.data(), 2) && v == (Vec{0.6, 0, 0.8, 1}));
    // Jacobi: untouched below the tolerance or without budget; one rotation diagonalises a 2×2.
    struct { Vec a; int budget, result; Vec after; } jacobi[] = {
        {{4, 0.009, 0.009, 1}, 4000, 1, {4, 0.009, 0.009, 1}}, {{4, 2, 2, 1}, 0, 0, {4, 2, 2, 1}}, {{4, 2, 2, 1}, 1, 1, {}}};
    for (auto& c : jacobi) {
        v.assign(4, 0.0);
        EXPECT_EQ(JacobiEigen(c.a.data(), 2, v.data(), 0.01, c.budget), c.result);
        EXPECT_TRUE(c.after.empty() ? std::abs(c.a[0] + c.a[3] - 5) < 1e-12 && c.a[1] == 0
                                    : c.a == c.after && v == (Vec{1, 0, 0, 1}));
    }
    // Inverses; general ones are held by the runs' round trips.
    struct { Vec a; int result; Vec inverse; } inverses[] = {
        {{0, 1, 0, 0, 0, 1, 1, 0, 0}, 1, {0, 0, 1, 1, 0, 0, 0, 1, 0}}, // a permutation: its transpose
        {{2, 0, 0, 0, 0, 4, 0, -1, 0}, 1, {0.5, 0, 0, 0, 0, -1, 0, 0.25, 0}},
        {Vec(9, 0.0), 1, Vec(9, 1e300)},
        {{1, 2, 3, 1, 2, 3, 0, 1, 4}, 0, {}}, // two equal rows
        {{1, 0, 0, 0, 1e-17, 0, 0, 0, 1}, 0, {}}, // a pivot that vanishes against 1.0
    };
    for (auto& c : inverses) {
        EXPECT_EQ(InvertMatrix(c.a.data(), 3), c.result);
        EXPECT_TRUE(c.inverse.empty() || c.a == c.inverse);
    }
}

// Written cases: the writer gives exactly these records, rounded to 10 significant digits.
TEST(MNFStatsFile, RecordsWrittenAndParsed)
{
    struct { const char* what; QString records; bool written, ok; int n, type; Vec matrix, means; } cases[] = {
        {"TwoBands", "Band Num = 2|ImgType = 2|pdblVect = {0.5,0.25,-0.125,1}|pdblMean = { 101.5,98.25}", true, true,
         2, 2, {0.5, 0.25, -0.125, 1}, {101.5, 98.25}},
        {"OneBand", "Band Num = 1|ImgType = 6|pdblVect = 0.1234567891|pdblMean = -1.5e-05", true, true, 1, 6,
         {0.1234567891}, {-1.5e-05}},
        {"TranslatedKeys", "Bandes = 2|Typ = 3|Vecteur = {1,2,3,4}|Moyenne = { 5,6}", false, true, 2, 3, {1, 2, 3, 4}, {5, 6}},
        {"UnconvertiblePartsAreZero", "B = 2|T = 2|V = {1,x,,3}|M = { 5,6}", false, true, 2, 2, {1, 0, 3}, {5, 6}},
        {"TypeCodeNineIgnored", "B = 2|T = 9|V = {1,2,3,4}|M = { 5,6}", false, true, 2, 4, {1, 2, 3, 4}, {5, 6}},
        {"EmptyBraces", "B = 2|T = 2|V = {}|M = { 5,6}", false, false, 2, 2, {}, {5, 6}},
        {"TruncatedStream", "B = 2|T = 2", false, false, 2, 2, {}, {}},
    };
    TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.written) {
            auto past = [](Vec v) { for (double& x : v) x *= 1 + 3e-11; return v; }; // digits past the 10th
            WriteMNFStats(dir.qfile("s"), c.n, c.type, past(c.matrix).data(), past(c.means).data());
            EXPECT_EQ(ReadFile(dir.file("s")), Records(c.records));
        }
        WriteText(dir.file("s"), Records(c.records));
        MNFStats s{0, 4, {}, {}}; // a code outside 1..7 leaves the 4
        QString error;
        EXPECT_EQ(ReadMNFStats(dir.qfile("s"), s, error), c.ok);
        EXPECT_EQ(error, c.ok ? QString() : QString("The Stats file is error!"));
        EXPECT_EQ(std::make_tuple(s.bandCount, s.pixelType, s.matrix, s.means), std::make_tuple(c.n, c.type, c.matrix, c.means));
    }
    MNFStats s;
    QString error;
    EXPECT_FALSE(ReadMNFStats(QString(), s, error));
    EXPECT_EQ(error, "The Stats file does not exist!");
    EXPECT_FALSE(ReadMNFStats(dir.qfile("missing"), s, error));
    EXPECT_EQ(error, "The Stats file is error!");
}

// Forward against covariances straight from the definitions (the first row looks down for its upper
// neighbour, the last column looks left, half-sums in single precision, the noise over 2N): T
// whitens the noise (T·C_N·Tᵀ = I, a noise-free band's component dropped), diagonalises the data in
// falling order, the components are T·(x − m), and a budget of two rows a block gives the same
// bits. The inverse gives the input back, also from rows it converts a piece at a time. Also on
// the Landsat sample (width 0) where it is beside the project.
TEST(MNFRuns, ForwardAgainstDirectStatisticsAndRoundTrip)
{
    struct { const char* what; int w, h, n; GDALDataType type; int constantBand; } scenes[] = {
        {"ThreeBandsUInt16", 7, 5, 3, GDT_UInt16, -1}, {"TwoColumnsInt16", 2, 6, 2, GDT_Int16, -1},
        {"OneBandFloat32", 5, 4, 1, GDT_Float32, -1}, {"ConstantBandByte", 6, 5, 3, GDT_Byte, 1},
        {"NineBandsFloat32", 4, 3, 9, GDT_Float32, -1}, {"RowsWiderThanAPieceUInt16", 3001, 3, 3, GDT_UInt16, -1},
        {"LandsatSample", 0, 0, 6, GDT_Byte, -1}};
    for (const auto& s : scenes) {
        SCOPED_TRACE(s.what);
        TempDir dir;
        const std::string in = s.w ? dir.file("in.tif") : SampleScene(), out = dir.file("mnf.tif"), st = dir.file("mnf.sta");
        if (in.empty()) {
            std::printf("L7_ETMs.tif is not beside the project: skipped\n");
            continue;
        }
        if (s.w)
            WriteRaster(in, Shape(s.w, s.h, s.n, s.type), [&](int b, int x, int y) {
                std::mt19937 rng(b * 1000 + y * 50 + x);
                const double v = b == s.constantBand ? 9 : std::uniform_int_distribution<int>(0, 200)(rng) + 20 * b * x;
                return s.type == GDT_Float32 ? 16777216 + 2 * v : v; // half-sums that only float rounds
            });
        AlgoHarness h;
        ASSERT_TRUE(h.Run(Mnf(true, in, out, st))) << h.Text().toStdString();
        const int n = s.n, w = Info(in).width, rows = Info(in).height, units = 3 * rows + 4 * n;
        ASSERT_EQ(int(h.Percents().size()), units + 2);
        EXPECT_EQ(h.Percents()[units], double(float(units - 1) / float(units) * 100.0f));
        Mat x(n, w * rows), z(n, w * rows);
        for (int b = 0; b < n; ++b) {
            const Vec band = ReadBand(in, b + 1);
            auto f = [&](int y, int c) { return float(band[y * w + c]); };
            for (int y = 0; y < rows; ++y)
                for (int c = 0; c < w; ++c) {
                    x(b, y * w + c) = f(y, c);
                    z(b, y * w + c) = double(f(y, c)) - double(0.5f * (f(y ? y - 1 : 1, c) + f(y, c + 1 < w ? c + 1 : c - 1)));
                }
        }
        const double N = double(w) * rows;
        auto cov = [&](const Mat& v, double divisor) {
            const Eigen::VectorXd sum = v.rowwise().sum();
            return Mat((v * v.transpose() - sum * sum.transpose() / N) / divisor);
        };
        const Eigen::VectorXd mean = x.rowwise().sum() / N;
        MNFStats stats;
        QString error;
        ASSERT_TRUE(ReadMNFStats(QString::fromStdString(st), stats, error));
        EXPECT_EQ(stats.pixelType, int(s.type));
        const Mat T = M(n, stats.matrix), data = T * cov(x, N) * T.transpose();
        const Eigen::VectorXd m = Eigen::Map<Eigen::VectorXd>(stats.means.data(), n), snr = data.diagonal();
        EXPECT_LT((m - mean).cwiseAbs().maxCoeff(), 1e-9 * (1 + mean.cwiseAbs().maxCoeff()));
        Mat white = Mat::Identity(n, n);
        white(n - 1, n - 1) = s.constantBand < 0;
        EXPECT_LT((T * cov(z, 2 * N) * T.transpose() - white).cwiseAbs().maxCoeff(), 1e-3);
        EXPECT_LT((data - Mat(snr.asDiagonal())).cwiseAbs().maxCoeff(), 0.02);
        EXPECT_TRUE(std::is_sorted(snr.begin(), snr.end(), std::greater<>()));
        CMNFTransFunc wide(h.algo().Context());
        ASSERT_TRUE(wide.Forward(QString::fromStdString(in), dir.qfile("w.tif"), dir.qfile("w.sta"), "GTiff", nullptr,
                                 0, -1, -1, -1, -1, 2 * w * n * 4 * 2));
        const Mat ref = T * (x.colwise() - mean);
        for (int k = 0; k < n; ++k) {
            const auto y = ReadBand(out, k + 1);
            EXPECT_EQ(ReadBand(dir.file("w.tif"), k + 1), y);
            for (size_t p = 0; p < y.size(); ++p)
                ASSERT_NEAR(y[p], ref(k, p), 1e-4 * (1 + std::abs(ref(k, p)))) << k << " " << p;
        }
        if (s.constantBand >= 0)
            continue; // its matrix is singular: nothing to invert
        ASSERT_TRUE(h.Run(Mnf(false, out, dir.file("back.tif"), st))) << h.Text().toStdString();
        EXPECT_EQ(Info(dir.file("back.tif")).type, s.type);
        for (int b = 0; b < n; ++b) {
            const auto back = ReadBand(dir.file("back.tif"), b + 1);
            for (size_t p = 0; p < back.size(); ++p)
                ASSERT_NEAR(back[p], x(b, p), s.type == GDT_Float32 ? 0.05 : 1.0) << b << " " << p;
        }
    }
}

// One band: pixel = component ÷ t0 + m0 (here 2c + 0.25), integers truncated toward zero and
// wrapped to their low bytes, NaN and ±∞ stored as 0; progress per row in single precision.
TEST(MNFRuns, InverseTruncatesAndWraps)
{
    const double inf = INFINITY, nan = NAN;
    const Vec c = {1.25, -2, 250000, nan, inf, -inf, 1e30, 0};
    struct { int type; Vec want; } cases[] = {
        {1, {2, 253, 32, 0, 0, 0, 0, 0}},       {2, {2, 65533, 41248, 0, 0, 0, 0, 0}},
        {3, {2, -3, -24288, 0, 0, 0, 0, 0}},    {4, {2, 4294967293, 500000, 0, 0, 0, 0, 0}},
        {5, {2, -3, 500000, 0, 0, 0, 0, 0}},    {7, {2.75, -3.75, 500000.25, nan, inf, -inf, 2 * double(1e30f), 0.25}}};
    TempDir dir;
    WriteRaster(dir.file("c.tif"), Shape(4, 2), [&](int, int x, int y) { return c[y * 4 + x]; });
    for (const auto& k : cases) {
        WriteText(dir.file("s.sta"), Records(QString("Band Num = 1|ImgType = %1|pdblVect = 0.5|pdblMean = 0.25").arg(k.type)));
        AlgoHarness h;
        ASSERT_TRUE(h.Run(Mnf(false, dir.file("c.tif"), dir.file("o.tif"), dir.file("s.sta"))));
        EXPECT_EQ(h.Percents(), (Vec{0, 0, 50, 100}));
        const auto got = ReadBand(dir.file("o.tif"), 1);
        for (size_t p = 0; p < c.size(); ++p)
            EXPECT_TRUE(got[p] == k.want[p] || (std::isnan(got[p]) && std::isnan(k.want[p]))) << k.type << " " << p;
    }
}

// Both runs place their output as the input is placed, and leave an unplaced one unplaced.
TEST(MNFRuns, OutputsCarryTheInputsGeoTransformOnlyWhenItHasOne)
{
    TempDir dir;
    for (const bool placed : {true, false}) {
        WriteRaster(dir.file("in.tif"), Shape(5, 4, 2, GDT_Float32, placed), [](int b, int x, int y) { return b * 7 + x * y + x; });
        AlgoHarness h;
        ASSERT_TRUE(h.Run(Mnf(true, dir.file("in.tif"), dir.file("c.tif"), dir.file("s.sta"))));
        ASSERT_TRUE(h.Run(Mnf(false, dir.file("c.tif"), dir.file("back.tif"), dir.file("s.sta"))));
        for (const char* out : {"c.tif", "back.tif"}) {
            std::unique_ptr<GDALDataset> ds(GDALDataset::Open(dir.file(out).c_str(), GDAL_OF_RASTER));
            double gt[6];
            EXPECT_EQ(ds->GetGeoTransform(gt) == CE_None, placed) << out;
            EXPECT_EQ(placed ? std::vector<double>(gt, gt + 6) : std::vector<double>(),
                      placed ? std::vector<double>(kTestGeoTransform, kTestGeoTransform + 6) : std::vector<double>()) << out;
        }
    }
}

// Failures of either run: code 1, the text, no output, no statistics file.
TEST(MNFRuns, FailuresLeaveNoOutput)
{
    TempDir dir;
    const std::string two = dir.file("two.tif"), big = dir.file("big.tif"), st = dir.file("s.sta"), o = dir.file("o.tif");
    WriteRaster(two, Shape(6, 8, 2, GDT_Int16), [](int b, int x, int y) { return (b + 1) * x - y * y; });
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
        if (c.stats != "-")
            WriteText(st, Records(c.forward ? "old" : c.stats));
        WriteText(c.output, "old output");
        AlgoHarness h;
        EXPECT_FALSE(h.Run(Mnf(c.forward, c.input, c.output, c.stats == "-" ? "" : st)));
        EXPECT_EQ(std::make_pair(h.Code(), h.Text().toStdString()), std::make_pair(1, std::string(c.text)));
        EXPECT_FALSE(Exists(c.output) || Exists(st));
    }
    // A window given back to front: an empty text, the stale files the run clears already gone.
    const QString in = QString::fromStdString(two), out = QString::fromStdString(o), stats = QString::fromStdString(st);
    AlgoHarness h;
    for (bool forward : {true, false}) {
        WriteText(st, Records(good));
        WriteText(o, "old output");
        CMNFTransFunc worker(h.algo().Context());
        EXPECT_FALSE(forward ? worker.Forward(in, out, stats, "GTiff", nullptr, 0, 3, 1, 0, 2, 16)
                             : worker.Inverse(in, out, stats, "GTiff", nullptr, 0, 3, 1, 0, 2, 16));
        EXPECT_EQ(worker.ErrorText(), QString());
        EXPECT_EQ(std::make_pair(Exists(o), Exists(st)), std::make_pair(false, !forward));
    }
}

} // namespace
