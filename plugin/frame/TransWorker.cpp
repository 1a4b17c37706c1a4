#include "frame/TransWorker.h"
#include "frame/TavTransformFunc.h"

#include "OrvDataSource/DatasetFactory.h"

#include <QCoreApplication>

using namespace OrvDataSource;

QString Tr(const char* context, const char* text) { return QCoreApplication::translate(context, text); }

TransWorker::RasterPtr TransWorker::OpenInputRaster(const QString& path)
{
    return OrvUtility::dynamic_ptr_cast<RasterDataset>(
        DatasetFactory::Instance()->OpenDataset(path, OM_Read, QString()));
}

TransWorker::RasterPtr TransWorker::CreateOutput(const QString& path, int width, int height, int bands, int type,
                                                 const QString& format) const
{
    return DatasetFactory::Instance()->CreateRasterDataset(path, width, height, bands,
                                                           static_cast<PixelDataType>(type), format, nullptr);
}

void TransWorker::CopyGeoTransform(RasterDataset* in, RasterDataset* out)
{
    double gt[6];
    in->GetGeoTransform(gt);
    out->SetGeoTransform(gt);
}

void TransWorker::CopySpatialReference(RasterDataset* in, RasterDataset* out)
{
    if (auto srs = in->GetSpatialReference())
        out->SetSpatialReference(srs);
}

void TransWorker::CopyRpcIfPresent(RasterDataset* in, RasterDataset* out)
{
    if (in->GetMetadata("RPC"))
        DatasetFactory::CopyRPCFile(in, out);
}

void TransWorker::Progress(double percent, const QString& message) const { m_pAlgo->Report(percent, message); }

bool TransWorker::Cancelled() const { return m_pAlgo->CancelRequested(); }

bool TransWorker::LeaveCancelled()
{
    m_pAlgo->SetErrorInfo(-1010, QString());
    return false;
}

void TransWorker::SetErrorInfo(int code, const QString& text) const { m_pAlgo->SetErrorInfo(code, text); }

bool TransWorker::Fail(const char* context, const char* text)
{
    m_strError = Tr(context, text);
    return false;
}
