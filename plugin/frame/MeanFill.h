#pragma once
// A band's masked pixels given the mean of its valid ones, for transforms that need a value at
// every pixel (a spectrum, a wavelet decomposition). Each band is filled by its own mask: its
// output depends on it alone, so a value another band lacks is still this band's data.
#include "frame/Mask.h"

#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

class BandMeanFill {
public:
    // bandNumber: the 1-based input band. One source value stands for every band, a list gives
    // one per input band.
    BandMeanFill(OrvDataSource::RasterDataset& in, int bandNumber, const stMaskInfo& info);
    int Band() const { return m_band; }
    // False when no pixel of the band can be masked: it is then transformed as it is.
    bool Active() const { return m_mask.Active(); }

    // Counts and sums the valid samples of rows y .. y + rows - 1 of columns x .. x + w - 1, which
    // the caller holds, rows `rowStride` samples apart: as Float32, or (`exact`) in a type that
    // holds every value of the band.
    template <class T>
    void Survey(int x, int y, int w, int rows, const T* samples, long long rowStride, bool exact);
    void Survey(int x, int y, int w, int rows, const float* samples, long long rowStride)
    {
        Survey(x, y, w, rows, samples, rowStride, m_floatExact);
    }
    // The last survey's flags, w * rows of them, row after row: 1 valid, 0 masked.
    const uint8_t* Flags() const { return m_flags.data(); }
    long long MaskedCount() const { return m_masked; }
    bool HasValidPixel() const { return m_valid > 0; }
    // The mean of the valid samples surveyed, in single precision as the transforms compute.
    float Value() const { return static_cast<float>(m_sum / static_cast<long double>(m_valid)); }

    // Writes Value() at the masked pixels of Float32 rows the caller holds, finding them again.
    void Fill(int x, int y, int w, int rows, float* samples, long long rowStride);

private:
    // Flags (1 valid) of the rows into m_flags, w * rows of them.
    template <class T>
    void ReadFlags(int x, int y, int w, int rows, const T* samples, long long rowStride, bool exact);

    int m_band;
    RunMask m_mask;
    bool m_floatExact = false; // Float32 holds the band's values exactly: value rules need no read
    std::vector<uint8_t> m_flags;
    long double m_sum = 0;
    long long m_valid = 0;
    long long m_masked = 0;
};

template <class T>
void BandMeanFill::ReadFlags(int x, int y, int w, int rows, const T* samples, long long rowStride, bool exact)
{
    m_flags.resize(static_cast<std::size_t>(w) * rows);
    if (!exact) {
        m_mask.Read(x, y, w, rows, m_flags.data());
        return;
    }
    if (rowStride == w) {
        m_mask.ReadWith(x, y, w, rows, samples, static_cast<long long>(w) * rows, m_flags.data());
        return;
    }
    for (int r = 0; r < rows; ++r)
        m_mask.ReadWith(x, y + r, w, 1, samples + r * rowStride, w, m_flags.data() + static_cast<long long>(r) * w);
}

template <class T>
void BandMeanFill::Survey(int x, int y, int w, int rows, const T* samples, long long rowStride, bool exact)
{
    ReadFlags(x, y, w, rows, samples, rowStride, exact);
    long long valid = 0;
    for (int r = 0; r < rows; ++r) {
        const T* s = samples + r * rowStride;
        const uint8_t* f = m_flags.data() + static_cast<long long>(r) * w;
        long long count = 0;
        if constexpr (std::is_integral_v<T>) {
            // Exact in 64 bits, and a product by the 0/1 flag vectorises where a select does not.
            long long sum = 0;
            for (int p = 0; p < w; ++p) {
                sum += static_cast<long long>(s[p]) * f[p];
                count += f[p];
            }
            m_sum += sum;
        } else {
            // A select, as a masked NaN times 0 is NaN; four partial sums that do not wait on each other.
            double part[4] = {0, 0, 0, 0};
            int p = 0;
            for (; p + 4 <= w; p += 4)
                for (int k = 0; k < 4; ++k)
                    part[k] += f[p + k] ? static_cast<double>(s[p + k]) : 0.0;
            for (; p < w; ++p)
                part[0] += f[p] ? static_cast<double>(s[p]) : 0.0;
            for (p = 0; p < w; ++p)
                count += f[p];
            m_sum += (part[0] + part[1]) + (part[2] + part[3]);
        }
        valid += count;
    }
    m_valid += valid;
    m_masked += static_cast<long long>(w) * rows - valid;
}

// The per-band mask information RunMask expects for one band of a list.
stMaskInfo MaskInfoOfBand(const stMaskInfo& info, int bandNumber);
// One fill per band of `bands` (1-based), in that order.
std::vector<std::unique_ptr<BandMeanFill>> MeanFills(OrvDataSource::RasterDataset& in, const std::vector<int>& bands,
                                                     const stMaskInfo& info);
// A list of source values that leaves a transformed band without one, said in `context`; or empty.
QString MeanFillProblem(const stMaskInfo& info, const std::vector<int>& bands, const char* context);
// Appends what `fill` did to `filled` when it filled anything; false when the band has no valid pixel.
bool NoteFilled(const BandMeanFill& fill, long long pixels, std::vector<stBandFill>& filled);
// The failure of a band without a valid pixel, in `context`.
QString AllMaskedText(int bandNumber, const char* context);
