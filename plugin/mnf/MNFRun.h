#pragma once
// Steps the forward and inverse runs share.
#include "frame/RunSteps.h"
#include "frame/RasterAccess.h"
#include "frame/TransWorker.h"
#include "mnf/MNFPixelKernels.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>

inline const char* const kMNFContext = "CMNFTransFunc";

// The window and bands of a run, resolved against its input.
struct MNFSelection {
    PixelWindow window;
    BandNumbers bands;
};

// Rows of one block under a byte budget, at least one, at most `height`.
int RowsPerBlock(long long budget, int width, long long bytesPerPixel, int height);

// The truncated integer's low 64 bits; NaN and ±∞ have none and give 0.
inline uint64_t TruncatedLowBits(double v)
{
    if (std::fabs(v) < 9223372036854775808.0)
        return static_cast<uint64_t>(static_cast<int64_t>(v));
    if (!std::isfinite(v))
        return 0;
    const double r = std::fmod(v, 18446744073709551616.0); // exact; |r| < 2^64, an integer
    return r < 0 ? -static_cast<uint64_t>(-r) : static_cast<uint64_t>(r);
}

// A double stored in integer pixel type T: truncated toward zero and wrapped to its low bytes
// (no rounding, no clamping).
template <class T>
inline T StorePixel(double v)
{
    return static_cast<T>(TruncatedLowBits(v));
}

// Band after band of `pixels` samples (as a band-sequential read leaves them) into pixel-major
// Float32 rows.
template <class T>
void Interleave(const T* bands, int n, long long pixels, float* rows)
{
    for (int b = 0; b < n; ++b) {
        const T* in = bands + b * pixels;
        float* out = rows + b;
        for (long long p = 0; p < pixels; ++p)
            out[p * n] = SampleToFloat(in[p]);
    }
}

// Pixel-major rows of `samples` samples with the kernels' slack after them, cleared.
template <class T>
TypedBuffer<T> NewRows(long long samples)
{
    TypedBuffer<T> rows = NewSamples<T>(samples + kRowSlack);
    if (rows)
        std::fill(rows.get() + samples, rows.get() + samples + kRowSlack, T{});
    return rows;
}


