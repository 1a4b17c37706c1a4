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

// Columns handled per sweep over the rows by the batched column passes: wide
// enough that each output row slice streams from a few input row slices that
// stay in cache, which measured faster than narrower batches.
inline constexpr std::size_t kColumnBatch = 4096;

// Floats of scratch for ForwardLine, InverseLine, ForwardRows and InverseRows on lines of n samples.
constexpr std::size_t LineScratchSize(std::size_t n) { return n + 5; }

// Floats of scratch for ForwardColumns and InverseColumns on an image w columns wide.
constexpr std::size_t ColumnScratchSize(std::size_t w) { return 3 * (w < kColumnBatch ? w : kColumnBatch); }

// Floats of scratch for the column-at-a-time reference passes on an image h rows high.
constexpr std::size_t PerColumnScratchSize(std::size_t h) { return h + LineScratchSize(h); }

// Forward transform of one line of n >= 1 samples. pIn may equal pOut.
void ForwardLine(const float* pIn, float* pOut, std::size_t n, float* pScratch);

// Inverse of ForwardLine. pIn may equal pOut.
void InverseLine(const float* pIn, float* pOut, std::size_t n, float* pScratch);

// ForwardLine on every row. pIn may equal pOut.
void ForwardRows(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch);

// InverseLine on every row. pIn may equal pOut.
void InverseRows(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch);

// ForwardLine down every column, kColumnBatch neighbouring columns per sweep.
// pIn and pOut must not overlap.
void ForwardColumns(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch);

// InverseLine down every column, batched like ForwardColumns. pIn and pOut must not overlap.
void InverseColumns(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch);

// Reference passes: gather one column, run the line transform, scatter it back.
// The batched passes give the same bits. pIn may equal pOut.
void ForwardColumnsPerColumn(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch);
void InverseColumnsPerColumn(const float* pIn, float* pOut, std::size_t w, std::size_t h, float* pScratch);

}  // namespace WaveletKernel
