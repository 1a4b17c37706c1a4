#include "ValueChecks.h"

#include <gdal_priv.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <memory>

namespace {

std::string Number(double v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3g", v);
    return text;
}

} // namespace

std::string SpectrumProblem(const std::string& input, const std::vector<int>& bands)
{
    GDALAllRegister();
    std::unique_ptr<GDALDataset> ds(
        GDALDataset::FromHandle(GDALOpenEx(input.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr)));
    if (!ds)
        return {};
    const int w = ds->GetRasterXSize(), h = ds->GetRasterYSize();
    std::vector<int> chosen = bands;
    if (chosen.empty())
        for (int b = 1; b <= ds->GetRasterCount(); ++b)
            chosen.push_back(b);
    // A row's sum reaches W times its largest value before the division, a column's H times.
    const double limit = FLT_MAX / (2.0 * std::max(w, h));
    std::vector<double> row(static_cast<size_t>(w));
    for (int b : chosen) {
        GDALRasterBand* band = b >= 1 && b <= ds->GetRasterCount() ? ds->GetRasterBand(b) : nullptr;
        if (!band || !GDALDataTypeIsFloating(band->GetRasterDataType()))
            continue;
        for (int y = 0; y < h; ++y) {
            if (band->RasterIO(GF_Read, 0, y, w, 1, row.data(), w, 1, GDT_Float64, 0, 0, nullptr) != CE_None)
                return {}; // the run reports what cannot be read
            for (double v : row) {
                if (!std::isfinite(v))
                    return "INPUT band " + std::to_string(b) + " holds NaN or infinite values; its whole spectrum "
                           "would be NaN";
                if (std::fabs(v) > limit)
                    return "INPUT band " + std::to_string(b) + " holds values up to " + Number(std::fabs(v)) +
                           "; the single-precision spectrum of a " + std::to_string(w) + " x " + std::to_string(h) +
                           " image overflows beyond about " + Number(limit);
            }
        }
    }
    return {};
}
