#include "wavelet/WaveletKernel.h"

// Why the inverse is what it is.
//
// Read the forward line transform as the usual orthogonal filter bank on an
// infinite signal, L[j] = sum lo[t] x[2j+t] and H[j] = sum hi[t] x[2j-2+t],
// where x is the line extended by x[-2] = e0, x[-1] = 0 on the left and by
// zeros on the right. Every stored value is then exactly that bank's output.
// The taps satisfy sum lo[t]^2 = 1/2 and lo0 lo2 + lo1 lo3 = 0, so the bank
// is orthogonal up to a gain of 2 and the interior synthesis is
//   x[2k]   = 2 (lo2 L[k-1] + lo0 L[k] + hi2 H[k] + hi0 H[k+1])
//   x[2k+1] = 2 (lo3 L[k-1] + lo1 L[k] + hi3 H[k] + hi1 H[k+1]),
// that is x[i] = sum over t of the reversed taps times the values at i + t of
// the low-pass half up-sampled to positions 3, 5, ... (L[-1] at 1) and the
// high-pass half up-sampled to positions 1, 3, ....
// Rebuilding x[0 .. n-1] needs L[-1 .. ceil(n/2)-1] and H[0 .. ceil(n/2)],
// a few more values than were stored:
// - L[-1] = lo0 e0 + lo2 x0 + lo3 x1 is zero, because e0 was chosen for that.
// - n = 2m: H[m] = hi0 x[n-2] + hi1 x[n-1] is missing. Since x[n] = 0 and
//   L[m] = H[m+1] = 0, synthesis at n gives lo2 L[m-1] + hi2 H[m] = 0, so
//   H[m] = -(lo2/lo1) L[m-1] = (lo3/lo0) L[m-1] = (√3 - 2) L[m-1].
// - n = 2m+1: L[m] = lo0 x[n-1] was overwritten and H[m+1] = hi0 x[n-1] = (lo3/lo0) L[m]
//   is missing. Synthesis at n, where x[n] = 0, gives
//   (lo1 - lo2 lo3/lo0) L[m] + lo3 L[m-1] - lo0 H[m] = 0, with
//   lo1 - lo2 lo3/lo0 = √3/(8 lo0), hence L[m] = (8 lo0²/√3) (H[m] - (lo3/lo0) L[m-1]).
// With these border values the synthesis is the exact inverse for every n >= 1.

#include <algorithm>

// Each sample is the plain float sum of products, never fused: the batched and
// the line passes must give the same bits whatever the target CPU offers.
#if defined(__clang__)
#pragma clang fp contract(off)
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif

namespace WaveletKernel {
namespace {

// The synthesis gain is 1 / sum lo[t]^2: exactly 2 for the true taps, and
// for the rounded ones it halves the round-trip error that a plain 2 leaves.
constexpr double kSynGain =
    1.0 / (double(kLo[0]) * kLo[0] + double(kLo[1]) * kLo[1] + double(kLo[2]) * kLo[2] + double(kLo[3]) * kLo[3]);
constexpr float kSynLo[4] = {float(kSynGain * kLo[0]), float(kSynGain * kLo[1]), float(kSynGain * kLo[2]),
                             float(kSynGain * kLo[3])};
constexpr float kSynHi[4] = {float(kSynGain * kHi[0]), float(kSynGain * kHi[1]), float(kSynGain * kHi[2]),
                             float(kSynGain * kHi[3])};

// lo3/lo0 = √3 - 2: the missing high-pass value past the end of a line, as a
// multiple of the last low-pass value.
constexpr float kBorderRatio = static_cast<float>(-0.26794919243112270);
// 8 lo0²/√3 = (2 + √3)/(4√3): rebuilds the low-pass value an odd line overwrote.
constexpr float kLastLowGain = static_cast<float>(0.53867513459481287);

// The left border value of the high-pass extension, chosen so that the
// low-pass value one step before the line is zero.
inline float LeftBorder(float x0, float x1)
{
    return -(kLo[2] / kLo[0]) * x0 - (kLo[3] / kLo[0]) * x1;
}

inline float Dot4(const float* t, float a, float b, float c, float d)
{
    return t[0] * a + t[1] * b + t[2] * c + t[3] * d;
}

// Rebuilt samples 2k and 2k+1 from L[k-1], L[k], H[k], H[k+1].
inline float EvenSample(float lPrev, float l, float h, float hNext)
{
    return kSynLo[2] * lPrev + kSynLo[0] * l + kSynHi[2] * h + kSynHi[0] * hNext;
}

inline float OddSample(float lPrev, float l, float h, float hNext)
{
    return kSynLo[3] * lPrev + kSynLo[1] * l + kSynHi[3] * h + kSynHi[1] * hNext;
}

inline float RebuiltLastLow(float hLast, float lPrev)
{
    return kLastLowGain * (hLast - kBorderRatio * lPrev);
}

// The row-window passes run these over a row; the element-wise expressions
// are the line transform's own, so the bits agree.
void Dot4Rows(const float* t, const float* __restrict a, const float* __restrict b,
              const float* __restrict c, const float* __restrict d, float* __restrict out, std::size_t nb)
{
    for (std::size_t i = 0; i < nb; ++i)
        out[i] = Dot4(t, a[i], b[i], c[i], d[i]);
}

void EvenRows(const float* __restrict lPrev, const float* __restrict l, const float* __restrict h,
              const float* __restrict hNext, float* __restrict out, std::size_t nb)
{
    for (std::size_t i = 0; i < nb; ++i)
        out[i] = EvenSample(lPrev[i], l[i], h[i], hNext[i]);
}

void OddRows(const float* __restrict lPrev, const float* __restrict l, const float* __restrict h,
             const float* __restrict hNext, float* __restrict out, std::size_t nb)
{
    for (std::size_t i = 0; i < nb; ++i)
        out[i] = OddSample(lPrev[i], l[i], h[i], hNext[i]);
}

}  // namespace

void ForwardBorderRow(const float* row0, const float* row1, float* out, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        out[i] = LeftBorder(row0[i], row1[i]);
}

void ForwardLowRow(const float* e0, const float* e1, const float* e2, const float* e3, float* out, std::size_t n)
{
    Dot4Rows(kLo, e0, e1, e2, e3, out, n);
}

void ForwardHighRow(const float* e0, const float* e1, const float* e2, const float* e3, float* out, std::size_t n)
{
    Dot4Rows(kHi, e0, e1, e2, e3, out, n);
}

void InverseLastLowRow(const float* hLast, const float* lPrev, float* out, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        out[i] = RebuiltLastLow(hLast[i], lPrev[i]);
}

void InverseExtraHighRow(const float* lLast, float* out, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        out[i] = kBorderRatio * lLast[i];
}

void InverseEvenRow(const float* lPrev, const float* l, const float* h, const float* hNext, float* out, std::size_t n)
{
    EvenRows(lPrev, l, h, hNext, out, n);
}

void InverseOddRow(const float* lPrev, const float* l, const float* h, const float* hNext, float* out, std::size_t n)
{
    OddRows(lPrev, l, h, hNext, out, n);
}

void ForwardLine(const float* pIn, float* pOut, std::size_t n, float* pScratch)
{
    // ext: e0, 0, x[0 .. n-1], 0, 0, 0. Low-pass reads it from index 2 on
    // (x followed by zeros), high-pass from index 0.
    float* ext = pScratch;
    ext[0] = LeftBorder(pIn[0], n > 1 ? pIn[1] : 0.0f);
    ext[1] = 0.0f;
    std::copy(pIn, pIn + n, ext + 2);
    std::fill(ext + n + 2, ext + n + 5, 0.0f);

    const std::size_t half = n / 2;
    for (std::size_t j = 0; j < half; ++j) {
        const float* e = ext + 2 * j + 2;
        pOut[j] = Dot4(kLo, e[0], e[1], e[2], e[3]);
    }
    // For an odd n this loop starts on the last low-pass slot: the overwrite is kept on purpose.
    for (std::size_t j = 0; j < (n + 1) / 2; ++j) {
        const float* e = ext + 2 * j;
        pOut[half + j] = Dot4(kHi, e[0], e[1], e[2], e[3]);
    }
}

void InverseLine(const float* pIn, float* pOut, std::size_t n, float* pScratch)
{
    const std::size_t nLow = n / 2;
    const std::size_t nHigh = (n + 1) / 2;
    // low[j + 1] = L[j] for j = -1 .. nHigh - 1; high[j] = H[j] for j = 0 .. nHigh.
    float* low = pScratch;
    float* high = pScratch + nHigh + 1;
    low[0] = 0.0f;
    std::copy(pIn, pIn + nLow, low + 1);
    std::copy(pIn + nLow, pIn + n, high);
    if (n % 2 == 0) {
        high[nHigh] = kBorderRatio * low[nLow];
    } else {
        low[nLow + 1] = RebuiltLastLow(high[nLow], low[nLow]);
        high[nHigh] = kBorderRatio * low[nLow + 1];
    }

    // Whole pairs first so that the loop vectorises; an odd line ends on one even sample.
    for (std::size_t k = 0; k < nLow; ++k) {
        pOut[2 * k] = EvenSample(low[k], low[k + 1], high[k], high[k + 1]);
        pOut[2 * k + 1] = OddSample(low[k], low[k + 1], high[k], high[k + 1]);
    }
    if (n % 2 != 0)
        pOut[n - 1] = EvenSample(low[nLow], low[nLow + 1], high[nLow], high[nLow + 1]);
}

namespace {

template <typename LineFn>
void PerColumn(LineFn line, const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch)
{
    float* column = pScratch;
    for (std::size_t c = 0; c < w; ++c) {
        for (std::size_t r = 0; r < h; ++r)
            column[r] = pIn[r * w + c];
        line(column, column, h, pScratch + h);
        for (std::size_t r = 0; r < h; ++r)
            pOut[r * w + c] = column[r];
    }
}

}  // namespace

void ForwardColumnsPerColumn(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch)
{
    PerColumn(ForwardLine, pIn, pOut, w, h, pScratch);
}

void InverseColumnsPerColumn(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch)
{
    PerColumn(InverseLine, pIn, pOut, w, h, pScratch);
}

}  // namespace WaveletKernel
