#pragma once
#include "OrvDataSource/RasterDataset.h"

#include <QString>

class TavTransformFunc;

// The shape every per-run worker shares: its failure text, then the way back to the algorithm
// object for progress, error codes and the cancel flag. The recurring steps live here once.
class TransWorker {
public:
    explicit TransWorker(TavTransformFunc* algo) : m_pAlgo(algo) {}
    const QString& ErrorText() const { return m_strError; }

protected:
    using RasterPtr = OrvUtility::_ptr_t<OrvDataSource::RasterDataset>;

    // Opens through the factory's generic open; a dataset without raster bands counts as not opened.
    static RasterPtr OpenInputRaster(const QString& path);
    RasterPtr CreateOutput(const QString& path, int width, int height, int bands, int type, const QString& format) const;
    static void CopyGeoTransform(OrvDataSource::RasterDataset* in, OrvDataSource::RasterDataset* out);
    static void CopySpatialReference(OrvDataSource::RasterDataset* in, OrvDataSource::RasterDataset* out);
    static void CopyRpcIfPresent(OrvDataSource::RasterDataset* in, OrvDataSource::RasterDataset* out);

    void Progress(double percent, const QString& message) const;
    bool Cancelled() const;
    // The cancelled exit: code -1010 with an empty text on the algorithm object.
    bool LeaveCancelled();
    void SetErrorInfo(int code, const QString& text) const;
    // Sets the worker's text translated in `context` and returns false.
    bool Fail(const char* context, const char* text);

    QString m_strError;
    TavTransformFunc* m_pAlgo;
};

QString Tr(const char* context, const char* text);
