#include "OrvDataSource/BlockCache.h"

#include <cpl_conv.h>
#include <cpl_string.h>
#include <gdal_priv.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <mutex>

namespace OrvDataSource {

namespace {

std::mutex& Lock()
{
    static std::mutex mutex;
    return mutex;
}

std::map<const void*, long long>& Held()
{
    static std::map<const void*, long long> held;
    return held;
}

long long BandRowBytes(GDALRasterBand* band)
{
    int bw = 0, bh = 0;
    band->GetBlockSize(&bw, &bh);
    if (bw < 1 || bh < 1)
        return 0;
    const long long across = (band->GetXSize() + bw - 1) / bw;
    return across * bw * bh * GDALGetDataTypeSizeBytes(band->GetRasterDataType());
}

void AddEdge(BlockRowEdges& rows, long long offset, long long height)
{
    height = std::max(1LL, height);
    offset %= height;
    if (offset < 0)
        offset += height;
    for (const auto& e : rows.edges)
        if (e.offset == offset && e.height == height)
            return;
    rows.edges.push_back({offset, height});
}

// The blocks of `ds`'s bands, whose rows are `scale` rows of the raster counted, its first row at
// row `shift` of it.
void AddBands(BlockRowEdges& rows, GDALDataset* ds, double scale, double shift)
{
    for (int b = 1; b <= ds->GetRasterCount(); ++b) {
        GDALRasterBand* band = ds->GetRasterBand(b);
        int bw = 0, bh = 0;
        band->GetBlockSize(&bw, &bh);
        if (bw < 1 || bh < 1)
            continue;
        rows.bytes += BandRowBytes(band);
        const double height = bh * scale;
        const long long h = std::llround(height), at = std::llround(shift);
        if (std::fabs(height - static_cast<double>(h)) > 1e-6 || std::fabs(shift - static_cast<double>(at)) > 1e-6 ||
            h < 1)
            rows.exact = false;
        AddEdge(rows, at, h);
    }
}

// A VRT stacks other files; their blocks are the ones read, placed on the VRT's rows by their
// geo-transforms (by their heights where there are none). Nothing when none of them opens.
void AddSources(BlockRowEdges& rows, GDALDataset* vrt, int depth)
{
    char** files = vrt->GetFileList();
    double vgt[6];
    const bool placed = vrt->GetGeoTransform(vgt) == CE_None && vgt[5] != 0;
    CPLPushErrorHandler(CPLQuietErrorHandler);
    // The first entry is the VRT itself.
    for (int i = 1; files && files[i]; ++i) {
        GDALDataset* src = GDALDataset::Open(files[i], GDAL_OF_RASTER | GDAL_OF_READONLY);
        if (!src)
            continue;
        if (EQUAL(src->GetDriverName(), "VRT")) {
            // A stack of stacks is counted, not followed.
            if (depth < 2) {
                AddSources(rows, src, depth + 1);
                rows.exact = false;
            }
        } else {
            double sgt[6];
            if (placed && src->GetGeoTransform(sgt) == CE_None)
                AddBands(rows, src, sgt[5] / vgt[5], (sgt[3] - vgt[3]) / vgt[5]);
            else
                AddBands(rows, src, static_cast<double>(vrt->GetRasterYSize()) / std::max(1, src->GetRasterYSize()), 0);
        }
        GDALClose(GDALDataset::ToHandle(src));
    }
    CPLPopErrorHandler();
    CSLDestroy(files);
}

void Apply()
{
    if (BlockCache::UserSet())
        return;
    GDALSetCacheMax64(std::min(BlockCache::kFloorBytes + BlockCache::Wanted(),
                               std::max(BlockCache::kFloorBytes, BlockCache::MaxBytes())));
}

} // namespace

long long BlockRowEdges::After(long long row) const
{
    long long next = std::numeric_limits<long long>::max();
    for (const auto& e : edges) {
        const long long d = row - e.offset;
        const long long k = d >= 0 ? d / e.height : -((-d + e.height - 1) / e.height);
        next = std::min(next, e.offset + (k + 1) * e.height);
    }
    return next;
}

BlockRowEdges BlockCache::RowsOfBlocks(GDALDataset* ds)
{
    BlockRowEdges rows;
    if (!ds)
        return rows;
    if (ds->GetDriver() && EQUAL(ds->GetDriverName(), "VRT")) {
        AddSources(rows, ds, 0);
        if (rows.bytes > 0)
            return rows;
        rows = {};
    }
    AddBands(rows, ds, 1, 0);
    return rows;
}

long long BlockCache::RowOfBlocksBytes(GDALDataset* ds) { return RowsOfBlocks(ds).bytes; }

void BlockCache::Hold(const void* key, const BlockRowEdges& rows)
{
    const long long bytes = rows.bytes * (rows.exact ? kRowsHeld : 2);
    {
        std::lock_guard<std::mutex> lock(Lock());
        Held()[key] = bytes;
    }
    Apply();
}

void BlockCache::Release(const void* key)
{
    {
        std::lock_guard<std::mutex> lock(Lock());
        if (!Held().erase(key))
            return;
    }
    Apply();
}

long long BlockCache::Wanted()
{
    std::lock_guard<std::mutex> lock(Lock());
    long long sum = 0;
    for (const auto& [key, bytes] : Held())
        sum += bytes;
    return sum;
}

long long BlockCache::Given() { return GDALGetCacheMax64(); }

long long BlockCache::MaxBytes()
{
    const long long ram = CPLGetUsablePhysicalRAM();
    return ram > 0 ? std::min(kCapBytes, ram / 4) : kCapBytes;
}

void BlockCache::ApplyDefaults() { Apply(); }

bool FinishedBlocks::Prepare(GDALDataset* ds)
{
    m_prepared = true;
    if (ds->GetRasterCount() < 1 || ds->GetAccess() != GA_Update)
        return false;
    ds->GetRasterBand(1)->GetBlockSize(&m_blockW, &m_blockH);
    for (int b = 2; b <= ds->GetRasterCount(); ++b) {
        int bw = 0, bh = 0;
        ds->GetRasterBand(b)->GetBlockSize(&bw, &bh);
        if (bw != m_blockW || bh != m_blockH)
            return false;
    }
    if (m_blockW < 1 || m_blockH < 1)
        return false;
    m_written.assign((ds->GetRasterYSize() + m_blockH - 1) / m_blockH, 0);
    return true;
}

bool FinishedBlocks::Flush(GDALDataset* ds, int blockRow) const
{
    const int across = (ds->GetRasterXSize() + m_blockW - 1) / m_blockW;
    bool ok = true;
    for (int b = 1; b <= ds->GetRasterCount(); ++b)
        for (int bx = 0; bx < across; ++bx)
            ok = ds->GetRasterBand(b)->FlushBlock(bx, blockRow, TRUE) == CE_None && ok;
    return ok;
}

bool FinishedBlocks::Note(GDALDataset* ds, int x, int y, int w, int h, int bands)
{
    (void)x;
    if (!m_prepared)
        m_usable = Prepare(ds);
    if (!m_usable || w < 1 || h < 1 || bands < 1)
        return true;
    const int height = ds->GetRasterYSize();
    const long long whole = static_cast<long long>(ds->GetRasterXSize()) * ds->GetRasterCount();
    bool ok = true;
    for (int r = std::max(0, y / m_blockH); r < static_cast<int>(m_written.size()) && r * m_blockH < y + h; ++r) {
        if (m_written[r] < 0)
            continue;
        const int top = r * m_blockH, bottom = std::min(height, top + m_blockH);
        const int rows = std::min(bottom, y + h) - std::max(top, y);
        m_written[r] += static_cast<long long>(rows) * w * bands;
        if (m_written[r] >= whole * (bottom - top)) {
            m_written[r] = -1;
            ok = Flush(ds, r) && ok;
        }
    }
    return ok;
}

bool BlockCache::UserSet() { return CPLGetConfigOption("GDAL_CACHEMAX", nullptr) != nullptr; }

} // namespace OrvDataSource
