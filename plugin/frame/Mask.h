#pragma once
// Which pixels of a run's bands are left out: the host's mask of each band, combined over the
// bands a run uses (a pixel is masked where any of them is), and the value written in their place.
#include "frame/MaskRecords.h"
#include "frame/RunSteps.h"

#include "OrvDataSource/RasterDataset.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

class RunMask {
public:
    // bands: the 1-based bands the run reads.
    RunMask(OrvDataSource::RasterDataset& in, const BandNumbers& bands, const stMaskInfo& info);
    // False when no pixel can be masked: the run is then the unmasked one, bit for bit.
    bool Active() const { return m_active; }
    // valid[p] for the window, row after row: 1 where every band is valid. The masked count.
    long long Read(int x, int y, int w, int h, uint8_t* valid) const;
    // The same, from the bands' samples of the window that the caller has read already (band
    // after band, `stride` samples apart, each band exactly as stored or widened without loss):
    // only masks that are no value of the band are read. Not counted.
    template <class T>
    void ReadWith(int x, int y, int w, int h, const T* samples, long long stride, uint8_t* valid) const;

private:
    OrvDataSource::RasterDataset& m_in;
    BandNumbers m_bands;
    std::vector<double> m_srcNoData; // per used band, empty when not given
    bool m_useMasks;
    bool m_active = false;
    std::vector<OrvDataSource::RasterBand::ValidityRule> m_rules;
};

template <class T>
bool InRangeOf(double v)
{
    return static_cast<double>(std::numeric_limits<T>::lowest()) <= v && v <= static_cast<double>(std::numeric_limits<T>::max());
}

template <class T>
void RunMask::ReadWith(int x, int y, int w, int h, const T* samples, long long stride, uint8_t* valid) const
{
    const long long count = static_cast<long long>(w) * h;
    std::fill(valid, valid + count, uint8_t{1});
    if (!m_active)
        return;
    std::vector<uint8_t> band;
    for (std::size_t j = 0; j < m_bands.size(); ++j) {
        const auto& rule = m_rules[j];
        if (rule.readMask) {
            band.resize(static_cast<std::size_t>(count));
            m_in.GetRasterBand(m_bands[j] - 1)->ReadValidity(x, y, w, h, band.data(),
                                                            m_srcNoData.empty() ? nullptr : &m_srcNoData[j], m_useMasks);
            for (long long i = 0; i < count; ++i)
                valid[i] &= band[i];
            continue;
        }
        const T* s = samples + static_cast<long long>(j) * stride;
        bool finiteOnly = false;
        if constexpr (std::is_floating_point_v<T>)
            finiteOnly = rule.nonFinite;
        if (finiteOnly && rule.hasValue && std::isnan(rule.value)) {
            // x − x is 0 for every finite x and NaN for NaN and ±∞: one compare that vectorises
            // covers both rules.
            for (long long i = 0; i < count; ++i)
                valid[i] &= static_cast<uint8_t>(s[i] - s[i] == T(0));
            continue;
        }
        if (rule.hasValue && std::isnan(rule.value)) {
            for (long long i = 0; i < count; ++i)
                valid[i] &= static_cast<uint8_t>(!std::isnan(static_cast<double>(s[i])));
        } else if (rule.hasValue && InRangeOf<T>(rule.value) && static_cast<double>(static_cast<T>(rule.value)) == rule.value) {
            // Compared in the samples' own type, which vectorises; a value the type cannot hold
            // matches no sample at all.
            const T v = static_cast<T>(rule.value);
            for (long long i = 0; i < count; ++i)
                valid[i] &= static_cast<uint8_t>(s[i] != v);
        }
        if (finiteOnly)
            for (long long i = 0; i < count; ++i)
                valid[i] &= static_cast<uint8_t>(s[i] - s[i] == T(0));
    }
}

// Writes `dst` to every value of the masked pixels of `out` (`m` values a pixel, pixel-major) and
// moves valid values that would read as `dst` one step off it, towards zero for floating-point
// types; how many pixels were masked.
template <class T>
long long FillMaskedPixels(T* out, long long pixels, int m, const uint8_t* valid, T dst)
{
    T aside;
    if constexpr (std::is_floating_point_v<T>)
        aside = std::nextafter(dst, T(0));
    else
        aside = dst == std::numeric_limits<T>::max() ? dst - 1 : dst + 1;
    long long filled = 0;
    for (long long p = 0; p < pixels; ++p) {
        T* px = out + p * m;
        if (!valid[p]) {
            ++filled;
            for (int k = 0; k < m; ++k)
                px[k] = dst;
        } else {
            for (int k = 0; k < m; ++k)
                px[k] = px[k] == dst ? aside : px[k];
        }
    }
    return filled;
}

// The value a masked pixel gets in an output of `pixelType`: the record's choice when it fits the
// type, else NaN for floating-point types and the type's lowest value for integers.
double OutputNoData(const stMaskInfo& info, int pixelType);

// Declares `dst` as the no-data value of bands 1..bands of `out`; with an item name, records the
// statistics text under it too.
void DeclareMaskedOutput(OrvDataSource::RasterDataset& out, int bands, double dst, const char* item = nullptr,
                         const QString& text = {});

// "statistics over 8,412,113 of 12,000,000 pixels"
QString StatisticsOverText(long long used, long long total);
