#include "OrvDataSource/DatasetFactory.h"
#include "OrvDataSource/BlockCache.h"
#include "OrvDataSource/GdalTypeMap.h"

#include <QFile>
#include <QFileInfo>
#include <cpl_conv.h>
#include <cpl_string.h>
#include <gdal_priv.h>

#include <filesystem>

namespace OrvDataSource {

namespace {

QByteArray Native(const QString& path) { return path.toUtf8(); }

bool DriverCanCreate(GDALDriver* driver)
{
    return CPLFetchBool(driver->GetMetadata(), GDAL_DCAP_CREATE, false);
}

bool DriverCanCopy(GDALDriver* driver)
{
    return CPLFetchBool(driver->GetMetadata(), GDAL_DCAP_CREATECOPY, false);
}

// Side files GDAL reads RPC coefficients from, as suffixes replacing the extension.
const char* const kRpcSuffixes[] = {".RPB", ".rpb", "_rpc.txt", "_RPC.TXT"};

QString StripExtension(const QString& path)
{
    const QFileInfo info(path);
    const QString suffix = info.suffix();
    return suffix.isEmpty() ? path : path.left(path.size() - suffix.size() - 1);
}

struct ProbeMessages {
    QString failure;
    QString warning;
};

void CPL_STDCALL KeepProbeMessage(CPLErr eClass, CPLErrorNum, const char* message)
{
    auto* kept = static_cast<ProbeMessages*>(CPLGetErrorHandlerUserData());
    QString& slot = eClass == CE_Warning ? kept->warning : kept->failure;
    if (eClass >= CE_Warning && slot.isEmpty())
        slot = QString::fromUtf8(message);
}

// A small raster of the run's shape, copied in memory: the driver says what it cannot hold.
QString TryCopy(GDALDriver* driver, int bands, PixelDataType type, QString* warning)
{
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDataset* src = mem ? mem->Create("", 16, 16, bands, ToGDALType(type), nullptr) : nullptr;
    if (!src)
        return QStringLiteral("no raster of %1 bands can be made to try the format").arg(bands);
    const char* ext = driver->GetMetadataItem(GDAL_DMD_EXTENSION);
    const std::string target = std::string("/vsimem/tav_format_probe/probe.") + (ext ? ext : "img");
    ProbeMessages kept;
    CPLPushErrorHandlerEx(KeepProbeMessage, &kept);
    GDALDataset* copy = driver->CreateCopy(target.c_str(), src, FALSE, nullptr, nullptr, nullptr);
    if (copy)
        GDALClose(GDALDataset::ToHandle(copy));
    CPLPopErrorHandler();
    GDALClose(GDALDataset::ToHandle(src));
    VSIRmdirRecursive("/vsimem/tav_format_probe");
    if (!copy && kept.failure.isEmpty())
        kept.failure = QStringLiteral("the driver refused the copy");
    if (warning)
        *warning = kept.warning;
    return copy ? QString() : kept.failure;
}

struct CreationOptions {
    QString path;
    QStringList options;
};

CreationOptions& KeptCreationOptions()
{
    static CreationOptions kept;
    return kept;
}

bool SamePath(const QString& a, const QString& b)
{
    return a == b || (!a.isEmpty() && QFileInfo(a).absoluteFilePath() == QFileInfo(b).absoluteFilePath());
}

CPLStringList ToCPL(const QStringList& options)
{
    CPLStringList list;
    for (const QString& o : options)
        list.AddString(o.toUtf8().constData());
    return list;
}

} // namespace

void DatasetFactory::SetCreationOptions(const QString& path, const QStringList& options)
{
    KeptCreationOptions() = {options.isEmpty() ? QString() : path, options};
}

QStringList DatasetFactory::CreationOptionsFor(const QString& path)
{
    const CreationOptions& kept = KeptCreationOptions();
    return !kept.options.isEmpty() && SamePath(kept.path, path) ? kept.options : QStringList();
}

QString DatasetFactory::CreationOptionsProblem(const QString& format, const QStringList& options) const
{
    for (const QString& o : options)
        if (o.indexOf('=') < 1)
            return QStringLiteral("'%1' is not NAME=VALUE").arg(o);
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(format.toUtf8().constData());
    if (!driver || options.isEmpty())
        return {};
    ProbeMessages kept;
    CPLPushErrorHandlerEx(KeepProbeMessage, &kept);
    const CPLStringList list = ToCPL(options);
    const bool valid = GDALValidateCreationOptions(GDALDriver::ToHandle(driver), list.List()) != FALSE;
    CPLPopErrorHandler();
    if (valid && kept.warning.isEmpty())
        return {};
    return kept.warning.isEmpty() ? (kept.failure.isEmpty() ? QStringLiteral("GDAL refused them") : kept.failure)
                                  : kept.warning;
}

DatasetFactory::DatasetFactory()
{
    InstallGdalErrorHandler();
    GDALAllRegister();
    BlockCache::ApplyDefaults();
}

DatasetFactory* DatasetFactory::Instance()
{
    static OrvUtility::_ptr_t<DatasetFactory> instance(new DatasetFactory());
    return instance.get();
}

OrvUtility::_ptr_t<Dataset> DatasetFactory::OpenDataset(const QString& path, OpenMode mode, const QString& extra)
{
    (void)extra; // kept for the host's signature; no open option is needed over GDAL
    const unsigned flags = GDAL_OF_RASTER | GDAL_OF_VECTOR | GDAL_OF_VERBOSE_ERROR | (mode == OM_Update ? GDAL_OF_UPDATE : GDAL_OF_READONLY);
    GDALDataset* poDS = GDALDataset::Open(Native(path).constData(), flags);
    if (!poDS)
        return nullptr;
    if (poDS->GetRasterCount() > 0)
        return new RasterDataset(poDS, path);
    return new Dataset(poDS, path);
}

OrvUtility::_ptr_t<RasterDataset> DatasetFactory::OpenRasterDataset(const QString& path, OpenMode mode)
{
    const unsigned flags = GDAL_OF_RASTER | GDAL_OF_VERBOSE_ERROR | (mode == OM_Update ? GDAL_OF_UPDATE : GDAL_OF_READONLY);
    GDALDataset* poDS = GDALDataset::Open(Native(path).constData(), flags);
    if (!poDS)
        return nullptr;
    if (poDS->GetRasterCount() < 1) {
        GDALClose(GDALDataset::ToHandle(poDS));
        CPLError(CE_Failure, CPLE_OpenFailed, "%s has no raster band", Native(path).constData());
        return nullptr;
    }
    return new RasterDataset(poDS, path);
}

OrvUtility::_ptr_t<RasterDataset> DatasetFactory::CreateRasterDataset(const QString& path, int xSize, int ySize,
                                                                      int bandCount, PixelDataType type,
                                                                      const QString& format, char** options)
{
    const GDALDataType eType = ToGDALType(type);
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(format.toUtf8().constData());
    if (!driver) {
        CPLError(CE_Failure, CPLE_AppDefined, "Unknown raster format '%s'", format.toUtf8().constData());
        return nullptr;
    }
    if (eType == GDT_Unknown || xSize < 1 || ySize < 1 || bandCount < 1) {
        CPLError(CE_Failure, CPLE_IllegalArg, "Invalid size, band count or pixel type for %s",
                 Native(path).constData());
        return nullptr;
    }
    CPLStringList kept = ToCPL(options ? QStringList() : CreationOptionsFor(path));
    if (!options && !kept.empty())
        options = kept.List();
    if (DriverCanCreate(driver)) {
        GDALDataset* poDS = driver->Create(Native(path).constData(), xSize, ySize, bandCount, eType, options);
        return poDS ? new RasterDataset(poDS, path) : nullptr;
    }
    if (!DriverCanCopy(driver)) {
        CPLError(CE_Failure, CPLE_NotSupported, "Format '%s' cannot write rasters", format.toUtf8().constData());
        return nullptr;
    }
    // Build in a GTiff beside the output, copied into the format when the last handle goes.
    const QString tmp = path + ".tmp.tif";
    GDALDriver* gtiff = GetGDALDriverManager()->GetDriverByName("GTiff");
    GDALDataset* poDS = gtiff ? gtiff->Create(Native(tmp).constData(), xSize, ySize, bandCount, eType, nullptr) : nullptr;
    if (!poDS)
        return nullptr;
    OrvUtility::_ptr_t<RasterDataset> ds = new RasterDataset(poDS, tmp);
    ds->CopyOnRelease(path, format, options);
    return ds;
}

OrvUtility::_ptr_t<RasterDataset> DatasetFactory::CreateRasterDataset(
    const QString& path, const OrvUtility::_ptr_t<OrvGeometry::Envelope>& extent, int xSize, int ySize,
    int bandCount, PixelDataType type, const QString& format, char** options)
{
    OrvUtility::_ptr_t<RasterDataset> ds = CreateRasterDataset(path, xSize, ySize, bandCount, type, format, options);
    if (ds && extent && !extent->IsEmpty()) {
        const double gt[6] = {extent->MinX(), extent->Width() / xSize, 0.0,
                              extent->MaxY(), 0.0, -extent->Height() / ySize};
        ds->SetGeoTransform(gt);
    }
    return ds;
}

bool DatasetFactory::CanWriteRaster(const QString& format) const
{
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(format.toUtf8().constData());
    return driver && CPLFetchBool(driver->GetMetadata(), GDAL_DCAP_RASTER, false) &&
           (DriverCanCreate(driver) || DriverCanCopy(driver));
}

QString DatasetFactory::OutputFormatProblem(const QString& format, int bands, PixelDataType type,
                                            QString* warning) const
{
    const QByteArray name = format.toUtf8();
    if (!CanWriteRaster(format))
        return QStringLiteral("'%1' is not a raster format GDAL can write").arg(format);
    // Both would report success and leave the user nothing to read.
    if (format.compare("VRT", Qt::CaseInsensitive) == 0)
        return QStringLiteral("VRT only points at other files and would hold none of the result");
    if (format.compare("MEM", Qt::CaseInsensitive) == 0)
        return QStringLiteral("MEM keeps the raster in memory, so nothing would be written");
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(name.constData());
    if (DriverCanCreate(driver) || bands < 1)
        return {};
    return TryCopy(driver, bands, type, warning);
}

bool DatasetFactory::DeleteRaster(const QString& path)
{
    const QByteArray name = Native(path);
    // Only what we wrote: a device or fifo under the name is never ours to remove.
    std::error_code ec;
    if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(name.constData(), ec)))
        return false;
    CPLPushErrorHandler(CPLQuietErrorHandler);
    const bool deleted = GDALDeleteDataset(nullptr, name.constData()) == CE_None;
    CPLPopErrorHandler();
    return QFile::remove(path) || deleted;
}

bool DatasetFactory::CopyRPCFile(RasterDataset* source, RasterDataset* target)
{
    if (!source || !target)
        return false;
    bool copied = false;
    if (char** rpc = source->GetMetadata("RPC")) {
        copied = target->GetGDALDataset()->SetMetadata(rpc, "RPC") == CE_None;
    }
    const QString srcBase = StripExtension(source->GetOutputPath());
    const QString dstBase = StripExtension(target->GetOutputPath());
    for (const char* suffix : kRpcSuffixes) {
        const QString from = srcBase + QLatin1String(suffix);
        if (!QFile::exists(from))
            continue;
        const QString to = dstBase + QLatin1String(suffix);
        QFile::remove(to);
        copied = QFile::copy(from, to) || copied;
        break;
    }
    return copied;
}

} // namespace OrvDataSource
