#pragma once

namespace OrvUtility {

// c = a × b for row-major a (m×n) and b (n×k); c (m×k) is overwritten and must not alias a or b.
void mult(double* a, double* b, double* c, int m, int n, int k);

} // namespace OrvUtility
