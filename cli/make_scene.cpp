// tav-make-scene: writes a synthetic multi-band scene (smooth fields, edges and noise per band),
// for the demo where the real sample is missing and for the benchmarks.
#include <gdal_priv.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    if (argc < 6) {
        std::fprintf(stderr, "Usage: tav-make-scene OUTPUT WIDTH HEIGHT BANDS TYPE [creation options...]\n");
        return 2;
    }
    const int w = std::atoi(argv[2]), h = std::atoi(argv[3]), bands = std::atoi(argv[4]);
    GDALAllRegister();
    const GDALDataType type = GDALGetDataTypeByName(argv[5]);
    if (w < 1 || h < 1 || bands < 1 || type == GDT_Unknown) {
        std::fprintf(stderr, "tav-make-scene: bad size, band count or type\n");
        return 2;
    }
    char** options = nullptr;
    for (int i = 6; i < argc; ++i)
        options = CSLAddString(options, argv[i]);
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("GTiff");
    GDALDataset* ds = driver->Create(argv[1], w, h, bands, type, options);
    CSLDestroy(options);
    if (!ds)
        return 1;
    double gt[6] = {280000.0, 28.5, 0.0, 9130000.0, 0.0, -28.5};
    ds->SetGeoTransform(gt);
    OGRSpatialReference srs;
    srs.importFromEPSG(31985);
    ds->SetSpatialRef(&srs);
    std::vector<float> row(static_cast<size_t>(w) * bands);
    unsigned seed = 12345;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const double field = 0.5 + 0.25 * std::sin(x * 0.013) * std::cos(y * 0.017) + (((x / 97) + (y / 61)) % 3) * 0.08;
            for (int b = 0; b < bands; ++b) {
                seed = seed * 1664525u + 1013904223u;
                const double noise = ((seed >> 9) & 0xFF) / 255.0 * 0.05;
                row[static_cast<size_t>(b) * w + x] = static_cast<float>(200.0 * (field * (0.6 + 0.1 * b) + noise));
            }
        }
        if (ds->RasterIO(GF_Write, 0, y, w, 1, row.data(), w, 1, GDT_Float32, bands, nullptr, 0, 0, 0, nullptr) != CE_None)
            return 1;
    }
    GDALClose(ds);
    return 0;
}
