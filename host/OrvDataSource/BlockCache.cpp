#include "OrvDataSource/BlockCache.h"

#include <cpl_conv.h>
#include <cpl_string.h>
#include <gdal_priv.h>

#include <algorithm>
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

// A VRT stacks other files; their blocks are the ones read. Zero when none of them opens.
long long SourcesRowBytes(GDALDataset* vrt, int depth)
{
    char** files = vrt->GetFileList();
    long long sum = 0;
    CPLPushErrorHandler(CPLQuietErrorHandler);
    // The first entry is the VRT itself.
    for (int i = 1; files && files[i]; ++i) {
        GDALDataset* src = GDALDataset::Open(files[i], GDAL_OF_RASTER | GDAL_OF_READONLY);
        if (!src)
            continue;
        sum += depth < 2 && EQUAL(src->GetDriverName(), "VRT") ? SourcesRowBytes(src, depth + 1) : 0;
        if (!EQUAL(src->GetDriverName(), "VRT"))
            for (int b = 1; b <= src->GetRasterCount(); ++b)
                sum += BandRowBytes(src->GetRasterBand(b));
        GDALClose(GDALDataset::ToHandle(src));
    }
    CPLPopErrorHandler();
    CSLDestroy(files);
    return sum;
}

void Apply()
{
    if (BlockCache::UserSet())
        return;
    GDALSetCacheMax64(std::min(BlockCache::kFloorBytes + BlockCache::Wanted(),
                               std::max(BlockCache::kFloorBytes, BlockCache::MaxBytes())));
}

} // namespace

long long BlockCache::RowOfBlocksBytes(GDALDataset* ds)
{
    if (!ds)
        return 0;
    if (ds->GetDriver() && EQUAL(ds->GetDriverName(), "VRT"))
        if (const long long sources = SourcesRowBytes(ds, 0); sources > 0)
            return sources;
    long long sum = 0;
    for (int b = 1; b <= ds->GetRasterCount(); ++b)
        sum += BandRowBytes(ds->GetRasterBand(b));
    return sum;
}

void BlockCache::Hold(const void* key, GDALDataset* ds, int rows)
{
    const long long bytes = RowOfBlocksBytes(ds) * std::max(rows, 1);
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
