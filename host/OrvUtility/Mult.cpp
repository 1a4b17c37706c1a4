#include "OrvUtility/Mult.h"

namespace OrvUtility {

void mult(double* a, double* b, double* c, int m, int n, int k)
{
    for (int i = 0; i < m; ++i) {
        double* row = c + static_cast<long>(i) * k;
        for (int j = 0; j < k; ++j)
            row[j] = 0.0;
        for (int p = 0; p < n; ++p) {
            const double aip = a[static_cast<long>(i) * n + p];
            const double* brow = b + static_cast<long>(p) * k;
            for (int j = 0; j < k; ++j)
                row[j] += aip * brow[j];
        }
    }
}

} // namespace OrvUtility
