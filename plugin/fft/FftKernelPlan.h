#pragma once
// Precomputed transforms for one length and exponent sign, cached in the workspace.

#include <cstddef>

struct FftPlan;
struct FftPlanCache;

// The plan for length n (n >= 2) and sign (+1 or -1), built on first use and kept in *cache.
// Null when memory runs out.
FftPlan* FftPlanGet(FftPlanCache*& cache, int n, int sign);

// In-place transform of re[0], re[stride], ... (n elements; same for im).
void FftPlanRun(FftPlan* plan, float* re, float* im, std::ptrdiff_t stride);

void FftPlanCacheFree(FftPlanCache* cache);
