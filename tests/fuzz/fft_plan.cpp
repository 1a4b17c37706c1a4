// Lengths chosen by the fuzzer's bytes through the FFT kernel's factorisation and plans. Up to 64
// points a dimension the result is checked against a DFT summed in long double here, longer ones
// against the kernel's plain pass; a disagreement aborts so that libFuzzer keeps the input.
#include "fft/FftKernel.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace {

using Line = std::vector<long double>;

// X[k] = Σ_j x[j]·exp(sign·2πi·jk/n) along each dimension in turn, the first varying fastest.
void Dft(Line& re, Line& im, const std::vector<int>& dims, int sign)
{
    const long double pi = 3.141592653589793238462643383279502884L;
    long long span = 1;
    for (const long long n : dims) {
        Line r(n), i(n), c(n), s(n);
        for (long long t = 0; t < n; ++t)
            c[t] = std::cos(2 * pi * t / n), s[t] = sign * std::sin(2 * pi * t / n);
        // Every start of a line along this dimension: `span` consecutive ones, then a jump.
        for (long long base = 0; base < static_cast<long long>(re.size());
             base += base % span == span - 1 ? span * (n - 1) + 1 : 1) {
            for (long long k = 0; k < n; ++k) {
                r[k] = i[k] = 0;
                for (long long j = 0, t = 0; j < n; ++j, t = (t + k) % n) {
                    r[k] += re[base + j * span] * c[t] - im[base + j * span] * s[t];
                    i[k] += re[base + j * span] * s[t] + im[base + j * span] * c[t];
                }
            }
            for (long long k = 0; k < n; ++k)
                re[base + k * span] = r[k], im[base + k * span] = i[k];
        }
        span *= n;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 6)
        return 0;
    // Byte 0: bit 0 the exponent sign, bit 1 a second dimension, bits 2-3 the scaling, bit 4 a
    // single length given without a list. Bytes 1-4 the lengths, the rest the samples.
    const int sign = data[0] & 1 ? 1 : -1;
    const double scaling = std::vector<double>{0.0, 1.0, -1.0, -2.0}[(data[0] >> 2) & 3];
    std::vector<int> dims{1 + (data[1] | data[2] << 8) % 4096};
    if (data[0] & 2)
        dims = {1 + dims[0] % 64, 1 + (data[3] | data[4] << 8) % 64};
    const long long total = dims[0] * static_cast<long long>(dims.size() > 1 ? dims[1] : 1);

    // The factors, at most 11 below 4096, multiply back to the length.
    int kt = 0;
    const int count = FftFactorize(dims[0], &kt);
    if (count > 11)
        std::abort();
    long long product = 1, largest = 1;
    for (int i = 0; i < count; ++i)
        product *= FftFactorList()[i], largest = std::max<long long>(largest, FftFactorList()[i]);
    if (dims[0] > 1 && product != dims[0])
        std::abort();
    if (largest * dims[0] > (1 << 19)) // a general odd factor costs n·p: long primes only slow the search
        return 0;

    std::vector<float> re(total), im(total);
    for (long long k = 0; k < total; ++k) {
        re[k] = (data[5 + 2 * k % (size - 5)] - 127.5f) / 128;
        im[k] = (data[5 + (2 * k + 1) % (size - 5)] - 127.5f) / 128;
    }
    Line wr(re.begin(), re.end()), wi(im.begin(), im.end());
    FftWorkspace ws;
    const bool bare = (data[0] & 16) && dims.size() == 1;
    if (FftN(&ws, bare ? dims[0] : static_cast<long long>(dims.size()), bare ? nullptr : dims.data(), re.data(),
             im.data(), sign, scaling) != 0)
        std::abort();
    if (dims[0] <= 64) {
        Dft(wr, wi, dims, sign);
    } else { // one long dimension: the plain pass, in single precision too
        std::vector<float> pr(re.size()), pi(im.size());
        std::copy(wr.begin(), wr.end(), pr.begin()), std::copy(wi.begin(), wi.end(), pi.begin());
        if (FftRadixPlain(&ws, pr.data(), pi.data(), dims[0], dims[0], dims[0], sign, dims[0], dims[0]) != 0)
            std::abort();
        wr.assign(pr.begin(), pr.end()), wi.assign(pi.begin(), pi.end());
    }
    FftFreeWorkspace(&ws);
    // ‖got − want‖₂ within a single-precision bound growing with log2(n), relative to ‖want‖₂.
    const long double scale = scaling == -1.0 ? total : scaling == -2.0 ? std::sqrt(static_cast<long double>(total)) : 1;
    long double err = 0, norm = 0;
    for (long long k = 0; k < total; ++k) {
        err += std::pow(re[k] - wr[k] / scale, 2) + std::pow(im[k] - wi[k] / scale, 2);
        norm += std::pow(wr[k] / scale, 2) + std::pow(wi[k] / scale, 2);
    }
    if (std::sqrt(err) > 1e-6L * (std::log2(static_cast<long double>(total)) + 4) * std::sqrt(norm))
        std::abort();
    return 0;
}
