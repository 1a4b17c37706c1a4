#pragma once
// A band's masked pixels given the mean of its valid ones, for transforms that need a value at
// every pixel (a spectrum, a wavelet decomposition). Each band is filled by its own mask: its
// output depends on it alone, so a value another band lacks is still this band's data.
#include "frame/Mask.h"

#include <cstdint>
#include <memory>
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
    // the caller holds as Float32, rows `rowStride` floats apart. `masked` (w * rows flags, may be
    // null) receives 1 where a pixel is masked.
    void Survey(int x, int y, int w, int rows, const float* samples, long long rowStride, uint8_t* masked = nullptr);
    long long MaskedCount() const { return m_masked; }
    bool HasValidPixel() const { return m_valid > 0; }
    // The mean of the valid samples surveyed, in single precision as the transforms compute.
    float Value() const { return static_cast<float>(m_sum / static_cast<double>(m_valid)); }

    // Writes Value() at the masked pixels of rows the caller holds, finding them again.
    void Fill(int x, int y, int w, int rows, float* samples, long long rowStride);

private:
    // Flags (1 valid) of the rows into m_flags, w * rows of them.
    void ReadFlags(int x, int y, int w, int rows, const float* samples, long long rowStride);

    int m_band;
    RunMask m_mask;
    bool m_fromSamples = false; // Float32 holds the band's values exactly: value rules need no read
    std::vector<uint8_t> m_flags;
    double m_sum = 0;
    long long m_valid = 0;
    long long m_masked = 0;
};

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
