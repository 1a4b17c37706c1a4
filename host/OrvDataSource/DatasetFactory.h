#pragma once
#include "OrvDataSource/GdalErrors.h"
#include "OrvDataSource/RasterDataset.h"
#include "OrvGeometry/Envelope.h"

namespace OrvDataSource {

// Process-wide entry to every open and create; registers GDAL's drivers once.
class DatasetFactory : public OrvUtility::CRef {
public:
    static DatasetFactory* Instance();

    // A raster file comes back as a RasterDataset, a vector-only one as a plain Dataset.
    OrvUtility::_ptr_t<Dataset> OpenDataset(const QString& path, OpenMode mode, const QString& extra);
    OrvUtility::_ptr_t<RasterDataset> OpenRasterDataset(const QString& path, OpenMode mode);
    OrvUtility::_ptr_t<RasterDataset> CreateRasterDataset(const QString& path, int xSize, int ySize,
                                                          int bandCount, PixelDataType type,
                                                          const QString& format, char** options);
    // The geo-transform is set so the raster covers the envelope exactly (north up).
    OrvUtility::_ptr_t<RasterDataset> CreateRasterDataset(const QString& path,
                                                          const OrvUtility::_ptr_t<OrvGeometry::Envelope>& extent,
                                                          int xSize, int ySize, int bandCount,
                                                          PixelDataType type, const QString& format,
                                                          char** options);
    // True when `format` names a GDAL raster driver that can create or copy into a file.
    bool CanWriteRaster(const QString& format) const;
    // Why `bands` bands of `type` cannot be written as `format`, empty when they can. A
    // conversion that a copy-only format makes on the way comes back in `warning`, as GDAL says it.
    QString OutputFormatProblem(const QString& format, int bands, PixelDataType type, QString* warning) const;
    // Creation options (NAME=VALUE, as gdal_translate's -co) for the raster later created at
    // `path`, the output a user named; used when its creator passes none, as the plug-in's runs
    // do. An empty list forgets them. Other rasters (temporaries) are created without.
    static void SetCreationOptions(const QString& path, const QStringList& options);
    static QStringList CreationOptionsFor(const QString& path);
    // Why `options` do not suit `format`: a malformed entry, or GDAL's own warning about a name
    // or value the driver does not take; empty when they suit.
    QString CreationOptionsProblem(const QString& format, const QStringList& options) const;
    // Removes a written raster with the side files its driver knows; false when nothing was there.
    static bool DeleteRaster(const QString& path);
    // Copies the RPC metadata domain and any RPC side file (.RPB, _rpc.txt) of source to target.
    static bool CopyRPCFile(RasterDataset* source, RasterDataset* target);

    // The block cache GDAL gets while no raster asks for more (see BlockCache). Rows stream
    // through once, so a small cache loses no speed and keeps memory flat; a large one (GDAL takes
    // 5 % of RAM) made close-time flushes slow.
    static constexpr long long kBlockCacheBytes = 2LL * 1024 * 1024;

private:
    DatasetFactory();
};

} // namespace OrvDataSource
