#include "OrvDataSource/RasterBand.h"
#include "OrvDataSource/RasterDataset.h"
#include "OrvDataSource/GdalErrors.h"
#include "OrvDataSource/GdalTypeMap.h"

#include <gdal_priv.h>

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
