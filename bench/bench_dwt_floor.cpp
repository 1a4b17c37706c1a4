// bench_dwt_floor: a band-by-band copy, for scale beside the wavelet runs' row-order floor
// (tav-io-floor). Reads every band of INPUT whole into a Float32 buffer (GDAL converts) and writes it
// as a Float32 band of a new GTiff, one band at a time, with no arithmetic. On pixel-interleaved
// files this order reads and rewrites every block once per band.
//   bench_dwt_floor INPUT OUTPUT [bands|rows]
// "rows" instead reads all bands row by row and writes them row by row.
#include "OrvDataSource/DatasetFactory.h"

#include <gdal_priv.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

bool CopyByBands(GDALDataset* in, GDALDataset* out, int w, int h, int n)
{
    std::vector<float> band(static_cast<size_t>(w) * h);
    for (int b = 1; b <= n; ++b) {
        if (in->GetRasterBand(b)->RasterIO(GF_Read, 0, 0, w, h, band.data(), w, h, GDT_Float32, 0, 0) != CE_None)
            return false;
        if (out->GetRasterBand(b)->RasterIO(GF_Write, 0, 0, w, h, band.data(), w, h, GDT_Float32, 0, 0) != CE_None)
            return false;
    }
    return true;
}

bool CopyByRows(GDALDataset* in, GDALDataset* out, int w, int h, int n)
{
    std::vector<float> row(static_cast<size_t>(w) * n);
    for (int y = 0; y < h; ++y) {
        if (in->RasterIO(GF_Read, 0, y, w, 1, row.data(), w, 1, GDT_Float32, n, nullptr, 0, 0, 0, nullptr) != CE_None)
            return false;
        if (out->RasterIO(GF_Write, 0, y, w, 1, row.data(), w, 1, GDT_Float32, n, nullptr, 0, 0, 0, nullptr) != CE_None)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3 || argc > 4) {
        std::fprintf(stderr, "Usage: bench_dwt_floor INPUT OUTPUT [bands|rows]\n");
        return 2;
    }
    const bool byRows = argc == 4 && std::strcmp(argv[3], "rows") == 0;
    GDALAllRegister();
    // The block cache the host libraries give GDAL, unless the user sets one.
    if (!CPLGetConfigOption("GDAL_CACHEMAX", nullptr))
        GDALSetCacheMax64(OrvDataSource::DatasetFactory::kBlockCacheBytes);
    GDALDataset* in = GDALDataset::Open(argv[1], GDAL_OF_RASTER | GDAL_OF_READONLY);
    if (!in)
        return 1;
    const int w = in->GetRasterXSize(), h = in->GetRasterYSize(), n = in->GetRasterCount();
    GDALDataset* out = GetGDALDriverManager()->GetDriverByName("GTiff")->Create(argv[2], w, h, n, GDT_Float32, nullptr);
    if (!out)
        return 1;
    double gt[6];
    if (in->GetGeoTransform(gt) == CE_None)
        out->SetGeoTransform(gt);
    if (const OGRSpatialReference* srs = in->GetSpatialRef())
        out->SetSpatialRef(srs);
    const bool ok = byRows ? CopyByRows(in, out, w, h, n) : CopyByBands(in, out, w, h, n);
    GDALClose(out);
    GDALClose(in);
    return ok ? 0 : 1;
}
