#pragma once
// The one-level wavelet straight from its definition, in double with the exact taps: the
// independent reference of both wavelet suites.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <vector>

namespace wavelettest {

inline const double kSqrt3 = std::sqrt(3.0);
// The four-tap Daubechies pair with low-pass taps summing to one, exactly.
inline const std::array<double, 4> kLo = {(1 + kSqrt3) / 8, (3 + kSqrt3) / 8, (3 - kSqrt3) / 8, (1 - kSqrt3) / 8};
inline const std::array<double, 4> kHi = {(1 - kSqrt3) / 8, -(3 - kSqrt3) / 8, (3 + kSqrt3) / 8, -(1 + kSqrt3) / 8};

// Low-pass over the line and zeros, high-pass over e0, 0, the line and zeros; low-pass values
// from slot 0, high-pass from slot n/2 (overwriting the last low-pass value for odd n).
inline std::vector<double> ReferenceLine(const std::vector<double>& x)
{
    const std::size_t n = x.size();
    auto at = [&](std::size_t i) { return i < n ? x[i] : 0.0; };
    const double e0 = -(kLo[2] / kLo[0]) * at(0) - (kLo[3] / kLo[0]) * at(1);
    auto ext = [&](std::size_t i) { return i == 0 ? e0 : i == 1 ? 0.0 : at(i - 2); };
    std::vector<double> y(n);
    for (std::size_t k = 0; k < n; k += 2)
        y[k / 2] = kLo[0] * at(k) + kLo[1] * at(k + 1) + kLo[2] * at(k + 2) + kLo[3] * at(k + 3);
    for (std::size_t k = 0; k < n; k += 2)
        y[n / 2 + k / 2] = kHi[0] * ext(k) + kHi[1] * ext(k + 1) + kHi[2] * ext(k + 2) + kHi[3] * ext(k + 3);
    return y;
}

// Rows, then columns, each through ReferenceLine; w × h row-major.
template <class T>
std::vector<double> ReferenceImage(const std::vector<T>& in, std::size_t w, std::size_t h)
{
    std::vector<double> img(in.begin(), in.end());
    for (std::size_t r = 0; r < h; ++r) {
        const auto row = ReferenceLine(std::vector<double>(img.begin() + r * w, img.begin() + (r + 1) * w));
        std::copy(row.begin(), row.end(), img.begin() + r * w);
    }
    for (std::size_t c = 0; c < w; ++c) {
        std::vector<double> col(h);
        for (std::size_t r = 0; r < h; ++r)
            col[r] = img[r * w + c];
        col = ReferenceLine(col);
        for (std::size_t r = 0; r < h; ++r)
            img[r * w + c] = col[r];
    }
    return img;
}

} // namespace wavelettest
