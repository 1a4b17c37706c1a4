#pragma once

// The rotation step shared by the two Jacobi eigen solvers; each solver keeps its own stopping
// rule, budget, ordering and sign rule.

// Largest |a(i,j)|, i != j, of the n×n row-major matrix, scanned row by row: the running maximum
// starts at 0.0 and only a strictly greater magnitude replaces it, so the first wins among equals
// and NaN never does. p and q stay 0 when nothing exceeds 0.0.
double LargestOffDiagonal(const double* a, int n, int& p, int& q);

// One classical rotation that zeroes a(p,q) and a(q,p) and accumulates into columns p and q of v.
void JacobiRotate(double* a, double* v, int n, int p, int q);
