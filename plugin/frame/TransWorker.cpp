#include "frame/TransWorker.h"

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

bool TransWorker::LeaveCancelled()
{
    SetErrorInfo(-1010, QString());
    return false;
}

bool TransWorker::Fail(const char* context, const char* text)
{
    m_strError = Tr(context, text);
    return false;
}
