#include "pca/PCAEigen.h"
#include "pca/PCAKernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

// Symmetric input, so its storage order does not matter. Also holds the sign rule: every filled
// column has its largest-magnitude element positive.
PcaEigenResult Decompose(const Eigen::MatrixXd& a)
{
    PcaEigenResult r;
    EXPECT_TRUE(PcaDecompose(a.data(), static_cast<int>(a.rows()), 0.001, r));
    for (int k = 0; k < r.filled; ++k) {
        Eigen::Index i;
        r.vectors.col(k).cwiseAbs().maxCoeff(&i);
        EXPECT_TRUE(std::isnan(r.values[k]) || r.vectors(i, k) > 0.0) << "column " << k;
    }
    return r;
}

} // namespace

// Hand-worked: a diagonal needs no rotation, and its repeated eigenvalues fill fewer positions (the
// later index wins); then matrices that must not keep the solver turning.
TEST(PcaDecompose, SmallCasesMatchHandWorkedEigenpairsAndEveryInputEnds)
{
    PcaEigenResult r = Decompose(Eigen::Vector4d(2, 7, 2, 7).asDiagonal());
    EXPECT_TRUE(r.filled == 2 && r.values[0] == 7 && r.values[1] == 2);
    EXPECT_TRUE(r.vectors.col(0) == Eigen::Vector4d::Unit(3) && r.vectors.col(1) == Eigen::Vector4d::Unit(2));
    EXPECT_DOUBLE_EQ(r.contribution[0], 7.0 / 18.0) << "the total counts repeated values";

    // No rotation budget: huge covariances and non-finite entries (a constant band in correlation
    // mode) must still end.
    Eigen::MatrixXd m(3, 3);
    m << 1e18, 9.99e17, -3e17, 9.99e17, 1e18, 2e17, -3e17, 2e17, 4e17;
    r = Decompose(m);
    EXPECT_NEAR(r.values[0] + r.values[1] + r.values[2], m.trace(), 1e4);
    for (double bad : {std::nan(""), HUGE_VAL, -HUGE_VAL}) {
        m << 1, 0.5, bad, 0.5, 1, bad, bad, bad, 1;
        Decompose(m);
    }
}

// Random symmetric matrices: the eigen equation holds, and values and vectors (up to sign) agree
// with Eigen's solver.
TEST(PcaDecompose, RandomSymmetricMatricesAgreeWithEigensSolver)
{
    std::mt19937 gen(7);
    std::uniform_real_distribution<double> u(-50, 50);
    for (int n = 2; n <= 9; ++n) {
        Eigen::MatrixXd b = Eigen::MatrixXd::NullaryExpr(n, n, [&] { return u(gen); });
        const Eigen::MatrixXd a = b * b.transpose(); // covariance-like
        const PcaEigenResult r = Decompose(a);
        ASSERT_EQ(r.filled, n);
        EXPECT_NEAR(r.cumulative[n - 1], 1.0, 1e-12) << n;
        const Eigen::Map<const Eigen::VectorXd> lambda(r.values.data(), n);
        EXPECT_LT((a * r.vectors - r.vectors * lambda.asDiagonal()).norm(), n * 1e-3) << n;
        Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> ref(a);
        for (int k = 0; k < n; ++k) {
            EXPECT_NEAR(r.values[k], ref.eigenvalues()(n - 1 - k), 1e-6 * a.norm()) << n;
            EXPECT_NEAR(std::fabs(r.vectors.col(k).dot(ref.eigenvectors().col(n - 1 - k))), 1.0, 1e-4) << n;
        }
    }
}

// The conversion rule, hand-computed: inside the type's range a value is truncated; outside it is
// placed by the input's sample range [-10, 300] (Byte factor 255, 16-bit 65535, 32-bit 4294967295).
TEST(PcaConvert, OnlyValuesOutsideTheTypeAreStretchedByTheInputRange)
{
    PcaSampleRange range;
    range.Add(-10);
    range.Add(300);
    auto r = [&]() -> const PcaSampleRange& { return range; };
    struct Case { double c; double byte, u16, i16, u32, i32, f32; };
    const Case cases[] = {
        {12.7, 12, 12, 12, 12, 12, 12.7f},
        {-5.0, 4, 1057, -5, 69273666, -5, -5.0f}, // (−5 + 10)·F/310 + lo
        {-20.0, 0, 0, -20, 0, -20, -20.0f},        // at or below lo_in: lo
        {280.0, 238, 280, 280, 280, 280, 280.0f},  // Byte: 290·255/310 = 238.5
        {255.0, 217, 255, 255, 255, 255, 255.0f},  // the bound itself is outside: 265·255/310
        {400.0, 255, 400, 400, 400, 400, 400.0f},  // at or above hi_in: hi
        {-1e12, 0, 0, -32768, 0, -2147483648.0, -1e12f},
        {1e12, 255, 65535, 32767, 4294967295.0, 2147483647, 1e12f},
        {std::nan(""), 255, 65535, 32767, 4294967295.0, 2147483647, 3.4028234663852886e38f},
    };
    // Each value alone and as a pair, which takes the two-lane pass when it fits the type.
    auto check = [&](auto expected, double c) {
        using T = decltype(expected);
        const double pair[2] = {c, c};
        T two[2];
        PcaNarrow(pair, 2, 1, 1, two, r);
        EXPECT_TRUE(PcaConvert<T>(c, r) == expected && two[0] == expected && two[1] == expected) << c;
    };
    for (const Case& c : cases) {
        check(uint8_t(c.byte), c.c), check(uint16_t(c.u16), c.c), check(int16_t(c.i16), c.c);
        check(uint32_t(c.u32), c.c), check(int32_t(c.i32), c.c), check(float(c.f32), c.c);
        EXPECT_TRUE(std::isnan(c.c) || PcaConvert<double>(c.c, r) == c.c) << c.c;
    }
}
