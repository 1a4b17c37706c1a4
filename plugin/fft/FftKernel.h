#pragma once
// Multi-dimensional mixed-radix FFT on split real/imaginary float arrays.
// Not reentrant: the factor list is one process-wide array.

#include <cstdint>

struct FftPlanCache;

// Scratch state of the kernel; one per worker, grown on demand, freed by FftFreeWorkspace.
struct FftWorkspace {
    int32_t spaceAllocated = 0;    // bytes in each of tmp0..tmp3
    int32_t maxPermAllocated = 0;  // entries in perm
    float* tmp0 = nullptr;
    float* tmp1 = nullptr;
    float* tmp2 = nullptr;
    float* tmp3 = nullptr;
    int32_t* perm = nullptr;
    FftPlanCache* plans = nullptr;  // precomputed twiddles and line buffers, keyed by length and sign
};

// In-place DFT along every dimension (first dimension fastest). sign(iSign) is the
// exponent sign, |iSign| the element stride. Returns 0, or -1 with the workspace freed.
//   ndim > 0, dims given:   the first ndim entries of dims are the lengths
//   ndim == 0, dims given:  dims is a 0-ended list of lengths
//   ndim > 0, no dims:      one dimension of length ndim
// scaling: 0 or 1 none; -1 (or in (-1,0)) divides by nTotal; below -1 by sqrt(nTotal);
// any other positive value divides by that value.
int FftN(FftWorkspace* ws, long long ndim, const int* dims, float* Re, float* Im, int iSign,
         double scaling);

// One pass along one dimension: nPass its length, nSpan the product of it and all earlier
// lengths, nTotal the whole array. Scratch is sized by maxFactors (largest odd factor
// allowed) and maxPerm (square-free permutation entries allowed).
int FftRadix(FftWorkspace* ws, float* Re, float* Im, int nTotal, int nPass, int nSpan, int iSign,
             int maxFactors, int maxPerm);

// Fills the factor list for n and returns the number of factors (which may exceed the
// 11 the list holds; only the first 11 are stored). *kt receives the number of square factors.
int FftFactorize(int n, int* kt);

// The factor list written by the last FftFactorize (11 entries).
const int* FftFactorList();

void FftFreeWorkspace(FftWorkspace* ws);

// Many lines of one length n, each transformed as FftN(ws, 1, {n}, line, line, iSign, scaling)
// would (|iSign| must be 1). FftLinesPrepare does the checks and writes the factor list once, on
// the caller's thread; FftLinesRun may then run on several threads at once, each with a workspace
// of its own, the lines at re + i * lineStep, i < count. Both return 0, or -1 with ws freed.
int FftLinesPrepare(FftWorkspace* ws, int n, int iSign);
int FftLinesRun(FftWorkspace* ws, int n, int iSign, double scaling, float* re, float* im,
                long long lineStep, int count);

// The same pass computed the plain way (no cached plan, no radix codelets); kept beside
// the fast path so the two can be checked against each other.
int FftRadixPlain(FftWorkspace* ws, float* Re, float* Im, int nTotal, int nPass, int nSpan,
                  int iSign, int maxFactors, int maxPerm);
