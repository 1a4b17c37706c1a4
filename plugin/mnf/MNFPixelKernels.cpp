#include "mnf/MNFPixelKernels.h"
#include "frame/RasterAccess.h"

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace {

// Four lanes; a machine without wide registers gets two halves.
using D4 = double __attribute__((vector_size(32)));
using F4 = float __attribute__((vector_size(16)));
using I4 = int64_t __attribute__((vector_size(32)));

// One column has no side neighbour; the pixel stands in for it.
inline int SideOf(int c, int width) { return c + 1 < width ? c + 1 : (c > 0 ? c - 1 : c); }

inline double NoiseOf(float up, float x, float side)
{
    const float half = 0.5f * (up + side);
    return static_cast<double>(x) - static_cast<double>(half);
}

inline F4 Load4(const float* p)
{
    F4 f;
    std::memcpy(&f, p, sizeof f);
    return f;
}

// The lanes of a pixel's values: V vectors, lanes past N cleared, and lane N set to 1.0 where
// there is one, so that each row's product with it is that value's plain sum.
template <int N>
struct Lanes {
    static constexpr int V = (N + 3) / 4;
    static constexpr bool kOneLane = N % 4 != 0;

    [[gnu::always_inline]] static inline void Finish(D4* z)
    {
        if constexpr (kOneLane) {
            I4 keep{}, one{};
            for (int i = 0; i < 4; ++i) {
                keep[i] = i < N % 4 ? -1 : 0;
                one[i] = i == N % 4 ? 0x3ff0000000000000LL : 0; // the bits of 1.0
            }
            z[V - 1] = reinterpret_cast<D4>((reinterpret_cast<I4>(z[V - 1]) & keep) | one);
        }
    }
    [[gnu::always_inline]] static inline void Data(const float* p, D4* z)
    {
        for (int v = 0; v < V; ++v)
            z[v] = __builtin_convertvector(Load4(p + 4 * v), D4);
        Finish(z);
    }
    [[gnu::always_inline]] static inline void Noise(const float* up, const float* x, const float* side, D4* z)
    {
        for (int v = 0; v < V; ++v) {
            const F4 half = 0.5f * (Load4(up + 4 * v) + Load4(side + 4 * v));
            z[v] = __builtin_convertvector(Load4(x + 4 * v), D4) - __builtin_convertvector(half, D4);
        }
        Finish(z);
    }
};

// Sums and cross-product sums held in registers for a whole row. Row a of the products is kept
// from the vector holding column a on; the rest of the square mirrors it (the products are the
// same numbers either way round).
template <int N>
struct Moments {
    using L = Lanes<N>;
    static constexpr int V = L::V;
    D4 sum[L::kOneLane ? 1 : V], cross[N][V];

    Moments(const double* sums, const double* crossSums)
    {
        for (int a = 0; a < N; ++a) {
            for (int b = 0; b < 4 * V; ++b)
                cross[a][b / 4][b % 4] = b < N ? crossSums[a * N + b] : b == N ? sums[a] : 0.0;
            if constexpr (!L::kOneLane)
                sum[a / 4][a % 4] = sums[a];
        }
    }
    void Store(double* sums, double* crossSums) const
    {
        for (int a = 0; a < N; ++a) {
            sums[a] = L::kOneLane ? cross[a][N / 4][N % 4] : sum[a / 4][a % 4];
            for (int b = a / 4 * 4; b < N; ++b)
                crossSums[a * N + b] = crossSums[b * N + a] = cross[a][b / 4][b % 4];
        }
    }
    [[gnu::always_inline]] inline void Add(const D4* z)
    {
        if constexpr (!L::kOneLane)
            for (int v = 0; v < V; ++v)
                sum[v] += z[v];
        for (int a = 0; a < N; ++a)
            for (int v = a / 4; v < V; ++v)
                cross[a][v] += z[a / 4][a % 4] * z[v];
    }
};

template <int N>
[[gnu::always_inline]] inline void NoiseRowN(const float* up, const float* row, int width, double* sums, double* cross)
{
    Moments<N> m(sums, cross);
    for (int c = 0; c < width; ++c) {
        D4 z[Moments<N>::V];
        const long long at = static_cast<long long>(c) * N;
        Lanes<N>::Noise(up + at, row + at, row + static_cast<long long>(SideOf(c, width)) * N, z);
        m.Add(z);
    }
    m.Store(sums, cross);
}

template <int N>
[[gnu::always_inline]] inline void NoiseRunN(const float* up, const float* row, const float* side, int count,
                                             double* sums, double* cross)
{
    Moments<N> m(sums, cross);
    for (int c = 0; c < count; ++c) {
        D4 z[Moments<N>::V];
        const long long at = static_cast<long long>(c) * N;
        Lanes<N>::Noise(up + at, row + at, side + at, z);
        m.Add(z);
    }
    m.Store(sums, cross);
}

template <int N>
[[gnu::always_inline]] inline void DataRowN(const float* row, int width, double* sums, double* cross)
{
    Moments<N> m(sums, cross);
    for (int c = 0; c < width; ++c) {
        D4 z[Moments<N>::V];
        Lanes<N>::Data(row + static_cast<long long>(c) * N, z);
        m.Add(z);
    }
    m.Store(sums, cross);
}

// The first `lanes` lanes only, so that a row can be turned into its outputs in place.
inline void StoreLanes(float* p, const D4& v, int lanes)
{
    const F4 f = __builtin_convertvector(v, F4);
    std::memcpy(p, &f, lanes * sizeof(float));
}
inline void StoreLanes(double* p, const D4& v, int lanes) { std::memcpy(p, &v, lanes * sizeof(double)); }

template <int N, class Out>
[[gnu::always_inline]] inline void AffineRowN(const float* row, int width, const double* m, const double* before,
                                              const double* after, Out* out)
{
    constexpr int V = Lanes<N>::V;
    D4 column[N][V], shift[V], add[V]; // column b of m across the outputs k
    for (int k = 0; k < 4 * V; ++k) {
        for (int b = 0; b < N; ++b)
            column[b][k / 4][k % 4] = k < N ? m[k * N + b] : 0.0;
        shift[k / 4][k % 4] = before && k < N ? before[k] : 0.0;
        add[k / 4][k % 4] = after && k < N ? after[k] : 0.0;
    }
    for (int c = 0; c < width; ++c) {
        const long long at = static_cast<long long>(c) * N;
        D4 x[V], acc[V];
        for (int v = 0; v < V; ++v) {
            x[v] = __builtin_convertvector(Load4(row + at + 4 * v), D4);
            if (before)
                x[v] -= shift[v];
            acc[v] = D4{};
        }
        for (int b = 0; b < N; ++b)
            for (int v = 0; v < V; ++v)
                acc[v] += x[b / 4][b % 4] * column[b][v];
        for (int v = 0; v < V; ++v) {
            if (after)
                acc[v] += add[v];
            StoreLanes(out + at + 4 * v, acc[v], v + 1 < V || N % 4 == 0 ? 4 : N % 4);
        }
    }
}

// The plain paths, for band counts without a register kernel. Only the upper triangle of the
// products is summed, pixel by pixel; the row's end mirrors it (the same numbers either way round).
inline void AddPixel(const double* z, long long n, double* sums, double* cross)
{
    for (long long a = 0; a < n; ++a) {
        sums[a] += z[a];
        for (long long b = a; b < n; ++b)
            cross[a * n + b] += z[a] * z[b];
    }
}

void MirrorUpper(long long n, double* cross)
{
    for (long long a = 1; a < n; ++a)
        for (long long b = 0; b < a; ++b)
            cross[a * n + b] = cross[b * n + a];
}

void NoiseRowAny(const float* up, const float* row, int n, int width, double* sums, double* cross)
{
    std::vector<double> z(n);
    for (int c = 0; c < width; ++c) {
        const long long at = static_cast<long long>(c) * n, side = static_cast<long long>(SideOf(c, width)) * n;
        for (int b = 0; b < n; ++b)
            z[b] = NoiseOf(up[at + b], row[at + b], row[side + b]);
        AddPixel(z.data(), n, sums, cross);
    }
    MirrorUpper(n, cross);
}

void NoiseRunAny(const float* up, const float* row, const float* side, int n, int count, double* sums,
                 double* cross)
{
    std::vector<double> z(n);
    for (long long at = 0; at < static_cast<long long>(count) * n; at += n) {
        for (int b = 0; b < n; ++b)
            z[b] = NoiseOf(up[at + b], row[at + b], side[at + b]);
        AddPixel(z.data(), n, sums, cross);
    }
    MirrorUpper(n, cross);
}

void DataRowAny(const float* row, int n, int width, double* sums, double* cross)
{
    std::vector<double> z(n);
    for (long long at = 0; at < static_cast<long long>(width) * n; at += n) {
        for (int b = 0; b < n; ++b)
            z[b] = row[at + b];
        AddPixel(z.data(), n, sums, cross);
    }
    MirrorUpper(n, cross);
}

template <class Out>
void AffineRowAny(const float* row, int n, int width, const double* m, const double* before, const double* after,
                  Out* out)
{
    std::vector<double> y(n);
    for (long long at = 0; at < static_cast<long long>(width) * n; at += n) {
        for (long long k = 0; k < n; ++k) {
            double acc = 0.0;
            for (long long b = 0; b < n; ++b) {
                const double x = before ? static_cast<double>(row[at + b]) - before[b] : row[at + b];
                acc += x * m[k * n + b];
            }
            y[k] = after ? acc + after[k] : acc;
        }
        for (long long k = 0; k < n; ++k) { // every input of the pixel is read before its outputs land
            if constexpr (std::is_same_v<Out, float>)
                out[at + k] = ToFloatSample(y[k]);
            else
                out[at + k] = y[k];
        }
    }
}

} // namespace

// Runs CALL with a compile-time N for the band counts that have register kernels, else PLAIN.
#define MNF_BY_BANDS(n, CALL, PLAIN)                                                                                   \
    switch (n) {                                                                                                       \
    case 1: { constexpr int N = 1; CALL; break; }                                                                      \
    case 2: { constexpr int N = 2; CALL; break; }                                                                      \
    case 3: { constexpr int N = 3; CALL; break; }                                                                      \
    case 4: { constexpr int N = 4; CALL; break; }                                                                      \
    case 5: { constexpr int N = 5; CALL; break; }                                                                      \
    case 6: { constexpr int N = 6; CALL; break; }                                                                      \
    case 7: { constexpr int N = 7; CALL; break; }                                                                      \
    case 8: { constexpr int N = 8; CALL; break; }                                                                      \
    default: PLAIN; break;                                                                                             \
    }

// Wide registers where the processor has them; contraction into fused multiply-adds is off for
// this folder, so every path rounds alike.
// clang 14 (the fuzz build) names the clones of an overloaded function alike and cannot link
// them: the default path alone there.
#if defined(__clang__) && __clang_major__ < 15
#define MNF_CLONES
#else
#define MNF_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#endif

MNF_CLONES void AccumulateNoiseRow(const float* up, const float* row, int n, int width, double* sums, double* cross)
{
    MNF_BY_BANDS(n, (NoiseRowN<N>(up, row, width, sums, cross)), NoiseRowAny(up, row, n, width, sums, cross))
}

MNF_CLONES void AccumulateNoiseRun(const float* up, const float* row, const float* side, int n, int count,
                                   double* sums, double* cross)
{
    MNF_BY_BANDS(n, (NoiseRunN<N>(up, row, side, count, sums, cross)),
                 NoiseRunAny(up, row, side, n, count, sums, cross))
}

MNF_CLONES void AccumulateDataRow(const float* row, int n, int width, double* sums, double* cross)
{
    MNF_BY_BANDS(n, (DataRowN<N>(row, width, sums, cross)), DataRowAny(row, n, width, sums, cross))
}

MNF_CLONES void AffineRow(const float* row, int n, int width, const double* m, const double* before,
                          const double* after, float* out)
{
    MNF_BY_BANDS(n, (AffineRowN<N>(row, width, m, before, after, out)), AffineRowAny(row, n, width, m, before, after, out))
}

MNF_CLONES void AffineRow(const float* row, int n, int width, const double* m, const double* before,
                          const double* after, double* out)
{
    MNF_BY_BANDS(n, (AffineRowN<N>(row, width, m, before, after, out)), AffineRowAny(row, n, width, m, before, after, out))
}
