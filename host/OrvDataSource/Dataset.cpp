#include "OrvDataSource/Dataset.h"
#include "OrvDataSource/GdalErrors.h"

#include <gdal_priv.h>

namespace OrvDataSource {

Dataset::Dataset(GDALDataset* poDS, const QString& path) : m_poDS(poDS), m_strPath(path) {}

Dataset::~Dataset() { CloseGDAL(m_strPath); }

QStringList Dataset::GetFileList() const
{
    QStringList files;
    char** list = m_poDS ? m_poDS->GetFileList() : nullptr;
    for (char** p = list; p && *p; ++p)
        files << QString::fromUtf8(*p);
    CSLDestroy(list);
    return files;
}

void Dataset::CloseGDAL(const QString& shownPath)
{
    if (!m_poDS)
        return;
    // Most of a written raster reaches the disk here, so a full disk shows up here.
    const bool writing = m_poDS->GetAccess() == GA_Update;
    const int before = GdalFailureCount();
    GDALClose(GDALDataset::ToHandle(m_poDS));
    m_poDS = nullptr;
    RecordIO(!writing || GdalFailureCount() == before, true, shownPath);
}

} // namespace OrvDataSource
