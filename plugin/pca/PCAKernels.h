#pragma once
// Pixel kernels of the PCA runs. Samples are widened to double once per chunk; the arithmetic
// then runs over doubles with the band count fixed at compile time for the usual sizes.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <utility>

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

template <class TIn>
void PcaWiden(const TIn* in, long long count, double* out)
{
    for (long long i = 0; i < count; ++i)
        out[i] = static_cast<double>(in[i]);
}

// The first m of every n values, converted.
// The first m of every n values, converted. When every value of a run fits the type, which is
// checked without a branch per value, the plain conversion is all there is to do.
template <class TOut, class RangeFn>
void PcaNarrow(const double* in, long long pixels, int n, int m, TOut* out, RangeFn&& range)
{
    if constexpr (!std::is_same_v<TOut, double>) {
        if (n == m) {
            constexpr double lo = std::numeric_limits<TOut>::lowest();
            constexpr double hi = std::numeric_limits<TOut>::max();
            int fits = 1;
            for (long long i = 0, count = pixels * n; i < count; ++i) {
                const double v = in[i];
                fits &= (lo < v) & (v < hi);
                out[i] = static_cast<TOut>(v > lo ? (v < hi ? v : hi) : lo);
            }
            if (fits)
                return;
        }
    }
    for (long long p = 0; p < pixels; ++p, in += n, out += m)
        for (int k = 0; k < m; ++k)
            out[k] = PcaConvert<TOut>(in[k], range);
}

// Calls fn(std::integral_constant<int, N>) with N = n for 1..8, or N = 0 (size known at run time only).
template <class Fn>
void PcaWithBandCount(int n, Fn&& fn)
{
    switch (n) {
    case 1: return fn(std::integral_constant<int, 1>{});
    case 2: return fn(std::integral_constant<int, 2>{});
    case 3: return fn(std::integral_constant<int, 3>{});
    case 4: return fn(std::integral_constant<int, 4>{});
    case 5: return fn(std::integral_constant<int, 5>{});
    case 6: return fn(std::integral_constant<int, 6>{});
    case 7: return fn(std::integral_constant<int, 7>{});
    case 8: return fn(std::integral_constant<int, 8>{});
    default: return fn(std::integral_constant<int, 0>{});
    }
}

// Sums, sums of squares and the upper triangle of the cross products of pixel-interleaved values,
// each added in pixel order (so the lower triangle is the same number).
template <int N>
void PcaAccumulate(const double* x, long long pixels, int bands, double* sum, double* sumsq, double* cross)
{
    if constexpr (N == 0) {
        const int n = bands;
        for (long long p = 0; p < pixels; ++p, x += n) {
            for (int b = 0; b < n; ++b) {
                sum[b] += x[b];
                sumsq[b] += x[b] * x[b];
            }
            for (int b = 0; b < n; ++b)
                for (int j = b; j < n; ++j)
                    cross[b * n + j] += x[j] * x[b];
        }
    } else {
        // The same additions in the same order, on copies the compiler can keep in registers.
        double s[N], q[N], c[N * N];
        std::copy(sum, sum + N, s);
        std::copy(sumsq, sumsq + N, q);
        std::copy(cross, cross + N * N, c);
        for (long long p = 0; p < pixels; ++p, x += N) {
            for (int b = 0; b < N; ++b) {
                s[b] += x[b];
                q[b] += x[b] * x[b];
            }
            for (int b = 0; b < N; ++b)
                for (int j = b; j < N; ++j)
                    c[b * N + j] += x[j] * x[b];
        }
        std::copy(s, s + N, sum);
        std::copy(q, q + N, sumsq);
        std::copy(c, c + N * N, cross);
    }
}

// In place, per pixel of n values: x'[k] = Σ_j (x[j] − sub[j]) · w[j·n + k] (+ add[k]), summed in
// band order. sub and add may be null.
// scratch holds 2n values.
template <int N>
void PcaRotate(double* x, long long pixels, int bands, const double* sub, const double* w, const double* add,
               double* scratch)
{
    if constexpr (N == 0) {
        const int n = bands;
        double* v = scratch;
        double* acc = v + n;
        for (long long p = 0; p < pixels; ++p, x += n) {
            for (int j = 0; j < n; ++j)
                v[j] = sub ? x[j] - sub[j] : x[j];
            for (int k = 0; k < n; ++k)
                acc[k] = 0.0;
            for (int j = 0; j < n; ++j)
                for (int k = 0; k < n; ++k)
                    acc[k] += v[j] * w[j * n + k];
            for (int k = 0; k < n; ++k)
                x[k] = add ? acc[k] + add[k] : acc[k];
        }
    } else {
        // Local copies: x is written in place, so nothing read through the other pointers may
        // look as if it could change under the loop.
        double wl[N * N], sl[N] = {}, al[N] = {};
        std::copy(w, w + N * N, wl);
        if (sub)
            std::copy(sub, sub + N, sl);
        if (add)
            std::copy(add, add + N, al);
        for (long long p = 0; p < pixels; ++p, x += N) {
            double v[N], acc[N] = {};
            for (int j = 0; j < N; ++j)
                v[j] = sub ? x[j] - sl[j] : x[j];
            for (int j = 0; j < N; ++j)
                for (int k = 0; k < N; ++k)
                    acc[k] += v[j] * wl[j * N + k];
            for (int k = 0; k < N; ++k)
                x[k] = add ? acc[k] + al[k] : acc[k];
        }
    }
}
