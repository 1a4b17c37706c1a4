#pragma once
// Pixel kernels of the PCA runs, one template per (input, output) sample type.
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

// Smallest and largest sample of a raster, over all its bands; NaN samples are passed over.
struct PcaSampleRange {
    double lo = std::numeric_limits<double>::infinity();
    double hi = -std::numeric_limits<double>::infinity();
    void Add(double x)
    {
        if (x < lo)
            lo = x;
        if (x > hi)
            hi = x;
    }
};

// A component value in the output type. Inside the type's open range it is kept (integers
// truncated); only values outside it are placed by the input's sample range, which `range()`
// yields on demand so that runs whose values all fit never need that extra pass.
template <class TOut, class RangeFn>
inline TOut PcaConvert(double c, RangeFn&& range)
{
    if constexpr (std::is_same_v<TOut, double>) {
        return c;
    } else {
        constexpr double lo = std::numeric_limits<TOut>::lowest();
        constexpr double hi = std::numeric_limits<TOut>::max();
        if (lo < c && c < hi)
            return static_cast<TOut>(c);
        const PcaSampleRange& r = range();
        if (c <= r.lo)
            return static_cast<TOut>(lo);
        if (c < r.hi) {
            const double v = (c - r.lo) * (hi - lo) / (r.hi - r.lo) + lo;
            // Rounding may land a hair past a bound; a NaN from an infinite range goes low.
            return static_cast<TOut>(v > lo ? (v < hi ? v : hi) : lo);
        }
        return static_cast<TOut>(hi);
    }
}

// Sums, sums of squares and the upper triangle of the cross products of pixel-interleaved samples.
// Each cross sum gets its products in pixel order, so the lower triangle is the same number.
// x is scratch for n values.
template <class TIn>
void PcaAccumulate(const TIn* in, long long pixels, int n, double* sum, double* sumsq, double* cross, double* x)
{
    for (long long p = 0; p < pixels; ++p, in += n) {
        for (int b = 0; b < n; ++b) {
            x[b] = static_cast<double>(in[b]);
            sum[b] += x[b];
            sumsq[b] += x[b] * x[b];
        }
        for (int b = 0; b < n; ++b) {
            double* row = cross + static_cast<long long>(b) * n;
            for (int j = b; j < n; ++j)
                row[j] += x[j] * x[b];
        }
    }
}

// out[k] = Σ_j (in[j] − sub[j]) · w[j·m + k] (+ add[k]) per pixel, in double, converted to TOut.
// sub and add may be null; scratch holds n + m values.
template <class TIn, class TOut, class RangeFn>
void PcaProject(const TIn* in, long long pixels, int n, const double* sub, const double* w, int m,
                const double* add, TOut* out, double* scratch, RangeFn&& range)
{
    double* x = scratch;
    double* acc = scratch + n;
    for (long long p = 0; p < pixels; ++p, in += n, out += m) {
        for (int j = 0; j < n; ++j)
            x[j] = sub ? static_cast<double>(in[j]) - sub[j] : static_cast<double>(in[j]);
        for (int k = 0; k < m; ++k)
            acc[k] = 0.0;
        for (int j = 0; j < n; ++j) {
            const double* wj = w + static_cast<long long>(j) * m;
            for (int k = 0; k < m; ++k)
                acc[k] += x[j] * wj[k];
        }
        for (int k = 0; k < m; ++k)
            out[k] = PcaConvert<TOut>(add ? acc[k] + add[k] : acc[k], range);
    }
}
