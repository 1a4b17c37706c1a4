#pragma once
#include "OrvDataSource/PixelDataType.h"
#include "OrvUtility/CRef.h"

class GDALRasterBand;

namespace OrvDataSource {

class RasterDataset;

// One band of a raster dataset; keeps its dataset open while it lives.
class RasterBand : public OrvUtility::CRef {
public:
    RasterBand(RasterDataset* owner, GDALRasterBand* poBand);
    ~RasterBand() override;

    PixelDataType GetRasterDataType() const;
    int GetXSize() const;
    int GetYSize() const;

    virtual bool GetNoDataValue(double* value);
    virtual void SetNoDataValue(double value);
    // Window (x, y, w, h) into/from a buffer of bufW × bufH pixels of `type`; spacings 0 mean packed.
    virtual bool ReadBlock(int x, int y, int w, int h, void* data, int bufW, int bufH,
                           PixelDataType type, long long pixelSpace, long long lineSpace);
    virtual bool WriteBlock(int x, int y, int w, int h, void* data, int bufW, int bufH,
                            PixelDataType type, long long pixelSpace, long long lineSpace);

    // Whether ReadValidity can find a masked pixel: a mask band that is not all-valid (per-dataset
    // mask, alpha, no-data value), a floating-point type (NaN, ±Inf), or a value given by the caller.
    bool MayHaveMaskedPixels(const double* srcNoData, bool useMask) const;
    // One flag per pixel of the window, row after row: 1 valid, 0 masked. With srcNoData the
    // caller's value replaces the band's mask rules; with useMask false GDAL's mask band and the
    // NaN rule are not consulted. False when a read fails (the flags are then all 1).
    bool ReadValidity(int x, int y, int w, int h, unsigned char* valid, const double* srcNoData, bool useMask);
    // The same rules told rather than applied, for a caller that holds the band's samples already:
    // a masked value (given, or the band's no-data value when that is its whole mask), the NaN rule,
    // and whether a mask band must be read besides (per-dataset mask, alpha).
    struct ValidityRule {
        bool readMask = false;
        bool hasValue = false;
        double value = 0;
        bool nonFinite = false;
    };
    ValidityRule GetValidityRule(const double* srcNoData, bool useMask) const;

    GDALRasterBand* GetGDALBand() const { return m_poBand; }

private:
    bool BlockIO(bool write, int x, int y, int w, int h, void* data, int bufW, int bufH,
                 PixelDataType type, long long pixelSpace, long long lineSpace);

    OrvUtility::_ptr_t<RasterDataset> m_owner;
    GDALRasterBand* m_poBand;
};

} // namespace OrvDataSource
