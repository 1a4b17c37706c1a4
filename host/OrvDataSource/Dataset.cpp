#include "OrvDataSource/Dataset.h"

#include <gdal_priv.h>

namespace OrvDataSource {

Dataset::Dataset(GDALDataset* poDS, const QString& path) : m_poDS(poDS), m_strPath(path) {}

Dataset::~Dataset() { CloseGDAL(); }

void Dataset::CloseGDAL()
{
    if (m_poDS) {
        GDALClose(GDALDataset::ToHandle(m_poDS));
        m_poDS = nullptr;
    }
}

} // namespace OrvDataSource
