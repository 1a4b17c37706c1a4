#pragma once
// Shared fixtures: temporary folders, small rasters built through GDAL directly, readers.
#include <gdal_priv.h>

#include <QString>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace tavtest {

// A fresh folder under the system temp dir, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    std::string file(const std::string& name) const { return (m_path / name).string(); }
    QString qfile(const std::string& name) const { return QString::fromStdString(file(name)); }

private:
    std::filesystem::path m_path;
};

using PixelFn = std::function<double(int band, int x, int y)>;

struct RasterShape {
    int width = 4;
    int height = 3;
    int bands = 1;
    GDALDataType type = GDT_Float32;
    std::string driver = "GTiff";
    bool geo = true;         // give it a UTM 25S geo-transform and coordinate system
    std::vector<double> noData; // per band; empty = none
};

// A shape in one expression.
inline RasterShape Shape(int width, int height, int bands = 1, GDALDataType type = GDT_Float32, bool geo = true)
{
    RasterShape s;
    s.width = width;
    s.height = height;
    s.bands = bands;
    s.type = type;
    s.geo = geo;
    return s;
}

// A pixel type with the range its random test pixels are drawn from.
struct TypeRange {
    GDALDataType type;
    double lo, hi;
};
void PrintTo(const TypeRange& r, std::ostream* os);

// Repeatable pixels drawn from the range; integer types get whole numbers, floating types keep
// every digit the draw gives.
PixelFn RandomPixels(const TypeRange& r, unsigned seed);

// Writes a raster whose pixel (x, y) of band b (0-based) is fn(b, x, y).
void WriteRaster(const std::string& path, const RasterShape& shape, const PixelFn& fn);

// Band b (1-based) read back as doubles, row-major.
std::vector<double> ReadBand(const std::string& path, int band);

struct RasterInfo {
    int width = 0, height = 0, bands = 0;
    GDALDataType type = GDT_Unknown;
    double gt[6] = {0, 0, 0, 0, 0, 0};
    std::string wkt;
    std::vector<std::string> descriptions;
    std::vector<std::pair<bool, double>> noData;
};
RasterInfo Info(const std::string& path);

bool Exists(const std::string& path);
void WriteText(const std::string& path, const std::string& text);
std::string ReadFile(const std::string& path);

// The real Landsat subset shipped beside the project, or empty when it is absent.
std::string SampleScene();

// The standard geo-transform of WriteRaster's rasters.
extern const double kTestGeoTransform[6];

} // namespace tavtest
