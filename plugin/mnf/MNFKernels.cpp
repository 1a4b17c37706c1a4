#include "mnf/MNFKernels.h"
#include "frame/JacobiRotation.h"

#include <cmath>
#include <memory>
#include <new>
#include <utility>

namespace {

constexpr double kEigenTolerance = 0.01;
constexpr int kEigenRotations = 4000;

void SwapRows(double* a, int n, int r1, int r2)
{
    for (int j = 0; j < n; ++j)
        std::swap(a[static_cast<long long>(r1) * n + j], a[static_cast<long long>(r2) * n + j]);
}

void SwapColumns(double* a, int n, int c1, int c2)
{
    for (int i = 0; i < n; ++i)
        std::swap(a[static_cast<long long>(i) * n + c1], a[static_cast<long long>(i) * n + c2]);
}

} // namespace

int JacobiEigen(double* a, int n, double* v, double eps, int maxRotations)
{
    const long long nn = static_cast<long long>(n) * n;
    for (long long i = 0; i < nn; ++i)
        v[i] = 0.0;
    for (int i = 0; i < n; ++i)
        v[static_cast<long long>(i) * n + i] = 1.0;
    // The budget counts single rotations, not sweeps.
    for (int rotation = 1;; ++rotation) {
        int p = 0, q = 0;
        if (eps > LargestOffDiagonal(a, n, p, q))
            return 1;
        if (rotation > maxRotations)
            return 0;
        JacobiRotate(a, v, n, p, q);
    }
}

void SortedEigen(const double* a, int n, double* v, double* rotated, bool skipNormalise)
{
    const long long nn = n > 0 ? static_cast<long long>(n) * n : 0;
    std::unique_ptr<double[]> d(new double[nn]);
    for (long long i = 0; i < nn; ++i)
        d[i] = a[i];
    // A run that did not converge is used as it stands.
    JacobiEigen(d.get(), n, v, kEigenTolerance, kEigenRotations);
    auto diag = [&](int i) -> double& { return d[static_cast<long long>(i) * n + i]; };
    for (int i = 0; i < n; ++i) {
        int k = i;
        for (int j = i + 1; j < n; ++j)
            if (diag(j) > diag(k))
                k = j;
        // Only the diagonal moves; the off-diagonal residue stays where the rotations left it.
        if (k != i) {
            std::swap(diag(i), diag(k));
            SwapColumns(v, n, i, k);
        }
        double sum = 0.0;
        for (int r = 0; r < n; ++r)
            sum += v[static_cast<long long>(r) * n + i];
        if (sum < 0.0)
            for (int r = 0; r < n; ++r)
                v[static_cast<long long>(r) * n + i] *= -1.0;
    }
    if (rotated)
        for (long long i = 0; i < nn; ++i)
            rotated[i] = d[i];
    if (!skipNormalise)
        NormalizeColumns(v, n);
}

bool NormalizeColumns(double* v, int n)
{
    for (int j = 0; j < n; ++j) {
        double squares = 0.0;
        for (int i = 0; i < n; ++i)
            squares += v[static_cast<long long>(i) * n + j] * v[static_cast<long long>(i) * n + j];
        // A zero column becomes NaN: nothing downstream expects one.
        const double norm = std::sqrt(squares);
        for (int i = 0; i < n; ++i)
            v[static_cast<long long>(i) * n + j] /= norm;
    }
    return true;
}

int InvertMatrix(double* a, int n)
{
    const long long nn = n > 0 ? static_cast<long long>(n) * n : 0;
    bool allZero = true;
    for (long long i = 0; i < nn && allZero; ++i)
        allZero = a[i] == 0.0; // NaN counts as not zero
    if (allZero) {
        // Kept on purpose: the all-zero matrix "inverts" to 1e300 everywhere rather than failing.
        for (long long i = 0; i < nn; ++i)
            a[i] = 1e300;
        return 1;
    }
    std::unique_ptr<int[]> pivotRow(new int[n]), pivotCol(new int[n]);
    auto at = [&](int i, int j) -> double& { return a[static_cast<long long>(i) * n + j]; };
    for (int k = 0; k < n; ++k) {
        double largest = 0.0;
        pivotRow[k] = pivotCol[k] = k;
        for (int i = k; i < n; ++i)
            for (int j = k; j < n; ++j)
                if (std::fabs(at(i, j)) > largest) {
                    largest = std::fabs(at(i, j));
                    pivotRow[k] = i;
                    pivotCol[k] = j;
                }
        if (largest + 1.0 == 1.0)
            return 0;
        if (pivotRow[k] != k)
            SwapRows(a, n, k, pivotRow[k]);
        if (pivotCol[k] != k)
            SwapColumns(a, n, k, pivotCol[k]);
        at(k, k) = 1.0 / at(k, k);
        for (int j = 0; j < n; ++j)
            if (j != k)
                at(k, j) *= at(k, k);
        for (int i = 0; i < n; ++i)
            if (i != k)
                for (int j = 0; j < n; ++j)
                    if (j != k)
                        at(i, j) -= at(i, k) * at(k, j);
        for (int i = 0; i < n; ++i)
            if (i != k)
                at(i, k) = -at(i, k) * at(k, k);
    }
    for (int k = n - 1; k >= 0; --k) {
        if (pivotCol[k] != k)
            SwapRows(a, n, k, pivotCol[k]);
        if (pivotRow[k] != k)
            SwapColumns(a, n, k, pivotRow[k]);
    }
    return 1;
}
