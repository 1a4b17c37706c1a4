#include "frame/JacobiRotation.h"

#include <cmath>

double LargestOffDiagonal(const double* a, int n, int& p, int& q)
{
    double largest = 0.0;
    p = q = 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            if (i != j && std::fabs(a[i * n + j]) > largest) {
                largest = std::fabs(a[i * n + j]);
                p = i;
                q = j;
            }
    return largest;
}

void JacobiRotate(double* a, double* v, int n, int p, int q)
{
    double* const rowP = a + p * n;
    double* const rowQ = a + q * n;
    const double x = -rowP[q];
    const double y = (rowQ[q] - rowP[p]) / 2.0;
    double omega = x / std::sqrt(x * x + y * y);
    if (y < 0)
        omega = -omega;
    const double s = omega / std::sqrt(2.0 * (1.0 + std::sqrt(1.0 - omega * omega)));
    const double c = std::sqrt(1.0 - s * s);
    const double s2 = s * s, c2 = c * c;
    const double app = rowP[p], aqq = rowQ[q], apq = rowP[q];
    rowP[p] = app * c2 + aqq * s2 + apq * omega;
    rowQ[q] = app * s2 + aqq * c2 - apq * omega;
    rowP[q] = rowQ[p] = 0.0;
    for (int j = 0; j < n; ++j) {
        if (j == p || j == q)
            continue;
        const double pj = rowP[j], qj = rowQ[j];
        rowP[j] = pj * c + qj * s;
        rowQ[j] = qj * c - pj * s;
    }
    for (int i = 0; i < n; ++i) {
        if (i == p || i == q)
            continue;
        const double ip = a[i * n + p], iq = a[i * n + q];
        a[i * n + p] = ip * c + iq * s;
        a[i * n + q] = iq * c - ip * s;
    }
    for (int i = 0; i < n; ++i) {
        const double ip = v[i * n + p], iq = v[i * n + q];
        v[i * n + p] = ip * c + iq * s;
        v[i * n + q] = iq * c - ip * s;
    }
}
