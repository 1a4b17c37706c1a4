// tav-io-floor: the I/O floor of a whole-raster transform. Reads every band of INPUT and writes
// OUTBANDS Float32 bands of the same size through GDAL, with no arithmetic.
//   tav-io-floor INPUT OUTPUT OUTBANDS [rows|bands] [-passes N] [-inbands K] [-co NAME=VALUE]...
// "rows" (the default) moves all bands a row of the input's blocks at a time; "bands" moves each band whole, one after
// another, for scale: on pixel-interleaved files that order reads and rewrites every block per band.
// -passes N reads the input N - 1 times before the copy, as a run with statistics passes does;
// -inbands K reads only bands 1..K (a run on chosen bands); -co creates the output with those
// options, as tavtransform's -co does.
//   tav-io-floor -rowbytes INPUT
// prints the bytes of cache one row of INPUT's blocks takes (twice that where its blocks fall
// between its rows), for the memory target.
#include "OrvDataSource/BlockCache.h"

#include <cpl_string.h>
#include <gdal_priv.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// Windows of whole rows of the input's blocks (small strips taken together up to about 1 MiB), as
// the host's reads are cut, so that the floor decodes each block once as the runs do.
class Windows {
public:
    Windows(GDALDataset* in, int w, int h, int nin)
        : m_edges(OrvDataSource::BlockCache::RowsOfBlocks(in)), m_h(h),
          m_rowBytes(static_cast<long long>(w) * nin * sizeof(float))
    {
    }
    // Rows of the window that starts at y.
    int From(int y) const
    {
        long long end = y;
        do
            end = m_edges.edges.empty() ? y + 1 : std::min<long long>(m_edges.After(end), m_h);
        while (end < m_h && (end - y) * m_rowBytes < (1 << 20));
        return static_cast<int>(std::max<long long>(end - y, 1));
    }
    int MaxRows() const
    {
        int most = 1;
        for (int y = 0; y < m_h; y += From(y))
            most = std::max(most, From(y));
        return most;
    }

private:
    OrvDataSource::BlockRowEdges m_edges;
    int m_h;
    long long m_rowBytes;
};

// Reads windows of all `nin` bands, band after band in the buffer, and hands each to `use`.
template <class Use>
bool EachWindow(GDALDataset* in, int w, int h, int nin, Use&& use)
{
    const Windows windows(in, w, h, nin);
    std::vector<float> rows(static_cast<size_t>(w) * nin * windows.MaxRows());
    for (int y = 0, n = 0; y < h; y += n) {
        n = windows.From(y);
        if (in->RasterIO(GF_Read, 0, y, w, n, rows.data(), w, n, GDT_Float32, nin, nullptr, 0, 0, 0, nullptr) != CE_None ||
            !use(y, n, rows.data()))
            return false;
    }
    return true;
}

bool CopyByRows(GDALDataset* in, GDALDataset* out, int w, int h, int nin, int nout)
{
    return EachWindow(in, w, h, nin, [&](int y, int n, float* rows) {
        for (int b = 0; b < nout; ++b)
            if (out->GetRasterBand(b + 1)->RasterIO(GF_Write, 0, y, w, n, rows + static_cast<size_t>(b % nin) * w * n, w, n,
                                                    GDT_Float32, 0, 0, nullptr) != CE_None)
                return false;
        return true;
    });
}

bool CopyByBands(GDALDataset* in, GDALDataset* out, int w, int h, int nin, int nout)
{
    std::vector<float> band(static_cast<size_t>(w) * h);
    for (int b = 0; b < nout; ++b) {
        if (in->GetRasterBand(b % nin + 1)->RasterIO(GF_Read, 0, 0, w, h, band.data(), w, h, GDT_Float32, 0, 0) != CE_None ||
            out->GetRasterBand(b + 1)->RasterIO(GF_Write, 0, 0, w, h, band.data(), w, h, GDT_Float32, 0, 0) != CE_None)
            return false;
    }
    return true;
}

bool ReadByRows(GDALDataset* in, int w, int h, int nin)
{
    return EachWindow(in, w, h, nin, [](int, int, float*) { return true; });
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "-rowbytes") == 0) {
        GDALAllRegister();
        GDALDataset* ds = GDALDataset::Open(argv[2], GDAL_OF_RASTER | GDAL_OF_READONLY);
        if (!ds)
            return 1;
        const auto rows = OrvDataSource::BlockCache::RowsOfBlocks(ds);
        std::printf("%lld\n", rows.bytes * (rows.exact ? 1 : 2));
        GDALClose(ds);
        return 0;
    }
    if (argc < 4) {
        std::fprintf(stderr, "Usage: tav-io-floor INPUT OUTPUT OUTBANDS [rows|bands] [-passes N] [-inbands K] [-co NAME=VALUE]...\n");
        return 2;
    }
    bool byBands = false;
    int passes = 1, inBands = 0;
    CPLStringList options;
    for (int i = 4; i < argc; ++i) {
        if (std::strcmp(argv[i], "bands") == 0)
            byBands = true;
        else if (std::strcmp(argv[i], "-passes") == 0 && i + 1 < argc)
            passes = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "-inbands") == 0 && i + 1 < argc)
            inBands = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "-co") == 0 && i + 1 < argc)
            options.AddString(argv[++i]);
    }
    GDALAllRegister();
    // The same block cache and decoding threads the host libraries use, so the comparison is of
    // the work, not the cache.
    using OrvDataSource::BlockCache;
    BlockCache::ApplyDefaults();
    GDALDataset* in = GDALDataset::Open(argv[1], GDAL_OF_RASTER | GDAL_OF_READONLY);
    if (!in)
        return 1;
    const int w = in->GetRasterXSize(), h = in->GetRasterYSize(), nin = inBands > 0 && inBands < in->GetRasterCount() ? inBands : in->GetRasterCount();
    const int nout = std::atoi(argv[3]);
    GDALDataset* out = GetGDALDriverManager()->GetDriverByName("GTiff")->Create(argv[2], w, h, nout, GDT_Float32, options.List());
    if (!out)
        return 1;
    BlockCache::Hold(in, in);
    BlockCache::Hold(out, out);
    double gt[6];
    if (in->GetGeoTransform(gt) == CE_None)
        out->SetGeoTransform(gt);
    if (const OGRSpatialReference* srs = in->GetSpatialRef())
        out->SetSpatialRef(srs);
    bool ok = true;
    for (int p = 1; p < passes && ok; ++p)
        ok = ReadByRows(in, w, h, nin);
    ok = ok && (byBands ? CopyByBands(in, out, w, h, nin, nout) : CopyByRows(in, out, w, h, nin, nout));
    GDALClose(out);
    GDALClose(in);
    return ok ? 0 : 1;
}
