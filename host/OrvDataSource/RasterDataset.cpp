#include "OrvDataSource/RasterDataset.h"
#include "OrvDataSource/BlockCache.h"
#include "OrvDataSource/GdalErrors.h"
#include "OrvDataSource/GdalTypeMap.h"

#include <QFile>
#include <QLocale>
#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>
#include <cpl_string.h>
#include <gdal_priv.h>

namespace OrvDataSource {

namespace {

bool SameValue(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

// Pixels of `src` band that hold `value` and no longer do in `copy` (a lossy format).
long long ValuesChanged(GDALRasterBand& src, GDALRasterBand& copy, double value, long long& held)
{
    const int w = src.GetXSize(), h = src.GetYSize();
    int blockW = 0, blockH = 0;
    src.GetBlockSize(&blockW, &blockH);
    const int rows = std::max(1, std::min(h, std::max(blockH, 64)));
    std::vector<double> a(static_cast<size_t>(w) * rows), b(a.size());
    long long changed = 0;
    for (int y = 0; y < h; y += rows) {
        const int n = std::min(rows, h - y);
        if (src.RasterIO(GF_Read, 0, y, w, n, a.data(), w, n, GDT_Float64, 0, 0, nullptr) != CE_None ||
            copy.RasterIO(GF_Read, 0, y, w, n, b.data(), w, n, GDT_Float64, 0, 0, nullptr) != CE_None)
            return 0; // an unreadable copy is the read's failure to report, not this one
        for (size_t i = 0; i < static_cast<size_t>(w) * n; ++i)
            if (SameValue(a[i], value)) {
                ++held;
                changed += !SameValue(b[i], value);
            }
    }
    return changed;
}

// Formats that store every value exactly need no reading back: PNG, and GeoTIFFs (COG) whose
// compression keeps every bit.
bool StoresExactly(GDALDataset& copy, const QString& format)
{
    if (format.compare(QStringLiteral("PNG"), Qt::CaseInsensitive) == 0)
        return true;
    if (format.compare(QStringLiteral("COG"), Qt::CaseInsensitive) != 0 &&
        format.compare(QStringLiteral("GTiff"), Qt::CaseInsensitive) != 0)
        return false;
    const QString c = QString::fromUtf8(copy.GetMetadataItem("COMPRESSION", "IMAGE_STRUCTURE")).toUpper();
    for (const char* lossy : {"JPEG", "WEBP", "LERC", "JXL"}) // "YCbCr JPEG" too
        if (c.contains(QLatin1String(lossy)))
            return false;
    return true;
}

// A copy-only format may drop the no-data value the run declared, or, when it compresses with
// loss, change the pixels that hold it: either way the user is told, naming the value.
void WarnOfNoDataLost(GDALDataset& src, const QString& target, const QString& format)
{
    std::unique_ptr<GDALDataset> copy(GDALDataset::Open(target.toUtf8().constData(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    if (!copy || copy->GetRasterCount() != src.GetRasterCount())
        return;
    const QLocale english(QLocale::English);
    for (int b = 1; b <= src.GetRasterCount(); ++b) {
        int has = 0, kept = 0;
        const double value = src.GetRasterBand(b)->GetNoDataValue(&has);
        if (!has)
            continue;
        const double copied = copy->GetRasterBand(b)->GetNoDataValue(&kept);
        const QString shown = QString::number(value, 'g', 17);
        if (!kept || !SameValue(copied, value)) {
            RecordWarning(QStringLiteral("%1 does not keep the no-data value %2: in %3 the masked pixels hold it "
                                         "but are not marked as no-data").arg(format, shown, target));
            return;
        }
        if (StoresExactly(*copy, format))
            continue;
        long long held = 0;
        if (const long long changed = ValuesChanged(*src.GetRasterBand(b), *copy->GetRasterBand(b), value, held)) {
            RecordWarning(QStringLiteral("%1 compresses with loss: in %2, %3 of the %4 masked pixels of band %5 no "
                                         "longer hold the no-data value %6")
                              .arg(format, target, english.toString(changed), english.toString(held))
                              .arg(b)
                              .arg(shown));
            return;
        }
    }
}

} // namespace

RasterDataset::RasterDataset(GDALDataset* poDS, const QString& path)
    : Dataset(poDS, path), m_blockRows(BlockCache::RowsOfBlocks(poDS))
{
    BlockCache::Hold(this, m_blockRows);
}

RasterDataset::~RasterDataset()
{
    if (m_strCopyTarget.isEmpty()) {
        // Closed before its share of the cache goes, so its blocks are flushed whole.
        CloseGDAL(m_strPath);
        BlockCache::Release(this);
        return;
    }
    CloseGDAL(m_strCopyTarget);
    BlockCache::Release(this);
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
    CPLStringList options;
    for (const QString& o : m_copyOptions)
        options.AddString(o.toUtf8().constData());
    GDALDataset* copy = driver && src ? driver->CreateCopy(target.constData(), src, FALSE, options.List(), nullptr, nullptr)
                                      : nullptr;
    if (copy)
        GDALClose(GDALDataset::ToHandle(copy));
    if (copy && src && GdalFailureCount() == before)
        WarnOfNoDataLost(*src, m_strCopyTarget, m_strCopyDriver);
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

bool RasterDataset::HasGeoTransform() const
{
    double gt[6];
    return m_poDS->GetGeoTransform(gt) == CE_None;
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
    if (bufW == w && bufH == h && (write || (h > 1 && !m_blockRows.edges.empty())))
        return ByBlockRows(write, x, y, w, h, static_cast<std::byte*>(data), eType, bandCount, bands, pixelSpace,
                           lineSpace, bandSpace);
    return RecordIO(m_poDS->RasterIO(write ? GF_Write : GF_Read, x, y, w, h, data, bufW, bufH, eType, bandCount,
                                     const_cast<int*>(bands), pixelSpace, lineSpace, bandSpace, nullptr) == CE_None,
                    write, GetOutputPath());
}

// The window in pieces that end where rows of blocks begin, so each row of blocks is decoded, used
// up and dropped before the next one comes, and a write compresses each block once. Rows of small
// blocks go about 1 MiB at a time, so that strips are not moved one call each. Writes follow the
// output's first band written and go to the file a finished row at a time: a large write never
// floods the cache and pushes out the input's blocks.
bool RasterDataset::ByBlockRows(bool write, int x, int y, int w, int h, std::byte* data, int type,
                                int bandCount, const int* bands, long long pixelSpace, long long lineSpace,
                                long long bandSpace)
{
    const auto eType = static_cast<GDALDataType>(type);
    const long long pixel = pixelSpace ? pixelSpace : GDALGetDataTypeSizeBytes(eType);
    const long long line = lineSpace ? lineSpace : pixel * w;
    const long long band = bandSpace ? bandSpace : line * h;
    BlockRowEdges pieces = m_blockRows;
    if (write) {
        int bw = 0, bh = 0;
        m_poDS->GetRasterBand(bands[0])->GetBlockSize(&bw, &bh);
        const long long rowBytes = static_cast<long long>(w) * bandCount * GDALGetDataTypeSizeBytes(eType);
        pieces.edges = {{0, bh < 1 ? h : bh * std::max(1LL, (1LL << 20) / std::max(1LL, rowBytes * bh))}};
    } else if (pieces.edges.size() == 1) {
        pieces.edges[0].height *= std::max(1LL, (1LL << 20) / std::max(1LL, pieces.bytes));
    }
    for (int top = y; top < y + h;) {
        const int rows = static_cast<int>(std::min<long long>(y + h, pieces.After(top)) - top);
        if (!RecordIO(m_poDS->RasterIO(write ? GF_Write : GF_Read, x, top, w, rows, data + (top - y) * line, w, rows,
                                       eType, bandCount, const_cast<int*>(bands), pixel, line, band,
                                       nullptr) == CE_None,
                      write, GetOutputPath()) ||
            (write && !NoteWritten(x, top, w, rows, bandCount)))
            return false;
        top += rows;
    }
    return true;
}

bool RasterDataset::NoteWritten(int x, int y, int w, int h, int bands)
{
    return RecordIO(m_finished.Note(m_poDS, x, y, w, h, bands), true, GetOutputPath());
}

bool RasterDataset::SetGeoTransform(const double* gt)
{
    return m_poDS->SetGeoTransform(const_cast<double*>(gt)) == CE_None;
}

void RasterDataset::CopyOnRelease(const QString& target, const QString& driver, char** options)
{
    m_strCopyTarget = target;
    m_strCopyDriver = driver;
    m_copyOptions.clear();
    for (char** p = options; p && *p; ++p)
        m_copyOptions << QString::fromUtf8(*p);
}

} // namespace OrvDataSource
