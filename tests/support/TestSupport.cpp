#include "TestSupport.h"

#include <cpl_conv.h>
#include <ogr_spatialref.h>

#include <cmath>
#include <fstream>
#include <random>
#include <stdexcept>
#include <system_error>

namespace tavtest {

const double kTestGeoTransform[6] = {500000.0, 30.0, 0.0, 9100000.0, 0.0, -30.0};

TempDir::TempDir()
{
    static std::mt19937_64 rng(std::random_device{}());
    const auto base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100; ++attempt) {
        auto candidate = base / ("tavtest-" + std::to_string(rng()));
        if (std::filesystem::create_directory(candidate)) {
            m_path = candidate;
            return;
        }
    }
    throw std::runtime_error("cannot make a temporary folder");
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::permissions(m_path, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(m_path, ec);
}

void WriteRaster(const std::string& path, const RasterShape& shape, const PixelFn& fn)
{
    GDALAllRegister();
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(shape.driver.c_str());
    if (!driver)
        throw std::runtime_error("no driver " + shape.driver);
    GDALDataset* ds = driver->Create(path.c_str(), shape.width, shape.height, shape.bands, shape.type, nullptr);
    if (!ds)
        throw std::runtime_error("cannot create " + path);
    if (shape.geo) {
        double gt[6];
        std::copy(kTestGeoTransform, kTestGeoTransform + 6, gt);
        ds->SetGeoTransform(gt);
        OGRSpatialReference srs;
        srs.importFromEPSG(31985);
        ds->SetSpatialRef(&srs);
    }
    std::vector<double> row(shape.width);
    for (int b = 0; b < shape.bands; ++b) {
        GDALRasterBand* band = ds->GetRasterBand(b + 1);
        if (b < static_cast<int>(shape.noData.size()))
            band->SetNoDataValue(shape.noData[b]);
        for (int y = 0; y < shape.height; ++y) {
            for (int x = 0; x < shape.width; ++x)
                row[x] = fn(b, x, y);
            if (band->RasterIO(GF_Write, 0, y, shape.width, 1, row.data(), shape.width, 1, GDT_Float64, 0, 0) != CE_None)
                throw std::runtime_error("write failed");
        }
    }
    GDALClose(ds);
}

std::vector<double> ReadBand(const std::string& path, int band)
{
    GDALAllRegister();
    GDALDataset* ds = GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY);
    if (!ds)
        throw std::runtime_error("cannot open " + path);
    const int w = ds->GetRasterXSize(), h = ds->GetRasterYSize();
    std::vector<double> v(static_cast<size_t>(w) * h);
    const CPLErr err = ds->GetRasterBand(band)->RasterIO(GF_Read, 0, 0, w, h, v.data(), w, h, GDT_Float64, 0, 0);
    GDALClose(ds);
    if (err != CE_None)
        throw std::runtime_error("read failed " + path);
    return v;
}

RasterInfo Info(const std::string& path)
{
    GDALAllRegister();
    RasterInfo info;
    GDALDataset* ds = GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY);
    if (!ds)
        throw std::runtime_error("cannot open " + path);
    info.width = ds->GetRasterXSize();
    info.height = ds->GetRasterYSize();
    info.bands = ds->GetRasterCount();
    info.type = info.bands ? ds->GetRasterBand(1)->GetRasterDataType() : GDT_Unknown;
    ds->GetGeoTransform(info.gt);
    if (const OGRSpatialReference* srs = ds->GetSpatialRef()) {
        char* wkt = nullptr;
        srs->exportToWkt(&wkt);
        info.wkt = wkt ? wkt : "";
        CPLFree(wkt);
    }
    for (int b = 1; b <= info.bands; ++b) {
        GDALRasterBand* band = ds->GetRasterBand(b);
        info.descriptions.emplace_back(band->GetDescription());
        int has = 0;
        const double nd = band->GetNoDataValue(&has);
        info.noData.emplace_back(has != 0, nd);
    }
    GDALClose(ds);
    return info;
}

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

void WriteText(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

std::string SampleScene()
{
    const std::filesystem::path p = std::filesystem::path(TAV_SOURCE_DIR) / ".." / "shared" / "data" / "L7_ETMs.tif";
    return std::filesystem::exists(p) ? p.string() : std::string();
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void PrintTo(const TypeRange& r, std::ostream* os) { *os << GDALGetDataTypeName(r.type); }

PixelFn RandomPixels(const TypeRange& r, unsigned seed)
{
    const bool integer = GDALDataTypeIsInteger(r.type);
    return [r, seed, integer](int b, int x, int y) {
        std::mt19937 rng(seed * 7919u + b * 104729u + y * 1299709u + x);
        const double v = std::uniform_real_distribution<double>(r.lo, r.hi)(rng);
        return integer ? std::floor(v) : v;
    };
}

} // namespace tavtest
