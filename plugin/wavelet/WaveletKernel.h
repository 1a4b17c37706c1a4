#pragma once

// One-level Daubechies four-tap wavelet transform of single-precision lines
// and row-major images (w columns by h rows), and its exact inverse.
//
// Layout of a transformed line of n samples: the ceil(n/2) low-pass values
// from index 0, then the ceil(n/2) high-pass values from index floor(n/2).
// For an odd n the first high-pass value overwrites the last low-pass value;
// the inverse rebuilds that value from the border, so nothing is lost.
//
// The kernel never allocates and never throws: every function takes its work
// memory from the caller, sized by the *ScratchSize functions below, so the
// raster runs can obtain it with a non-throwing allocator and report failure.

#include <cstddef>

namespace WaveletKernel {

// Analysis pair, the low-pass taps summing to one: (1 + √3)/8, (3 + √3)/8,
// (3 - √3)/8, (1 - √3)/8, and hi[t] = (-1)^t lo[3 - t]. The rounded values are
// the product's own and the forward results depend on them.
inline constexpr float kLo[4] = {0.3415064f, 0.5915064f, 0.1584937f, -0.0915063f};
inline constexpr float kHi[4] = {-0.0915063f, -0.1584937f, 0.5915064f, -0.3415064f};

// Floats of scratch for ForwardLine and InverseLine on lines of n samples.
constexpr std::size_t LineScratchSize(std::size_t n) { return n + 5; }

// Floats of scratch for the column-at-a-time reference passes on an image h rows high.
constexpr std::size_t PerColumnScratchSize(std::size_t h) { return h + LineScratchSize(h); }

// Forward transform of one line of n >= 1 samples. pIn may equal pOut.
void ForwardLine(const float* pIn, float* pOut, std::size_t n, float* pScratch);

// Inverse of ForwardLine. pIn may equal pOut.
void InverseLine(const float* pIn, float* pOut, std::size_t n, float* pScratch);

// Row-window forms of the column passes, for runs that stream an image in row
// order: each computes one row of n samples from the rows it depends on, with
// the line transform's own arithmetic, so the bits agree with the reference passes.
// The output row must not overlap the rows read.
//
// Forward, with the column extension e(0) = ForwardBorderRow(row 0, row 1),
// e(1) = zeros, e(i) = row i - 2, zeros past the last row: low-pass row j
// reads e(2j + 2 .. 2j + 5), high-pass row j reads e(2j .. 2j + 3).
void ForwardBorderRow(const float* row0, const float* row1, float* out, std::size_t n);
void ForwardLowRow(const float* e0, const float* e1, const float* e2, const float* e3, float* out, std::size_t n);
void ForwardHighRow(const float* e0, const float* e1, const float* e2, const float* e3, float* out, std::size_t n);

// Inverse, over the low-pass rows L[-1] = zeros, L[0 .. h/2 - 1] and the
// high-pass rows H[0 .. ceil(h/2) - 1] as stored, completed at the bottom by
// InverseLastLowRow (odd h: L[h/2] from H[h/2] and L[h/2 - 1]) and
// InverseExtraHighRow (H[ceil(h/2)] from L[ceil(h/2) - 1]). Rows 2k and 2k + 1
// of the result read L[k - 1], L[k], H[k], H[k + 1].
void InverseLastLowRow(const float* hLast, const float* lPrev, float* out, std::size_t n);
void InverseExtraHighRow(const float* lLast, float* out, std::size_t n);
void InverseEvenRow(const float* lPrev, const float* l, const float* h, const float* hNext, float* out, std::size_t n);
void InverseOddRow(const float* lPrev, const float* l, const float* h, const float* hNext, float* out, std::size_t n);

// Reference passes: gather one column, run the line transform, scatter it back.
// The row-window passes give the same bits. pIn may equal pOut.
void ForwardColumnsPerColumn(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch);
void InverseColumnsPerColumn(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch);

}  // namespace WaveletKernel
