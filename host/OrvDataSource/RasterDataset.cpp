#include "OrvDataSource/RasterDataset.h"
#include "OrvDataSource/GdalErrors.h"
#include "OrvDataSource/GdalTypeMap.h"

#include <QFile>
#include <gdal_priv.h>

namespace OrvDataSource {

RasterDataset::RasterDataset(GDALDataset* poDS, const QString& path) : Dataset(poDS, path) {}

RasterDataset::~RasterDataset()
{
    if (m_strCopyTarget.isEmpty())
        return;
    CloseGDAL(m_strCopyTarget);
    CopyToTarget();
    GDALDeleteDataset(nullptr, m_strPath.toUtf8().constData());
    QFile::remove(m_strPath);
}

void RasterDataset::CopyToTarget()
{
    const QByteArray target = m_strCopyTarget.toUtf8();
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(m_strCopyDriver.toUtf8().constData());
    GDALDataset* src = GDALDataset::Open(m_strPath.toUtf8().constData(), GDAL_OF_RASTER | GDAL_OF_READONLY);
    const int before = GdalFailureCount();
    GDALDataset* copy = driver && src ? driver->CreateCopy(target.constData(), src, FALSE, nullptr, nullptr, nullptr)
                                      : nullptr;
    if (copy)
        GDALClose(GDALDataset::ToHandle(copy));
    if (src)
        GDALClose(GDALDataset::ToHandle(src));
    if (!copy || GdalFailureCount() > before) {
        // Whatever the driver left of a failed copy is not a raster the user can use.
        RecordFailure(QStringLiteral("copying to ") + m_strCopyDriver, m_strCopyTarget);
        if (driver && copy)
            GDALDeleteDataset(GDALDriver::ToHandle(driver), target.constData());
        QFile::remove(m_strCopyTarget);
    }
}

int RasterDataset::GetRasterXSize() const { return m_poDS->GetRasterXSize(); }
int RasterDataset::GetRasterYSize() const { return m_poDS->GetRasterYSize(); }
int RasterDataset::GetBandCount() const { return m_poDS->GetRasterCount(); }
int RasterDataset::GetGCPCount() const { return m_poDS->GetGCPCount(); }

void RasterDataset::GetGeoTransform(double* gt) const
{
    if (m_poDS->GetGeoTransform(gt) != CE_None) {
        // GDAL's default for a raster without one.
        const double identity[6] = {0, 1, 0, 0, 0, 1};
        std::copy(identity, identity + 6, gt);
    }
}

OrvUtility::_ptr_t<RasterBand> RasterDataset::GetRasterBand(int index) const
{
    if (index < 0 || index >= GetBandCount())
        return nullptr;
    return new RasterBand(const_cast<RasterDataset*>(this), m_poDS->GetRasterBand(index + 1));
}

OrvUtility::_ptr_t<SpatialReference> RasterDataset::GetSpatialReference() const
{
    const OGRSpatialReference* srs = m_poDS->GetSpatialRef();
    if (!srs || srs->IsEmpty())
        return nullptr;
    return new SpatialReference(*srs);
}

bool RasterDataset::SetSpatialReference(const OrvUtility::_ptr_t<SpatialReference>& srs)
{
    return m_poDS->SetSpatialRef(srs ? &srs->GetOGR() : nullptr) == CE_None;
}

char** RasterDataset::GetMetadata(const char* domain) const { return m_poDS->GetMetadata(domain); }

bool RasterDataset::SetMetadataItem(const char* name, const char* value, const char* domain)
{
    return m_poDS->SetMetadataItem(name, value, domain) == CE_None;
}

OrvUtility::_ptr_t<PixelBuffer> RasterDataset::ReadRaster(int x, int y, int w, int h, int bufW, int bufH,
                                                          const std::vector<int>& bands)
{
    const PixelDataType type = bands.empty() || bands[0] < 1 || bands[0] > GetBandCount()
                                   ? PDT_Byte
                                   : GetRasterBand(bands[0] - 1)->GetRasterDataType();
    OrvUtility::_ptr_t<PixelBuffer> buffer = new PixelBuffer(type, bufW, bufH, static_cast<int>(bands.size()));
    if (!buffer->IsValid() || bands.empty())
        return buffer;
    if (!RasterIO(false, x, y, w, h, buffer->GetData(), bufW, bufH, type, static_cast<int>(bands.size()),
                  bands.data(), 0, 0, 0))
        std::fill_n(static_cast<std::byte*>(buffer->GetData()), buffer->GetByteCount(), std::byte{0});
    return buffer;
}

bool RasterDataset::WriteRaster(int x, int y, int w, int h, void* data, int bufW, int bufH,
                                PixelDataType type, int bandCount, const int* bands,
                                long long pixelSpace, long long lineSpace, long long bandSpace)
{
    return RasterIO(true, x, y, w, h, data, bufW, bufH, type, bandCount, bands, pixelSpace, lineSpace, bandSpace);
}

bool RasterDataset::ReadRasterInto(int x, int y, int w, int h, void* data, int bufW, int bufH,
                                   PixelDataType type, int bandCount, const int* bands,
                                   long long pixelSpace, long long lineSpace, long long bandSpace)
{
    return RasterIO(false, x, y, w, h, data, bufW, bufH, type, bandCount, bands, pixelSpace, lineSpace, bandSpace);
}

bool RasterDataset::RasterIO(bool write, int x, int y, int w, int h, void* data, int bufW, int bufH,
                             PixelDataType type, int bandCount, const int* bands,
                             long long pixelSpace, long long lineSpace, long long bandSpace)
{
    const GDALDataType eType = ToGDALType(type);
    if (eType == GDT_Unknown || !data || bandCount < 1 || !bands)
        return false;
    return RecordIO(m_poDS->RasterIO(write ? GF_Write : GF_Read, x, y, w, h, data, bufW, bufH, eType, bandCount,
                                     const_cast<int*>(bands), pixelSpace, lineSpace, bandSpace, nullptr) == CE_None,
                    write, GetOutputPath());
}

bool RasterDataset::SetGeoTransform(const double* gt)
{
    return m_poDS->SetGeoTransform(const_cast<double*>(gt)) == CE_None;
}

void RasterDataset::CopyOnRelease(const QString& target, const QString& driver)
{
    m_strCopyTarget = target;
    m_strCopyDriver = driver;
}

} // namespace OrvDataSource
