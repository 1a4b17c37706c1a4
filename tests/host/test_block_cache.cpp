// The block cache follows the blocks of the open rasters; the user's GDAL_CACHEMAX wins.
#include "OrvDataSource/BlockCache.h"
#include "OrvDataSource/DatasetFactory.h"
#include "TestSupport.h"

#include <cpl_conv.h>
#include <gdal_utils.h>
#include <gtest/gtest.h>

using OrvDataSource::BlockCache;
using OrvDataSource::DatasetFactory;
using tavtest::TempDir;

namespace {

constexpr long long kMiB = 1024 * 1024;

// A raster of `bands` UInt16 bands, 1000 × 600 (or `width` wide over the same ground), created
// with `options`.
std::string Make(const TempDir& dir, const std::string& name, int bands, std::vector<const char*> options,
                 int width = 1000)
{
    DatasetFactory::Instance(); // registers the drivers
    options.push_back(nullptr);
    const std::string path = dir.file(name);
    GDALDataset* ds = GetGDALDriverManager()->GetDriverByName("GTiff")->Create(
        path.c_str(), width, 600 * width / 1000, bands, GDT_UInt16, const_cast<char**>(options.data()));
    double gt[6] = {500000, 1000.0 / width * 10, 0, 9000000, 0, -1000.0 / width * 10};
    ds->SetGeoTransform(gt);
    GDALClose(ds);
    return path;
}

struct RowCase {
    const char* what;
    int bands;
    std::vector<const char*> options;
    long long bytes; // one row of blocks of every band, by hand
};

class RowOfBlocks : public ::testing::TestWithParam<RowCase> {};

// Blocks padded to whole tiles: 1000 columns take four 256-wide tiles.
TEST_P(RowOfBlocks, IsCountedByHand)
{
    TempDir dir;
    DatasetFactory::Instance();
    GDALDataset* ds = GDALDataset::Open(Make(dir, "r.tif", GetParam().bands, GetParam().options).c_str());
    EXPECT_EQ(BlockCache::RowOfBlocksBytes(ds), GetParam().bytes);
    GDALClose(ds);
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, RowOfBlocks,
    ::testing::Values(RowCase{"tiled", 3, {"TILED=YES"}, 3LL * 4 * 256 * 256 * 2},
                      RowCase{"tiled512", 2, {"TILED=YES", "BLOCKXSIZE=512", "BLOCKYSIZE=512"}, 2LL * 2 * 512 * 512 * 2},
                      RowCase{"strips", 2, {"BLOCKYSIZE=16", "INTERLEAVE=BAND"}, 2LL * 1000 * 16 * 2}),
    [](const auto& info) { return std::string(info.param.what); });

std::string Stack(const TempDir& dir, const std::vector<std::string>& paths)
{
    std::vector<const char*> files;
    for (const auto& p : paths)
        files.push_back(p.c_str());
    const char* args[] = {"-separate", "-resolution", "highest", nullptr};
    GDALBuildVRTOptions* options = GDALBuildVRTOptionsNew(const_cast<char**>(args), nullptr);
    GDALDatasetH vrt = GDALBuildVRT(dir.file("s.vrt").c_str(), static_cast<int>(files.size()), nullptr, files.data(),
                                    options, nullptr);
    GDALBuildVRTOptionsFree(options);
    if (vrt)
        GDALClose(vrt);
    return dir.file("s.vrt");
}

struct StackCase {
    const char* what;
    int width2;                     // the second file's width over the same ground (first: 1000)
    long long bytes;                // one row of blocks of every band, by hand
    bool exact;                     // its blocks fall on the stack's rows
    std::vector<long long> heights; // the stack's rows between rows of blocks, per distinct band
    std::vector<std::pair<long long, long long>> after; // row, the next row where blocks begin
};

class StackRows : public ::testing::TestWithParam<StackCase> {};

// A stack counts the blocks of the files it stacks, not the VRT's own 128 × 128, placed on its
// rows by their resolution: half the resolution is 1024 of the stack's rows per 512-row tile; a
// resolution of 0.7 puts tile edges between rows, and such a stack holds two rows.
TEST_P(StackRows, FollowTheFilesStacked)
{
    const StackCase& c = GetParam();
    TempDir dir;
    DatasetFactory::Instance();
    const std::string a = Make(dir, "a.tif", 1, {"TILED=YES", "BLOCKXSIZE=512", "BLOCKYSIZE=512"});
    const std::string b = Make(dir, "b.tif", 1, {"TILED=YES", "BLOCKXSIZE=512", "BLOCKYSIZE=512"}, c.width2);
    GDALDataset* ds = GDALDataset::Open(Stack(dir, {a, b}).c_str());
    ASSERT_NE(ds, nullptr);
    const auto rows = BlockCache::RowsOfBlocks(ds);
    EXPECT_EQ(rows.bytes, c.bytes);
    EXPECT_EQ(rows.exact, c.exact);
    std::vector<long long> heights;
    for (const auto& e : rows.edges)
        heights.push_back(e.height);
    EXPECT_EQ(heights, c.heights);
    for (const auto& [row, next] : c.after)
        EXPECT_EQ(rows.After(row), next) << "after row " << row;
    if (!BlockCache::UserSet()) {
        BlockCache::Hold(ds, rows);
        EXPECT_EQ(GDALGetCacheMax64(), 2 * kMiB + (c.exact ? 1 : 2) * c.bytes);
        BlockCache::Release(ds);
    }
    GDALClose(ds);
}

INSTANTIATE_TEST_SUITE_P(
    Resolutions, StackRows,
    ::testing::Values(StackCase{"same", 1000, 2LL * 2 * 512 * 512 * 2, true, {512}, {{0, 512}, {511, 512}, {512, 1024}}},
                      StackCase{"half", 500, 2LL * 512 * 512 * 2 + 1LL * 512 * 512 * 2, true, {512, 1024},
                                {{0, 512}, {512, 1024}, {1023, 1024}}},
                      // 700 columns over the ground of 1000: a 512-row tile is 731.4 of the stack's rows
                      StackCase{"coarser", 700, 2LL * 2 * 512 * 512 * 2, false, {512, 731},
                                {{0, 512}, {512, 731}, {731, 1024}}}),
    [](const auto& info) { return std::string(info.param.what); });

// Open rasters raise the cache to 2 MiB plus one row of their blocks, and it falls back when they
// close; a GDAL_CACHEMAX of the user's is never touched.
TEST(BlockCache, FollowsTheOpenRastersUnlessTheUserSetIt)
{
    if (BlockCache::UserSet())
        GTEST_SKIP() << "GDAL_CACHEMAX is set";
    TempDir dir;
    const std::string path = Make(dir, "t.tif", 4, {"TILED=YES", "BLOCKXSIZE=512", "BLOCKYSIZE=512"});
    const long long row = 4LL * 2 * 512 * 512 * 2;
    {
        auto ds = DatasetFactory::Instance()->OpenRasterDataset(QString::fromStdString(path), OrvDataSource::OM_Read);
        ASSERT_TRUE(ds);
        EXPECT_EQ(GDALGetCacheMax64(), 2 * kMiB + row);
    }
    EXPECT_EQ(GDALGetCacheMax64(), 2 * kMiB);
    CPLSetConfigOption("GDAL_CACHEMAX", "64");
    GDALSetCacheMax64(64 * kMiB);
    {
        auto ds = DatasetFactory::Instance()->OpenRasterDataset(QString::fromStdString(path), OrvDataSource::OM_Read);
        EXPECT_EQ(GDALGetCacheMax64(), 64 * kMiB);
    }
    EXPECT_EQ(GDALGetCacheMax64(), 64 * kMiB);
    CPLSetConfigOption("GDAL_CACHEMAX", nullptr);
    BlockCache::ApplyDefaults();
    EXPECT_EQ(GDALGetCacheMax64(), 2 * kMiB);
}

// Past the bound the cache stops growing.
TEST(BlockCache, StopsAtItsBound)
{
    EXPECT_LE(BlockCache::MaxBytes(), BlockCache::kCapBytes);
    EXPECT_GE(BlockCache::MaxBytes(), 64 * kMiB);
}

} // namespace
