#pragma once
// What the masked Fourier and wavelet runs must transform: the scene with each band's fill
// replaced by the mean of its footprint pixels, worked out here from the fixture's own geometry
// in long double, and written as a Float32 copy for the unmasked run to take.
#include "AlgoHarness.h"
#include "MaskScene.h"
#include "TestSupport.h"
#include "frame/MaskRecords.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace tavtest {

struct MeanFilledCopy {
    std::string path;
    std::vector<long long> masked; // per band of the scene (an alpha band has none)
    std::vector<float> means;
};

inline MeanFilledCopy WriteMeanFilledCopy(const MaskScene& sc, const std::string& path)
{
    const RasterInfo info = Info(sc.path);
    MeanFilledCopy copy{path, {}, {}};
    std::vector<std::vector<double>> bands;
    for (int b = 1; b <= info.bands; ++b) {
        std::vector<double> v = ReadBand(sc.path, b);
        // The alpha band is the mask of the others, not masked itself.
        const bool data = b <= sc.bands && sc.fill != Fill::None;
        long double sum = 0;
        long long valid = 0;
        for (int y = 0; y < sc.height; ++y)
            for (int x = 0; x < sc.width; ++x)
                if (!data || sc.Valid(x, y)) {
                    sum += v[static_cast<size_t>(y) * sc.width + x];
                    ++valid;
                }
        const float mean = static_cast<float>(sum / valid);
        const long long masked = static_cast<long long>(v.size()) - valid;
        for (int y = 0; y < sc.height; ++y)
            for (int x = 0; x < sc.width; ++x)
                if (data && !sc.Valid(x, y))
                    v[static_cast<size_t>(y) * sc.width + x] = mean;
        copy.masked.push_back(masked);
        copy.means.push_back(mean);
        bands.push_back(std::move(v));
    }
    RasterShape shape = Shape(sc.width, sc.height, info.bands, GDT_Float32);
    WriteRaster(path, shape, [&](int b, int x, int y) { return bands[b][static_cast<size_t>(y) * sc.width + x]; });
    return copy;
}

inline bool SameFloatBits(double a, double b)
{
    const float fa = static_cast<float>(a), fb = static_cast<float>(b);
    return std::memcmp(&fa, &fb, sizeof fa) == 0;
}

// Both rasters' bands bit for bit, and neither declaring a no-data value.
inline void ExpectSameBandsWithoutNoData(const std::string& expected, const std::string& actual)
{
    const RasterInfo e = Info(expected), a = Info(actual);
    ASSERT_EQ(e.bands, a.bands);
    for (int b = 1; b <= a.bands; ++b) {
        EXPECT_FALSE(a.noData[b - 1].first) << "band " << b << " declares " << a.noData[b - 1].second;
        const auto x = ReadBand(expected, b), y = ReadBand(actual, b);
        long long differ = 0;
        for (size_t i = 0; i < x.size(); ++i)
            differ += !SameFloatBits(x[i], y[i]);
        EXPECT_EQ(differ, 0) << "band " << b;
    }
}

// What the run handed back: the scene bands `bands` (1-based) in order, each with its masked count
// and the mean as the copy has it; bands without masked pixels are not listed.
inline void ExpectFilled(const boost::any& params, const MeanFilledCopy& copy, const std::vector<int>& bands,
                         long long pixels)
{
    const auto* r = boost::any_cast<stMaskedTransInfo>(&params);
    ASSERT_NE(r, nullptr);
    std::vector<int> listed;
    for (int b : bands)
        if (copy.masked[b - 1] > 0)
            listed.push_back(b);
    ASSERT_EQ(r->vecFilled.size(), listed.size());
    for (size_t i = 0; i < listed.size(); ++i) {
        const stBandFill& f = r->vecFilled[i];
        EXPECT_EQ(f.nBand, listed[i]);
        EXPECT_EQ(f.nFilled, copy.masked[listed[i] - 1]) << "band " << listed[i];
        EXPECT_EQ(f.nPixels, pixels);
        EXPECT_EQ(static_cast<float>(f.dValue), copy.means[listed[i] - 1]) << "band " << listed[i];
    }
}

inline stMaskedTransInfo MaskedTrans(int type, const MaskScene& sc, const std::string& out)
{
    stMaskedTransInfo m;
    m.info = TransRecord(type, true, sc.path, out);
    m.mask = sc.mask;
    return m;
}

} // namespace tavtest
