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

// A stack counts the blocks of the files it stacks, not the VRT's own 128 × 128, also where a
// band has half the resolution of the others.
TEST(BlockCache, VrtCountsTheBlocksOfItsSources)
{
    TempDir dir;
    DatasetFactory::Instance();
    const std::string a = Make(dir, "a.tif", 1, {"TILED=YES", "BLOCKXSIZE=512", "BLOCKYSIZE=512"});
    const std::string b = Make(dir, "b.tif", 1, {"TILED=YES", "BLOCKXSIZE=512", "BLOCKYSIZE=512"}, 500);
    const char* files[] = {a.c_str(), b.c_str(), nullptr};
    const char* args[] = {"-separate", "-resolution", "highest", nullptr};
    GDALBuildVRTOptions* options = GDALBuildVRTOptionsNew(const_cast<char**>(args), nullptr);
    GDALDatasetH vrt = GDALBuildVRT(dir.file("s.vrt").c_str(), 2, nullptr, files, options, nullptr);
    GDALBuildVRTOptionsFree(options);
    ASSERT_NE(vrt, nullptr);
    GDALClose(vrt);
    GDALDataset* ds = GDALDataset::Open(dir.file("s.vrt").c_str());
    EXPECT_EQ(BlockCache::RowOfBlocksBytes(ds), 2LL * 512 * 512 * 2 + 1LL * 512 * 512 * 2);
    GDALClose(ds);
}

// Open rasters raise the cache to 2 MiB plus two rows of their blocks, and it falls back when they
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
        EXPECT_EQ(GDALGetCacheMax64(), 2 * kMiB + 2 * row);
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
