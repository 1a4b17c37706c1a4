#include "TestSupport.h"
#include "mnf/MNFKernels.h"
#include "mnf/MNFStatsFile.h"

#include <Eigen/Dense>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>

namespace mnftest {
// The stream's own encoding of one text record, written out by hand: a big-endian byte length,
// then UTF-16 big-endian code units.
std::string Record(const std::string& text)
{
    std::string out;
    const uint32_t bytes = 2 * text.size();
    for (int shift : {24, 16, 8, 0})
        out += static_cast<char>((bytes >> shift) & 0xff);
    for (char c : text)
        out += std::string(1, '\0') + c;
    return out;
}

std::string Records(const std::vector<std::string>& texts)
{
    std::string out;
    for (const auto& t : texts)
        out += Record(t);
    return out;
}

} // namespace mnftest

namespace {

using mnftest::Records;
using Mat = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
Mat FromRows(int n, const std::vector<double>& v) { return Eigen::Map<const Mat>(v.data(), n, n); }

Mat RandomSymmetric(int n, std::mt19937& rng)
{
    std::uniform_real_distribution<double> u(-10, 10);
    Mat a(n, n);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j)
            a(i, j) = a(j, i) = u(rng);
    return a;
}

struct SortedCase {
    const char* what;
    int n;
    std::vector<double> a, values, vectors; // vectors: expected columns, row-major, unnormalised
};

// Hand-worked cases; the 4×4 one has an eigenvector (1,-1,1,-1)/2 whose components the rotations
// leave summing to exactly zero, so its sign must stay as they leave it.
const SortedCase kSorted[] = {
    {"DiagonalSortsLargestFirst", 3, {1, 0, 0, 0, 3, 0, 0, 0, 2}, {3, 2, 1}, {0, 0, 1, 1, 0, 0, 0, 1, 0}},
    {"EqualEigenvaluesKeepOrder", 3, {2, 0, 0, 0, 5, 0, 0, 0, 2}, {5, 2, 2}, {0, 1, 0, 1, 0, 0, 0, 0, 1}},
    {"ZeroSumKeepsItsSign", 4, {3, -1, -2, 3, -1, 3, 3, -2, -2, 3, 3, -1, 3, -2, -1, 3}, {}, {}},
};

TEST(MNFKernels, SortedEigenHandCases)
{
    for (const auto& c : kSorted) {
        SCOPED_TRACE(c.what);
        std::vector<double> v(c.n * c.n), d(c.n * c.n);
        SortedEigen(c.a.data(), c.n, v.data(), d.data(), true);
        for (size_t k = 0; k < c.values.size(); ++k)
            EXPECT_EQ(d[k * c.n + k], c.values[k]);
        if (!c.vectors.empty()) {
            EXPECT_EQ(v, c.vectors);
        }
        if (c.n == 4) {
            const Mat V = FromRows(4, v);
            int zero = 0;
            for (int k = 0; k < 4; ++k)
                if (std::abs(d[k * 5] + 1) < 1e-9)
                    zero = k;
            EXPECT_EQ(V.col(zero).sum(), 0.0);
            EXPECT_GT(V(0, zero), 0.0);
            EXPECT_NEAR(std::abs(V(0, zero)), 0.5, 1e-9);
        }
    }
}

// A·V = V·Λ within the solver's tolerance, V orthonormal, eigenvalues falling and equal to
// Eigen's, every column summing to at least zero.
TEST(MNFKernels, SortedEigenIdentitiesOnRandomMatrices)
{
    std::mt19937 rng(7);
    for (int n : {1, 2, 3, 6, 9}) {
        const Mat a = RandomSymmetric(n, rng);
        std::vector<double> in(a.data(), a.data() + n * n), v(n * n), d(n * n);
        SortedEigen(in.data(), n, v.data(), d.data(), false);
        const Mat V = FromRows(n, v);
        Eigen::VectorXd lambda = FromRows(n, d).diagonal();
        Eigen::VectorXd ref = Eigen::SelfAdjointEigenSolver<Mat>(a).eigenvalues().reverse();
        EXPECT_LT((a * V - V * lambda.asDiagonal()).cwiseAbs().maxCoeff(), 0.01 * n) << n;
        EXPECT_LT((V.transpose() * V - Mat::Identity(n, n)).cwiseAbs().maxCoeff(), 1e-9) << n;
        EXPECT_LT((lambda - ref).cwiseAbs().maxCoeff(), 0.01) << n;
        for (int k = 0; k < n; ++k)
            EXPECT_GE(V.col(k).sum(), 0.0) << n << " column " << k;
    }
}

TEST(MNFKernels, JacobiStopsBelowToleranceOrAtItsBudget)
{
    const std::vector<double> small = {4, 0.009, 0.009, 1};
    std::vector<double> a = small, v(4);
    EXPECT_EQ(JacobiEigen(a.data(), 2, v.data(), 0.01, 4000), 1);
    EXPECT_EQ(a, small);
    EXPECT_EQ(v, (std::vector<double>{1, 0, 0, 1}));
    const std::vector<double> big = {4, 2, 2, 1};
    a = big;
    EXPECT_EQ(JacobiEigen(a.data(), 2, v.data(), 0.01, 0), 0);
    EXPECT_EQ(a, big);
    EXPECT_EQ(JacobiEigen(a.data(), 2, v.data(), 0.01, 1), 1); // 2×2 needs one rotation
    EXPECT_NEAR(a[0] + a[3], 5.0, 1e-12);
}

TEST(MNFKernels, InvertMatrix)
{
    for (int n : {1, 2, 5, 8}) {
        const Mat a = Mat::Random(n, n) * 5 + Mat::Identity(n, n);
        std::vector<double> m(a.data(), a.data() + n * n);
        EXPECT_EQ(InvertMatrix(m.data(), n), 1);
        EXPECT_LT((a * FromRows(n, m) - Mat::Identity(n, n)).cwiseAbs().maxCoeff(), 1e-9) << n;
    }
    std::vector<double> perm = {0, 1, 0, 0, 0, 1, 1, 0, 0};
    EXPECT_EQ(InvertMatrix(perm.data(), 3), 1);
    EXPECT_EQ(perm, (std::vector<double>{0, 0, 1, 1, 0, 0, 0, 1, 0}));
    std::vector<double> zero(4, 0.0);
    EXPECT_EQ(InvertMatrix(zero.data(), 2), 1);
    EXPECT_EQ(zero, std::vector<double>(4, 1e300));
    std::vector<double> twoEqualRows = {1, 2, 3, 1, 2, 3, 0, 1, 4};
    EXPECT_EQ(InvertMatrix(twoEqualRows.data(), 3), 0);
}

std::string Bytes(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

TEST(MNFStatsFile, WritesTheExactRecords)
{
    tavtest::TempDir dir;
    const double t2[] = {0.5, 0.25, -0.125, 1}, m2[] = {101.5, 98.25};
    WriteMNFStats(dir.qfile("two"), 2, 2, t2, m2);
    EXPECT_EQ(Bytes(dir.file("two")), Records({"Band Num = 2", "ImgType = 2", "pdblVect = {0.5,0.25,-0.125,1}",
                                               "pdblMean = { 101.5,98.25}"}));
    const double t1[] = {0.12345678914}, m1[] = {-1.5e-05};
    WriteMNFStats(dir.qfile("one"), 1, 6, t1, m1);
    EXPECT_EQ(Bytes(dir.file("one")), Records({"Band Num = 1", "ImgType = 6", "pdblVect = 0.1234567891",
                                               "pdblMean = -1.5e-05"}));
    MNFStats s;
    QString error;
    ASSERT_TRUE(ReadMNFStats(dir.qfile("one"), s, error));
    EXPECT_EQ(s.bandCount, 1);
    EXPECT_EQ(s.pixelType, 6);
    EXPECT_EQ(s.matrix, std::vector<double>{0.1234567891});
    EXPECT_EQ(s.means, std::vector<double>{-1.5e-05});
}

struct ReadCase {
    const char* what;
    std::vector<std::string> records;
    bool ok;
    int n, type;
    std::vector<double> matrix, means;
};

const ReadCase kReads[] = {
    {"TranslatedKeys", {"Bandes = 2", "Typ = 3", "Vecteur = {1,2,3,4}", "Moyenne = { 5,6}"}, true, 2, 3, {1, 2, 3, 4}, {5, 6}},
    {"UnconvertiblePartsAreZero", {"B = 2", "T = 2", "V = {1,x,,3}", "M = { 5,6}"}, true, 2, 2, {1, 0, 3}, {5, 6}},
    {"TypeCodeNineIgnored", {"B = 2", "T = 9", "V = {1,2,3,4}", "M = { 5,6}"}, true, 2, 4, {1, 2, 3, 4}, {5, 6}},
    {"EmptyBraces", {"B = 2", "T = 2", "V = {}", "M = { 5,6}"}, false, 2, 2, {}, {5, 6}},
    {"TruncatedStream", {"B = 2", "T = 2"}, false, 2, 2, {}, {}},
};

TEST(MNFStatsFile, ReaderParseRules)
{
    tavtest::TempDir dir;
    for (const auto& c : kReads) {
        SCOPED_TRACE(c.what);
        std::ofstream(dir.file("s"), std::ios::binary) << Records(c.records);
        MNFStats s;
        s.pixelType = 4;
        QString error;
        EXPECT_EQ(ReadMNFStats(dir.qfile("s"), s, error), c.ok);
        EXPECT_EQ(error, c.ok ? QString() : QString("The Stats file is error!"));
        EXPECT_EQ(s.bandCount, c.n);
        EXPECT_EQ(s.pixelType, c.type);
        EXPECT_EQ(s.matrix, c.matrix);
        EXPECT_EQ(s.means, c.means);
    }
    MNFStats s;
    QString error;
    EXPECT_FALSE(ReadMNFStats(QString(), s, error));
    EXPECT_EQ(error, "The Stats file does not exist!");
    EXPECT_FALSE(ReadMNFStats(dir.qfile("missing"), s, error));
    EXPECT_EQ(error, "The Stats file is error!");
}

} // namespace
