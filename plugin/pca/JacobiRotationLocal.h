#pragma once
// Stand-in until the shared rotation step is on this branch.
double LargestOffDiagonal(const double* a, int n, int& p, int& q);
void JacobiRotate(double* a, double* v, int n, int p, int q);
