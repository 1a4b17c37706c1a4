#pragma once
// Scenes as Level-1 products look: a tilted rectangle of data inside a frame of fill, the fill
// marked in each of the ways GDAL knows (no-data value, mask band, alpha band, NaN) or not at all
// (the run is then told the fill values per band).
#include "TestSupport.h"
#include "frame/MaskRecords.h"

#include <gdal_priv.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

namespace tavtest {

enum class Fill { NoDataValue, MaskBand, AlphaBand, NaN, SrcNoDataPerBand, None };

inline const char* FillName(Fill f)
{
    switch (f) {
    case Fill::NoDataValue: return "NoDataValue";
    case Fill::MaskBand: return "MaskBand";
    case Fill::AlphaBand: return "AlphaBand";
    case Fill::NaN: return "NaN";
    case Fill::SrcNoDataPerBand: return "SrcNoDataPerBand";
    default: return "None";
    }
}

struct MaskScene {
    std::string path;
    int width, height, bands; // bands: data bands, an alpha band comes on top
    Fill fill;
    std::vector<unsigned char> valid; // row-major
    stMaskInfo mask;                  // what a run is told
    // Data values at valid pixels, whole numbers that every pixel type holds; only the fill
    // depends on the kind.
    double Value(int b, int x, int y) const { return 20 + 5 * b + ((x * (3 + b) + y * (7 - b) + x * y * (b + 1)) % 97); }
    bool Valid(int x, int y) const { return valid[static_cast<size_t>(y) * width + x] != 0; }
    long long ValidCount() const
    {
        long long n = 0;
        for (auto v : valid)
            n += v;
        return n;
    }
};

// A rectangle turned by about 14 degrees about the centre; a fifth to a third of the pixels fall outside.
inline bool InFootprint(int x, int y, int w, int h)
{
    const double cx = (w - 1) / 2.0, cy = (h - 1) / 2.0, c = std::cos(0.25), s = std::sin(0.25);
    const double u = (x - cx) * c + (y - cy) * s, v = -(x - cx) * s + (y - cy) * c;
    return std::abs(u) < 0.40 * w && std::abs(v) < 0.36 * h;
}

inline void Written(CPLErr e)
{
    if (e != CE_None)
        throw std::runtime_error("write failed");
}

// GDAL takes a last alpha band as the mask only of 2- and 4-band rasters: an AlphaBand scene has
// 3 data bands and the alpha as its fourth.
inline MaskScene MakeMaskScene(const std::string& path, Fill fill, int width = 37, int height = 29, int bands = 6)
{
    GDALAllRegister();
    if (fill == Fill::AlphaBand)
        bands = 3;
    MaskScene sc{path, width, height, bands, fill, {}, {}};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            sc.valid.push_back(fill == Fill::None || InFootprint(x, y, width, height));
    const GDALDataType type = fill == Fill::NaN ? GDT_Float32 : GDT_UInt16;
    const int total = bands + (fill == Fill::AlphaBand ? 1 : 0);
    GDALDataset* ds =
        GetGDALDriverManager()->GetDriverByName("GTiff")->Create(path.c_str(), width, height, total, type, nullptr);
    const double gt[6] = {500000, 30, 0, 9000000, 0, -30};
    ds->SetGeoTransform(const_cast<double*>(gt));
    std::vector<double> row(width);
    for (int b = 0; b < bands; ++b) {
        // The fill: 0 under a declared no-data value, NaN, a per-band value, or junk the mask hides.
        const double fillValue = fill == Fill::NoDataValue ? 0
                                 : fill == Fill::NaN       ? std::nan("")
                                 : fill == Fill::SrcNoDataPerBand ? 1000 + 11 * b
                                                                  : 9000 + b;
        if (fill == Fill::NoDataValue)
            ds->GetRasterBand(b + 1)->SetNoDataValue(0);
        if (fill == Fill::SrcNoDataPerBand)
            sc.mask.vecSrcNoData.push_back(fillValue);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x)
                row[x] = sc.Valid(x, y) ? sc.Value(b, x, y) : fillValue;
            Written(ds->GetRasterBand(b + 1)->RasterIO(GF_Write, 0, y, width, 1, row.data(), width, 1, GDT_Float64, 0, 0));
        }
    }
    std::vector<unsigned char> flags(sc.valid.size());
    for (size_t i = 0; i < flags.size(); ++i)
        flags[i] = sc.valid[i] ? 255 : 0;
    if (fill == Fill::AlphaBand) {
        GDALRasterBand* alpha = ds->GetRasterBand(total);
        alpha->SetColorInterpretation(GCI_AlphaBand);
        // A 16-bit alpha is opaque at 65535 (GDAL scales it down to the 8-bit mask).
        std::vector<double> a(flags.size());
        for (size_t i = 0; i < a.size(); ++i)
            a[i] = sc.valid[i] ? 65535 : 0;
        Written(alpha->RasterIO(GF_Write, 0, 0, width, height, a.data(), width, height, GDT_Float64, 0, 0));
    }
    if (fill == Fill::MaskBand) {
        ds->CreateMaskBand(GMF_PER_DATASET);
        Written(ds->GetRasterBand(1)->GetMaskBand()->RasterIO(GF_Write, 0, 0, width, height, flags.data(), width,
                                                              height, GDT_Byte, 0, 0));
    }
    GDALClose(ds);
    return sc;
}

} // namespace tavtest
