// Lengths chosen by the fuzzer's bytes through the FFT kernel's factorisation and plans. Short
// transforms are checked against a DFT summed in long double here, longer ones against the plain
// pass; a disagreement aborts so that libFuzzer keeps the input.
#include "fft/FftKernel.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace {

using Line = std::vector<long double>;

// X[k] = Σ_j x[j]·exp(sign·2πi·jk/n) along every dimension, the first varying fastest.
void Dft(Line& re, Line& im, const std::vector<int>& dims, int sign)
{
    const long double pi = 3.141592653589793238462643383279502884L;
    long long span = 1;
    for (const int n : dims) {
        Line c(n), s(n), r(n), i(n);
        for (int t = 0; t < n; ++t) {
            c[t] = std::cos(2 * pi * t / n);
            s[t] = sign * std::sin(2 * pi * t / n);
        }
        const long long step = span * n;
        for (long long first = 0; first < static_cast<long long>(re.size()); first += step)
            for (long long base = first; base < first + span; ++base) {
                for (int k = 0; k < n; ++k) {
                    r[k] = i[k] = 0;
                    for (long long j = 0; j < n; ++j) {
                        const long long t = j * k % n, at = base + j * span;
                        r[k] += re[at] * c[t] - im[at] * s[t];
                        i[k] += re[at] * s[t] + im[at] * c[t];
                    }
                }
                for (int k = 0; k < n; ++k) {
                    re[base + k * span] = r[k];
                    im[base + k * span] = i[k];
                }
            }
        span = step;
    }
}

// ‖got − want‖₂ within a single-precision bound that grows with log2(n) of ‖want‖₂.
bool Agrees(const std::vector<float>& re, const std::vector<float>& im, const Line& wr, const Line& wi, long long n)
{
    long double err = 0, norm = 0;
    for (size_t k = 0; k < re.size(); ++k) {
        err += (re[k] - wr[k]) * (re[k] - wr[k]) + (im[k] - wi[k]) * (im[k] - wi[k]);
        norm += wr[k] * wr[k] + wi[k] * wi[k];
    }
    const long double bound = 1e-6L * (std::log2(static_cast<long double>(n)) + 4);
    return std::sqrt(err) <= bound * std::sqrt(norm);
}

int Read16(const uint8_t* d) { return d[0] | d[1] << 8; }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 6)
        return 0;
    // Byte 0: bit 0 the exponent sign, bit 1 a second dimension, bits 2-3 the scaling, bit 4 a
    // single length given without a list. Bytes 1-4 the lengths, the rest the samples.
    const int sign = data[0] & 1 ? 1 : -1;
    const double scalings[] = {0.0, 1.0, -1.0, -2.0};
    const double scaling = scalings[(data[0] >> 2) & 3];
    std::vector<int> dims{1 + Read16(data + 1) % 4096};
    if (data[0] & 2)
        dims = {1 + dims[0] % 64, 1 + Read16(data + 3) % 64};
    const long long total = dims.size() == 1 ? dims[0] : static_cast<long long>(dims[0]) * dims[1];

    // The factors multiply back to the length.
    int kt = 0;
    const int count = FftFactorize(dims[0], &kt);
    if (count > 11)
        std::abort(); // lengths up to 4096 have at most 11 factors
    long long product = 1, largest = 1;
    for (int i = 0; i < count; ++i) {
        product *= FftFactorList()[i];
        largest = std::max<long long>(largest, FftFactorList()[i]);
    }
    if (dims[0] > 1 && product != dims[0])
        std::abort();
    // A general odd factor costs n·p; long prime lengths would only slow the search down.
    if (largest * dims[0] > (1 << 19))
        return 0;

    std::vector<float> re(total), im(total);
    const uint8_t* samples = data + 5;
    const long long sampleBytes = static_cast<long long>(size) - 5;
    for (long long k = 0; k < total; ++k) {
        re[k] = (samples[2 * k % sampleBytes] - 127.5f) / 128;
        im[k] = (samples[(2 * k + 1) % sampleBytes] - 127.5f) / 128;
    }
    Line wr(re.begin(), re.end()), wi(im.begin(), im.end());
    FftWorkspace ws;
    const bool bare = (data[0] & 16) && dims.size() == 1;
    if (FftN(&ws, bare ? dims[0] : static_cast<long long>(dims.size()), bare ? nullptr : dims.data(), re.data(),
             im.data(), sign, scaling) != 0)
        std::abort();
    if (dims[0] <= 64) {
        Dft(wr, wi, dims, sign);
    } else {
        // The plain pass of the same kernel, in single precision too.
        std::vector<float> pr(wr.begin(), wr.end()), pi(wi.begin(), wi.end());
        if (FftRadixPlain(&ws, pr.data(), pi.data(), dims[0], dims[0], dims[0], sign, dims[0], dims[0]) != 0)
            std::abort();
        wr.assign(pr.begin(), pr.end());
        wi.assign(pi.begin(), pi.end());
    }
    const long double scale = scaling == -1.0 ? total : scaling == -2.0 ? std::sqrt(static_cast<long double>(total)) : 1;
    for (long long k = 0; k < total; ++k) {
        wr[k] /= scale;
        wi[k] /= scale;
    }
    FftFreeWorkspace(&ws);
    if (!Agrees(re, im, wr, wi, total))
        std::abort();
    return 0;
}
