#include "pca/PCAEigen.h"
#include "frame/JacobiRotation.h"

#include <cmath>
#include <map>

bool PcaJacobi(double* a, int n, double* v, double tolerance)
{
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            v[i * n + j] = i == j ? 1.0 : 0.0;
    for (;;) {
        int p = 0, q = 0;
        // NaN never wins the search and every rotation zeroes the largest entry, so this ends.
        if (tolerance > LargestOffDiagonal(a, n, p, q))
            return true;
        JacobiRotate(a, v, n, p, q);
    }
}

namespace {

// Orders NaN below every number and equal to itself, so a NaN eigenvalue cannot break the map.
struct EigenKeyLess {
    bool operator()(double x, double y) const
    {
        if (std::isnan(x))
            return !std::isnan(y);
        return !std::isnan(y) && x < y;
    }
};

// Column i of v, negated unless its largest-magnitude element is already positive.
void CopySigned(const Eigen::MatrixXd& v, int i, Eigen::MatrixXd& out, int k)
{
    int best = 0;
    double largest = 0.0;
    for (int r = 0; r < v.rows(); ++r)
        if (std::fabs(v(r, i)) > largest) {
            largest = std::fabs(v(r, i));
            best = r;
        }
    const double e = v(best, i);
    out.col(k) = std::fabs(e) - e < 1e-9 ? v.col(i) : Eigen::VectorXd(-v.col(i));
}

} // namespace

bool PcaDecompose(const double* matrix, int n, double tolerance, PcaEigenResult& out)
{
    Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> a(n, n), v(n, n);
    std::copy(matrix, matrix + static_cast<long long>(n) * n, a.data());
    if (!PcaJacobi(a.data(), n, v.data(), tolerance))
        return false;

    // Unique keys on purpose: an eigenvalue that occurs twice fills one position.
    std::map<double, int, EigenKeyLess> byValue;
    double total = 0.0;
    for (int i = 0; i < n; ++i) {
        byValue[a(i, i)] = i;
        total += a(i, i);
    }
    const Eigen::MatrixXd vectors = v;
    out.values.assign(n, 0.0);
    out.contribution.assign(n, 0.0);
    out.cumulative.assign(n, 0.0);
    out.vectors = Eigen::MatrixXd::Zero(n, n);
    int k = 0;
    for (auto it = byValue.rbegin(); it != byValue.rend(); ++it, ++k) {
        out.values[k] = it->first;
        out.contribution[k] = it->first / total;
        out.cumulative[k] = out.contribution[k] + (k > 0 ? out.cumulative[k - 1] : 0.0);
        CopySigned(vectors, it->second, out.vectors, k);
    }
    out.filled = k;
    return true;
}
