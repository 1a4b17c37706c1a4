#include "OrvDataSource/RasterBand.h"
#include "OrvDataSource/RasterDataset.h"
#include "OrvDataSource/GdalErrors.h"
#include "OrvDataSource/GdalTypeMap.h"

#include <gdal_priv.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace OrvDataSource {

RasterBand::RasterBand(RasterDataset* owner, GDALRasterBand* poBand) : m_owner(owner), m_poBand(poBand) {}
RasterBand::~RasterBand() = default;

PixelDataType RasterBand::GetRasterDataType() const { return FromGDALType(m_poBand->GetRasterDataType()); }
int RasterBand::GetXSize() const { return m_poBand->GetXSize(); }
int RasterBand::GetYSize() const { return m_poBand->GetYSize(); }

bool RasterBand::GetNoDataValue(double* value)
{
    int has = 0;
    const double v = m_poBand->GetNoDataValue(&has);
    if (has && value)
        *value = v;
    return has != 0;
}

void RasterBand::SetNoDataValue(double value) { m_poBand->SetNoDataValue(value); }

bool RasterBand::ReadBlock(int x, int y, int w, int h, void* data, int bufW, int bufH,
                           PixelDataType type, long long pixelSpace, long long lineSpace)
{
    return BlockIO(false, x, y, w, h, data, bufW, bufH, type, pixelSpace, lineSpace);
}

bool RasterBand::WriteBlock(int x, int y, int w, int h, void* data, int bufW, int bufH,
                            PixelDataType type, long long pixelSpace, long long lineSpace)
{
    return BlockIO(true, x, y, w, h, data, bufW, bufH, type, pixelSpace, lineSpace);
}

namespace {

bool IsFloating(GDALDataType t) { return GDALDataTypeIsFloating(t) && !GDALDataTypeIsComplex(t); }

} // namespace

bool RasterBand::MayHaveMaskedPixels(const double* srcNoData, bool useMask) const
{
    if (srcNoData)
        return true;
    if (!useMask)
        return false;
    return IsFloating(m_poBand->GetRasterDataType()) || !(m_poBand->GetMaskFlags() & GMF_ALL_VALID);
}

RasterBand::ValidityRule RasterBand::GetValidityRule(const double* srcNoData, bool useMask) const
{
    ValidityRule rule;
    const GDALDataType type = m_poBand->GetRasterDataType();
    rule.nonFinite = useMask && IsFloating(type);
    double value = 0;
    if (srcNoData) {
        rule.hasValue = true;
        value = *srcNoData;
    } else if (useMask) {
        const int flags = m_poBand->GetMaskFlags();
        if (flags == GMF_NODATA) {
            int has = 0;
            value = m_poBand->GetNoDataValue(&has);
            rule.hasValue = has != 0;
        }
        rule.readMask = !(flags & GMF_ALL_VALID) && !rule.hasValue;
    }
    rule.value = type == GDT_Float32 ? static_cast<float>(value) : value;
    return rule;
}

bool RasterBand::ReadValidity(int x, int y, int w, int h, unsigned char* valid, const double* srcNoData,
                              bool useMask)
{
    const long long count = static_cast<long long>(w) * h;
    std::fill(valid, valid + count, static_cast<unsigned char>(1));
    const bool floating = IsFloating(m_poBand->GetRasterDataType());
    bool ok = true;
    if (!srcNoData && useMask && !(m_poBand->GetMaskFlags() & GMF_ALL_VALID)) {
        // GDAL's own rules: per-dataset mask, alpha band, or the band's no-data value.
        ok = m_poBand->GetMaskBand()->RasterIO(GF_Read, x, y, w, h, valid, w, h, GDT_Byte, 0, 0, nullptr) == CE_None;
        for (long long i = 0; i < count; ++i)
            valid[i] = valid[i] != 0;
    }
    if (srcNoData || (useMask && floating)) {
        std::vector<double> values(static_cast<size_t>(count));
        ok = ok && m_poBand->RasterIO(GF_Read, x, y, w, h, values.data(), w, h, GDT_Float64, 0, 0, nullptr) == CE_None;
        // The value as the band can hold it, as GDAL compares its own no-data values.
        double nd = srcNoData ? *srcNoData : 0.0;
        if (m_poBand->GetRasterDataType() == GDT_Float32)
            nd = static_cast<float>(nd);
        const bool ndIsNaN = srcNoData && std::isnan(nd);
        const bool checkFinite = useMask && floating;
        for (long long i = 0; i < count; ++i) {
            const double v = values[i];
            const bool masked = (srcNoData && (v == nd || (ndIsNaN && std::isnan(v)))) ||
                                (checkFinite && !std::isfinite(v));
            valid[i] &= static_cast<unsigned char>(!masked);
        }
    }
    if (!ok)
        std::fill(valid, valid + count, static_cast<unsigned char>(1));
    return ok;
}

bool RasterBand::BlockIO(bool write, int x, int y, int w, int h, void* data, int bufW, int bufH,
                         PixelDataType type, long long pixelSpace, long long lineSpace)
{
    const GDALDataType eType = ToGDALType(type);
    if (eType == GDT_Unknown || !data)
        return false;
    const bool ok = RecordIO(m_poBand->RasterIO(write ? GF_Write : GF_Read, x, y, w, h, data, bufW, bufH, eType,
                                                pixelSpace, lineSpace, nullptr) == CE_None,
                             write, m_owner->GetOutputPath());
    return write && ok ? m_owner->NoteWritten(x, y, w, h, 1) : ok;
}

} // namespace OrvDataSource
