#include "Quicklook.h"

#include <gdal_priv.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace {

using Channel = std::vector<double>;

struct Closer {
    void operator()(GDALDataset* ds) const { GDALClose(ds); }
};
using DatasetPtr = std::unique_ptr<GDALDataset, Closer>;

// The band at preview size; GDAL picks an overview or samples every n-th pixel, so the
// whole raster is never read for a large scene.
bool ReadDecimated(GDALDataset& ds, int band, int width, int height, Channel& out)
{
    out.assign(static_cast<size_t>(width) * height, 0.0);
    GDALRasterBand* b = ds.GetRasterBand(band);
    if (b->RasterIO(GF_Read, 0, 0, ds.GetRasterXSize(), ds.GetRasterYSize(), out.data(), width, height,
                    GDT_Float64, 0, 0, nullptr) != CE_None)
        return false;
    int hasNoData = 0;
    const double noData = b->GetNoDataValue(&hasNoData);
    if (hasNoData)
        for (double& v : out)
            if (v == noData)
                v = NAN;
    return true;
}

// Linear 2-98 % stretch to 0..255; no-data and NaN pixels become 0.
std::vector<GByte> Stretch(const Channel& values)
{
    Channel finite;
    finite.reserve(values.size());
    for (double v : values)
        if (std::isfinite(v))
            finite.push_back(v);
    std::vector<GByte> out(values.size(), 0);
    if (finite.empty())
        return out;
    auto at = [&](double p) {
        auto k = finite.begin() + static_cast<std::ptrdiff_t>(p * static_cast<double>(finite.size() - 1));
        std::nth_element(finite.begin(), k, finite.end());
        return *k;
    };
    const double lo = at(0.02), hi = at(0.98);
    const double span = hi > lo ? hi - lo : 1.0;
    for (size_t i = 0; i < values.size(); ++i)
        if (std::isfinite(values[i]))
            out[i] = static_cast<GByte>(std::lround(255.0 * std::clamp((values[i] - lo) / span, 0.0, 1.0)));
    return out;
}

} // namespace

std::string WriteQuicklook(const std::string& raster, const std::string& png, bool spectrum)
{
    GDALAllRegister();
    DatasetPtr src(GDALDataset::FromHandle(GDALOpenEx(raster.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY,
                                                      nullptr, nullptr, nullptr)));
    if (!src || src->GetRasterCount() < 1)
        return "cannot open " + raster + " for the quicklook";
    const int w = src->GetRasterXSize(), h = src->GetRasterYSize();
    const double scale = std::min(1.0, static_cast<double>(kQuicklookSide) / std::max(w, h));
    const int qw = std::max(1, static_cast<int>(std::lround(w * scale)));
    const int qh = std::max(1, static_cast<int>(std::lround(h * scale)));

    spectrum = spectrum && src->GetRasterCount() >= 2;
    const int count = spectrum ? 2 : src->GetRasterCount() >= 3 ? 3 : 1;
    std::vector<Channel> channels(count);
    for (int b = 0; b < count; ++b)
        if (!ReadDecimated(*src, b + 1, qw, qh, channels[b]))
            return "cannot read " + raster + " for the quicklook";
    if (spectrum) {
        for (size_t i = 0; i < channels[0].size(); ++i)
            channels[0][i] = std::log1p(std::hypot(channels[0][i], channels[1][i]));
        channels.resize(1);
    }

    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDriver* pngDriver = GetGDALDriverManager()->GetDriverByName("PNG");
    if (!mem || !pngDriver)
        return "GDAL lacks the MEM or PNG driver";
    const int outBands = static_cast<int>(channels.size());
    DatasetPtr view(mem->Create("", qw, qh, outBands, GDT_Byte, nullptr));
    for (int b = 0; b < outBands; ++b) {
        std::vector<GByte> bytes = Stretch(channels[b]);
        if (view->GetRasterBand(b + 1)->RasterIO(GF_Write, 0, 0, qw, qh, bytes.data(), qw, qh, GDT_Byte, 0, 0,
                                                 nullptr) != CE_None)
            return "cannot build the quicklook";
    }
    DatasetPtr out(pngDriver->CreateCopy(png.c_str(), view.get(), FALSE, nullptr, nullptr, nullptr));
    if (!out)
        return "cannot write the quicklook " + png;
    return {};
}

std::string QuicklookProblem(const std::string& png, bool statsOnly)
{
    if (png.empty())
        return {};
    if (statsOnly)
        return "option -quicklook needs an OUTPUT to show; -stats-only writes none";
    std::string ext = png.size() > 4 ? png.substr(png.size() - 4) : std::string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext == ".png" ? std::string() : "option -quicklook takes a file name ending in .png";
}
