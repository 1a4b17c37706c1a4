#include "TestSupport.h"
#include "mnf/MNFKernels.h"
#include "mnf/MNFStatsFile.h"

#include <Eigen/Dense>
#include <gtest/gtest.h>


namespace mnftest {
// Text records as the stream encodes them, written out by hand: a big-endian byte length, then
// UTF-16 big-endian code units.
std::string Records(const std::vector<std::string>& texts)
{
    std::string out;
    for (const auto& text : texts) {
        const uint32_t bytes = 2 * text.size();
        for (int shift : {24, 16, 8, 0})
            out += char((bytes >> shift) & 0xff);
        for (char c : text)
            out += std::string(1, '\0') + c;
    }
    return out;
}
} // namespace mnftest

namespace {

using mnftest::Records;
using Mat = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using Vec = std::vector<double>;
Mat M(int n, const Vec& v) { return Eigen::Map<const Mat>(v.data(), n, n); }

// Sorted diagonal; equal eigenvalues in input order; and a matrix whose eigenvector
// (1,-1,1,-1)/2 (eigenvalue -1) the rotations leave summing to exactly zero: its sign stays.
TEST(MNFKernels, SortedEigenHandCases)
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
    }
    Vec v(16);
    SortedEigen(cases[2].a.data(), 4, v.data(), nullptr, true);
    EXPECT_EQ(M(4, v).col(3).sum(), 0.0);
    EXPECT_NEAR(M(4, v)(0, 3), 0.5, 1e-9);
}

// On random matrices: A·V = V·Λ within the solver's tolerance, V orthonormal, eigenvalues
// falling and equal to Eigen's, no column summing below zero.
TEST(MNFKernels, SortedEigenIdentitiesOnRandomMatrices)
{
    for (int n : {1, 2, 3, 6, 9}) {
        Mat a = Mat::Random(n, n) * 10;
        a = (a + a.transpose()).eval();
        Vec in(a.data(), a.data() + n * n), v(n * n), d(n * n);
        SortedEigen(in.data(), n, v.data(), d.data(), false);
        const Mat V = M(n, v);
        const Eigen::VectorXd lambda = M(n, d).diagonal();
        EXPECT_LT((a * V - V * lambda.asDiagonal()).cwiseAbs().maxCoeff(), 0.01 * n) << n;
        EXPECT_LT((V.transpose() * V - Mat::Identity(n, n)).cwiseAbs().maxCoeff(), 1e-9) << n;
        EXPECT_LT((lambda - Eigen::SelfAdjointEigenSolver<Mat>(a).eigenvalues().reverse()).cwiseAbs().maxCoeff(), 0.01);
        EXPECT_GE(V.colwise().sum().minCoeff(), 0.0) << n;
    }
}

TEST(MNFKernels, JacobiStopsBelowToleranceOrAtItsBudget)
{
    Vec a = {4, 0.009, 0.009, 1}, v(4);
    EXPECT_EQ(JacobiEigen(a.data(), 2, v.data(), 0.01, 4000), 1);
    EXPECT_EQ(a, (Vec{4, 0.009, 0.009, 1}));
    EXPECT_EQ(v, (Vec{1, 0, 0, 1}));
    a = {4, 2, 2, 1};
    EXPECT_EQ(JacobiEigen(a.data(), 2, v.data(), 0.01, 0), 0);
    EXPECT_EQ(a, (Vec{4, 2, 2, 1}));
    EXPECT_EQ(JacobiEigen(a.data(), 2, v.data(), 0.01, 1), 1); // one rotation diagonalises a 2×2
    EXPECT_NEAR(a[0] + a[3], 5.0, 1e-12);
}

TEST(MNFKernels, InvertMatrix)
{
    for (int n : {1, 2, 5, 8}) {
        const Mat a = Mat::Random(n, n) * 5 + Mat::Identity(n, n);
        Vec m(a.data(), a.data() + n * n);
        EXPECT_EQ(InvertMatrix(m.data(), n), 1);
        EXPECT_LT((a * M(n, m) - Mat::Identity(n, n)).cwiseAbs().maxCoeff(), 1e-9) << n;
    }
    struct { Vec a; int result; Vec inverse; } cases[] = {
        {{0, 1, 0, 0, 0, 1, 1, 0, 0}, 1, {0, 0, 1, 1, 0, 0, 0, 1, 0}}, // a permutation: its transpose
        {Vec(9, 0.0), 1, Vec(9, 1e300)},
        {{1, 2, 3, 1, 2, 3, 0, 1, 4}, 0, {}}, // two equal rows
        {{1, 0, 0, 0, 1e-17, 0, 0, 0, 1}, 0, {}}, // a pivot that vanishes against 1.0
    };
    for (auto& c : cases) {
        EXPECT_EQ(InvertMatrix(c.a.data(), 3), c.result);
        EXPECT_TRUE(c.inverse.empty() || c.a == c.inverse);
    }
}

TEST(MNFStatsFile, WritesTheExactRecords)
{
    tavtest::TempDir dir;
    const double t2[] = {0.5, 0.25, -0.125, 1}, m2[] = {101.5, 98.25}, t1[] = {0.12345678914}, m1[] = {-1.5e-05};
    WriteMNFStats(dir.qfile("two"), 2, 2, t2, m2);
    WriteMNFStats(dir.qfile("one"), 1, 6, t1, m1);
    EXPECT_EQ(tavtest::ReadFile(dir.file("two")),
              Records({"Band Num = 2", "ImgType = 2", "pdblVect = {0.5,0.25,-0.125,1}", "pdblMean = { 101.5,98.25}"}));
    EXPECT_EQ(tavtest::ReadFile(dir.file("one")), Records({"Band Num = 1", "ImgType = 6", "pdblVect = 0.1234567891", "pdblMean = -1.5e-05"}));
}

TEST(MNFStatsFile, ReaderParseRules)
{
    struct { const char* what; std::vector<std::string> records; bool ok; int n, type; Vec matrix, means; } cases[] = {
        {"OneBand", {"Band Num = 1", "ImgType = 6", "pdblVect = 0.1234567891", "pdblMean = -1.5e-05"}, true, 1, 6,
         {0.1234567891}, {-1.5e-05}},
        {"TranslatedKeys", {"Bandes = 2", "Typ = 3", "Vecteur = {1,2,3,4}", "Moyenne = { 5,6}"}, true, 2, 3, {1, 2, 3, 4}, {5, 6}},
        {"UnconvertiblePartsAreZero", {"B = 2", "T = 2", "V = {1,x,,3}", "M = { 5,6}"}, true, 2, 2, {1, 0, 3}, {5, 6}},
        {"TypeCodeNineIgnored", {"B = 2", "T = 9", "V = {1,2,3,4}", "M = { 5,6}"}, true, 2, 4, {1, 2, 3, 4}, {5, 6}},
        {"EmptyBraces", {"B = 2", "T = 2", "V = {}", "M = { 5,6}"}, false, 2, 2, {}, {5, 6}},
        {"TruncatedStream", {"B = 2", "T = 2"}, false, 2, 2, {}, {}},
    };
    tavtest::TempDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        tavtest::WriteText(dir.file("s"), Records(c.records));
        MNFStats s;
        s.pixelType = 4;
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

} // namespace
