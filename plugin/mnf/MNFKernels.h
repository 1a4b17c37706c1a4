#pragma once
// Dense kernels of the minimum noise fraction runs over row-major n×n arrays of doubles.

// Eigenpairs of the symmetric a by single Jacobi rotations on the largest off-diagonal element.
// a is left rotated (eigenvalues on its diagonal, residue below eps off it), v holds the
// eigenvectors as columns. 1 when the residue fell below eps, 0 when maxRotations ran out.
int JacobiEigen(double* a, int n, double* v, double eps, int maxRotations);

// Eigenvectors of a into v, largest eigenvalue first, each column's sum made non-negative; the
// rotated matrix with the sorted eigenvalues on its diagonal goes to `rotated` when it is given.
void SortedEigen(const double* a, int n, double* v, double* rotated, bool skipNormalise);

// Scales every column of v to unit length. Always true.
bool NormalizeColumns(double* v, int n);

// In-place inverse by Gauss–Jordan elimination with full pivoting. 0 when a pivot vanishes
// against 1.0 (a is then left part-way eliminated), 1 otherwise.
int InvertMatrix(double* a, int n);
