#include "pca/JacobiRotationLocal.h"
#include <cmath>

double LargestOffDiagonal(const double* a, int n, int& p, int& q)
{
    double best = 0.0;
    p = q = 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            if (i != j && std::fabs(a[i * n + j]) > best) {
                best = std::fabs(a[i * n + j]);
                p = i;
                q = j;
            }
    return best;
}

void JacobiRotate(double* a, double* v, int n, int p, int q)
{
    const double apq = a[p * n + q], app = a[p * n + p], aqq = a[q * n + q];
    const double x = -apq, y = (aqq - app) / 2.0;
    double w = x / std::sqrt(x * x + y * y);
    if (y < 0)
        w = -w;
    const double s = w / std::sqrt(2.0 * (1.0 + std::sqrt(1.0 - w * w)));
    const double c = std::sqrt(1.0 - s * s);
    a[p * n + p] = app * c * c + aqq * s * s + apq * w;
    a[q * n + q] = app * s * s + aqq * c * c - apq * w;
    a[p * n + q] = a[q * n + p] = 0.0;
    for (int j = 0; j < n; ++j) {
        if (j == p || j == q)
            continue;
        const double pj = a[p * n + j], qj = a[q * n + j];
        a[p * n + j] = a[j * n + p] = pj * c + qj * s;
        a[q * n + j] = a[j * n + q] = qj * c - pj * s;
    }
    for (int i = 0; i < n; ++i) {
        const double vp = v[i * n + p], vq = v[i * n + q];
        v[i * n + p] = vp * c + vq * s;
        v[i * n + q] = vq * c - vp * s;
    }
}
