#pragma once
// Pixel kernels of the PCA runs. Samples are widened to double and interleaved once per chunk; the
// arithmetic then runs over doubles with the band count fixed at compile time for the usual sizes.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
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

// count samples of each band, the bands `stride` samples apart (as a band-sequential read leaves
// them), into pixel-interleaved doubles.
template <class TIn>
void PcaInterleave(const TIn* bands, long long stride, long long count, int n, double* out)
{
    for (int b = 0; b < n; ++b) {
        const TIn* in = bands + b * stride;
        for (long long p = 0; p < count; ++p)
            out[p * n + b] = static_cast<double>(in[p]);
    }
}

// Converts count values two at a time (one SSE register), each clamped into the type so that the
// conversion is always defined; true when every value was strictly inside the type's range.
template <class TOut>
bool PcaNarrowFitting(const double* in, long long count, TOut* out)
{
    using V = double __attribute__((vector_size(16)));
    using M = long long __attribute__((vector_size(16)));
    using F = float __attribute__((vector_size(8)));
    constexpr double lo = std::numeric_limits<TOut>::lowest();
    constexpr double hi = std::numeric_limits<TOut>::max();
    const V loV = {lo, lo}, hiV = {hi, hi};
    // Running extremes and a sum of v − v, which only a NaN or an infinity makes non-zero: all in
    // the vector unit, no branch per value.
    V least = hiV, most = loV, nonFinite = {0.0, 0.0};
    long long i = 0;
    for (; i + 2 <= count; i += 2) {
        V v;
        std::memcpy(&v, in + i, sizeof v);
        least = v < least ? v : least;
        most = v > most ? v : most;
        nonFinite += v - v;
        v = v < hiV ? v : hiV;
        v = v > loV ? v : loV; // NaN lanes end at hi above, so this never sees one
        if constexpr (std::is_same_v<TOut, float>) {
            const F f = __builtin_convertvector(v, F);
            std::memcpy(out + i, &f, sizeof f);
        } else {
            const M whole = __builtin_convertvector(v, M); // truncates toward zero, as the scalar rule does
            out[i] = static_cast<TOut>(whole[0]);
            out[i + 1] = static_cast<TOut>(whole[1]);
        }
    }
    bool ok = least[0] > lo && least[1] > lo && most[0] < hi && most[1] < hi && nonFinite[0] == 0.0 &&
              nonFinite[1] == 0.0;
    for (; i < count; ++i) {
        ok = ok && lo < in[i] && in[i] < hi;
        out[i] = ok ? static_cast<TOut>(in[i]) : TOut();
    }
    return ok;
}

// The first m of every n values, converted.
template <class TOut, class RangeFn>
void PcaNarrow(const double* in, long long pixels, int n, int m, TOut* out, RangeFn&& range)
{
    if constexpr (!std::is_same_v<TOut, double>)
        if (n == m && PcaNarrowFitting(in, pixels * n, out))
            return;
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

// The pixel loops below, written once for a band count fixed at compile time (an
// std::integral_constant) or known at run time only (an int).
template <class Count>
[[gnu::always_inline]] inline void PcaAccumulatePixels(const double* x, long long pixels, Count n, double* sum,
                                                       double* sumsq, double* cross)
{
    for (long long p = 0; p < pixels; ++p, x += n) {
        for (int b = 0; b < n; ++b) {
            sum[b] += x[b];
            sumsq[b] += x[b] * x[b];
        }
        for (int b = 0; b < n; ++b)
            for (int j = b; j < n; ++j)
                cross[b * n + j] += x[j] * x[b];
    }
}

// scratch (2n values) serves only a run-time n; fixed sizes keep theirs in registers. The flags
// come apart from the pointers so that the fixed path can hand over its local copies.
template <class Count>
[[gnu::always_inline]] inline void PcaRotatePixels(double* x, long long pixels, Count n, bool subtract,
                                                   const double* sub, const double* w, bool adding,
                                                   const double* add, double* scratch)
{
    constexpr int kFixed = std::is_same_v<Count, int> ? 1 : static_cast<int>(Count{});
    for (long long p = 0; p < pixels; ++p, x += n) {
        double fixedV[kFixed], fixedAcc[kFixed];
        double* v = std::is_same_v<Count, int> ? scratch : fixedV;
        double* acc = std::is_same_v<Count, int> ? scratch + n : fixedAcc;
        for (int j = 0; j < n; ++j)
            v[j] = subtract ? x[j] - sub[j] : x[j];
        for (int k = 0; k < n; ++k)
            acc[k] = 0.0;
        for (int j = 0; j < n; ++j)
            for (int k = 0; k < n; ++k)
                acc[k] += v[j] * w[j * n + k];
        for (int k = 0; k < n; ++k)
            x[k] = adding ? acc[k] + add[k] : acc[k];
    }
}

// Sums, sums of squares and the upper triangle of the cross products of pixel-interleaved values,
// each added in pixel order (so the lower triangle is the same number).
template <int N>
void PcaAccumulate(const double* x, long long pixels, int bands, double* sum, double* sumsq, double* cross)
{
    if constexpr (N == 0) {
        PcaAccumulatePixels(x, pixels, bands, sum, sumsq, cross);
    } else {
        // The same additions in the same order, on copies the compiler can keep in registers.
        double s[N], q[N], c[N * N];
        std::copy(sum, sum + N, s);
        std::copy(sumsq, sumsq + N, q);
        std::copy(cross, cross + N * N, c);
        PcaAccumulatePixels(x, pixels, std::integral_constant<int, N>{}, s, q, c);
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
        PcaRotatePixels(x, pixels, bands, sub != nullptr, sub, w, add != nullptr, add, scratch);
    } else {
        // Local copies: x is written in place, so nothing read through the other pointers may
        // look as if it could change under the loop.
        double wl[N * N], sl[N] = {}, al[N] = {};
        std::copy(w, w + N * N, wl);
        if (sub)
            std::copy(sub, sub + N, sl);
        if (add)
            std::copy(add, add + N, al);
        PcaRotatePixels(x, pixels, std::integral_constant<int, N>{}, sub != nullptr, sl, wl, add != nullptr, al,
                        scratch);
    }
}
