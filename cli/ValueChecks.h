#pragma once
#include <string>
#include <vector>

// Why the Fourier spectrum of these bands of `input` (1-based; empty for all) cannot be held in
// single precision: a NaN or infinite pixel, or values so large that the sums over a row or a
// column overflow; empty when it can. Only floating-point bands are read: integer pixels cannot
// come near the limit.
std::string SpectrumProblem(const std::string& input, const std::vector<int>& bands);
