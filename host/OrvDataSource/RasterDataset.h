#pragma once
#include "OrvDataSource/BlockCache.h"
#include "OrvDataSource/Dataset.h"
#include "OrvDataSource/PixelBuffer.h"
#include "OrvDataSource/RasterBand.h"
#include "OrvDataSource/SpatialReference.h"

#include <cstddef>
#include <vector>

namespace OrvDataSource {

// A dataset with raster bands. Band indices for GetRasterBand are 0-based; band lists of the
// window operations hold 1-based band numbers.
class RasterDataset : public Dataset {
public:
    RasterDataset(GDALDataset* poDS, const QString& path);
    ~RasterDataset() override;

    int GetRasterXSize() const;
    int GetRasterYSize() const;
    int GetBandCount() const;
    // Ground control points; a raster georeferenced by them has no coordinate system of its own.
    int GetGCPCount() const;
    void GetGeoTransform(double* gt) const;
    // False when the raster has no geo-transform of its own (GetGeoTransform then gives the identity).
    bool HasGeoTransform() const;
    OrvUtility::_ptr_t<RasterBand> GetRasterBand(int index) const;

    virtual OrvUtility::_ptr_t<SpatialReference> GetSpatialReference() const;
    virtual bool SetSpatialReference(const OrvUtility::_ptr_t<SpatialReference>& srs);
    GDALDataset* GetGDALDataset() const override { return m_poDS; }
    virtual char** GetMetadata(const char* domain) const;
    virtual bool SetMetadataItem(const char* name, const char* value, const char* domain = nullptr);
    // Never null for a non-empty window: a failed read yields zero-filled pixels and leaves
    // GDAL's message in LastGdalError().
    virtual OrvUtility::_ptr_t<PixelBuffer> ReadRaster(int x, int y, int w, int h, int bufW, int bufH,
                                                       const std::vector<int>& bands);
    virtual bool WriteRaster(int x, int y, int w, int h, void* data, int bufW, int bufH,
                             PixelDataType type, int bandCount, const int* bands,
                             long long pixelSpace, long long lineSpace, long long bandSpace);
    virtual bool SetGeoTransform(const double* gt);
    virtual bool ReadRasterInto(int x, int y, int w, int h, void* data, int bufW, int bufH,
                                PixelDataType type, int bandCount, const int* bands,
                                long long pixelSpace, long long lineSpace, long long bandSpace);

    // Formats GDAL can only copy into: the pixels go to a temporary GTiff that is copied to
    // `target` with `driver` and its creation `options` when the last handle is released.
    void CopyOnRelease(const QString& target, const QString& driver, char** options = nullptr);
    // The path the user asked for (differs from GetPath() while a copy is pending).
    QString GetOutputPath() const { return m_strCopyTarget.isEmpty() ? m_strPath : m_strCopyTarget; }
    // A window of `bands` bands was written (through the dataset or one of its bands): rows of
    // blocks now complete go to the file. False when that write failed (it is recorded).
    bool NoteWritten(int x, int y, int w, int h, int bands);

private:
    void CopyToTarget();
    bool ByBlockRows(bool write, int x, int y, int w, int h, std::byte* data, int eType, int bandCount,
                     const int* bands, long long pixelSpace, long long lineSpace, long long bandSpace);
    bool RasterIO(bool write, int x, int y, int w, int h, void* data, int bufW, int bufH,
                  PixelDataType type, int bandCount, const int* bands,
                  long long pixelSpace, long long lineSpace, long long bandSpace);

    QString m_strCopyTarget;
    QString m_strCopyDriver;
    QStringList m_copyOptions;
    FinishedBlocks m_finished;
    BlockRowEdges m_blockRows;
};

} // namespace OrvDataSource
