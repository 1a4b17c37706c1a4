#pragma once
#include <vector>

class GDALDataset;

namespace OrvDataSource {

// Where a raster's rows of blocks begin, in the raster's own rows: at offset + k × height for
// each entry (a VRT's bands may stack files of several resolutions and origins).
struct BlockRowEdges {
    struct Edge {
        long long offset;
        long long height;
    };
    std::vector<Edge> edges; // distinct; empty when the raster has no blocks to follow
    bool exact = true;       // false when a stacked file's blocks fall between the raster's rows
    long long bytes = 0;     // one row of blocks of every band, padded to whole blocks

    // The first row after `row` where a row of blocks of some band begins.
    long long After(long long row) const;
};

// GDAL's block cache, sized to the rasters open at once: kFloorBytes, all a striped scene read row
// by row needs and the room for what a run moves in one call, plus for each open raster one row
// of its blocks (tiles or strips) of every band. Reads and writes are cut where rows of blocks
// begin (RasterDataset), so a row of blocks is decoded, used up and dropped before the next one
// comes, and no block is decoded, or compressed, twice in a pass. A stack whose files' blocks do
// not fall on its own rows holds two rows instead. The whole is bounded by MaxBytes(). A user's
// GDAL_CACHEMAX wins over all of it.
class BlockCache {
public:
    static constexpr int kRowsHeld = 1;
    static constexpr long long kFloorBytes = 2LL * 1024 * 1024;
    static constexpr long long kCapBytes = 1024LL * 1024 * 1024;

    // Bytes one row of blocks of every band of `ds` takes in the cache, padded to whole blocks. A
    // VRT is counted by the blocks of the files it stacks, which are the ones GDAL caches.
    static long long RowOfBlocksBytes(GDALDataset* ds);
    // The same with where its rows of blocks begin.
    static BlockRowEdges RowsOfBlocks(GDALDataset* ds);

    // `key` holds the rows of blocks a raster needs (one, two where not exact) until Release(key);
    // the cache follows at once.
    static void Hold(const void* key, const BlockRowEdges& rows);
    static void Hold(const void* key, GDALDataset* ds) { Hold(key, RowsOfBlocks(ds)); }
    static void Release(const void* key);
    // What the open rasters ask for and what GDAL was given (its own figure when the user set one).
    static long long Wanted();
    static long long Given();
    // The bound: 1 GiB, or a quarter of the usable memory where that is less. Past it a scene's
    // row of blocks no longer fits and some blocks are decoded twice: slower, never wrong.
    static long long MaxBytes();
    // The cache at its floor. GDAL_NUM_THREADS is left to the user: decoding tiles on both cores
    // was measured slower on a busy two-core machine, and it changes which of GDAL's messages a
    // damaged file reports.
    static void ApplyDefaults();
    // True when GDAL_CACHEMAX came from the user (environment or config option).
    static bool UserSet();
};

// The rows of an output's blocks that every band has been written over are written to the file at
// once and leave the cache: each block is compressed once, whole, and finished output blocks never
// push the input's blocks out of the cache. Runs write each pixel once; should one be written
// twice, a block goes out early and is merely written again.
class FinishedBlocks {
public:
    // A window of `bands` bands was written; false when writing a finished row of blocks failed.
    bool Note(GDALDataset* ds, int x, int y, int w, int h, int bands);

private:
    bool Prepare(GDALDataset* ds);
    bool Flush(GDALDataset* ds, int blockRow) const;

    int m_blockW = 0, m_blockH = 0;
    std::vector<long long> m_written; // pixels written per row of blocks, all bands; -1 once flushed
    bool m_prepared = false, m_usable = false;
};

} // namespace OrvDataSource
