#pragma once
#include <Eigen/Dense>
#include <vector>

// Classical Jacobi on an n×n row-major symmetric matrix: overwrites `a` (its diagonal ends as the
// eigenvalues) and leaves the eigenvectors in the columns of `v`. Stops when the largest
// off-diagonal magnitude falls below `tolerance`; there is no rotation budget.
bool PcaJacobi(double* a, int n, double* v, double tolerance);

// Eigenpairs of a symmetric matrix, eigenvalues descending, each eigenvector with its
// largest-magnitude element positive. Equal eigenvalues are kept once, so fewer than n positions
// may be filled (the count comes back in `filled`); the rest stay zero.
struct PcaEigenResult {
    std::vector<double> values;
    Eigen::MatrixXd vectors; // column k belongs to values[k]
    std::vector<double> contribution;
    std::vector<double> cumulative;
    int filled = 0;
};
bool PcaDecompose(const double* matrix, int n, double tolerance, PcaEigenResult& out);
