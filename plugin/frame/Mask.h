#pragma once
// Which pixels of a run's bands are left out: the host's mask of each band, combined over the
// bands a run uses (a pixel is masked where any of them is), and the value written in their place.
#include "frame/MaskRecords.h"
#include "frame/RunSteps.h"

#include "OrvDataSource/RasterDataset.h"

#include <cstdint>
#include <vector>

class RunMask {
public:
    // bands: the 1-based bands the run reads.
    RunMask(OrvDataSource::RasterDataset& in, const BandNumbers& bands, const stMaskInfo& info);
    // False when no pixel can be masked: the run is then the unmasked one, bit for bit.
    bool Active() const { return m_active; }
    // valid[p] for the window, row after row: 1 where every band is valid. The masked count.
    long long Read(int x, int y, int w, int h, uint8_t* valid) const;

private:
    OrvDataSource::RasterDataset& m_in;
    BandNumbers m_bands;
    std::vector<double> m_srcNoData; // per used band, empty when not given
    bool m_useMasks;
    bool m_active = false;
};

// The value a masked pixel gets in an output of `pixelType`: the record's choice when it fits the
// type, else NaN for floating-point types and the type's lowest value for integers.
double OutputNoData(const stMaskInfo& info, int pixelType);

// Sets `value` at out[p * stride + k] for k < comps at each masked p; the masked count.
template <class T>
long long FillMasked(const uint8_t* valid, long long pixels, T* out, int comps, T value)
{
    long long masked = 0;
    for (long long p = 0; p < pixels; ++p)
        if (!valid[p]) {
            ++masked;
            for (int k = 0; k < comps; ++k)
                out[p * comps + k] = value;
        }
    return masked;
}

// "statistics over 8,412,113 of 12,000,000 pixels"
QString StatisticsOverText(long long used, long long total);
