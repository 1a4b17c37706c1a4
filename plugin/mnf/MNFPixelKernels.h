#pragma once
// Per-row kernels of the MNF runs. Rows hold `width` pixels of n values each (pixel-major), with
// kRowSlack writable samples after the last pixel. Every sum grows pixel after pixel in image
// order, so the register paths and the plain ones give the same bits.

constexpr int kRowSlack = 4;

// Noise of one centre row against its upper neighbour and its right (in the last column, left)
// neighbour, x − 0.5·(up + side) with the half-sum in single precision, added to the band sums
// and to the n×n cross-product sums.
void AccumulateNoiseRow(const float* up, const float* row, int n, int width, double* sums, double* cross);
// The same for `count` pixels whose side neighbours are given one for one in `side` (pixel p's at
// side + p·n): a stretch of a row, for runs that leave some pixels out.
void AccumulateNoiseRun(const float* up, const float* row, const float* side, int n, int count, double* sums,
                        double* cross);
// The row's values added to the band sums and the n×n cross-product sums.
void AccumulateDataRow(const float* row, int n, int width, double* sums, double* cross);

// y_k = Σ_b (x_b − before_b)·m(k,b) + after_k per pixel, in double; before or after may be null
// (nothing subtracted or added). A Float32 row may be its own output.
void AffineRow(const float* row, int n, int width, const double* m, const double* before, const double* after,
               float* out);
void AffineRow(const float* row, int n, int width, const double* m, const double* before, const double* after,
               double* out);
