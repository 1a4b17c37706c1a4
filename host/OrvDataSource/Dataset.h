#pragma once
#include "OrvUtility/CRef.h"

#include <QString>

class GDALDataset;

namespace OrvDataSource {

// Any dataset GDAL can open; closed when its last handle goes.
class Dataset : public OrvUtility::CRef {
public:
    Dataset(GDALDataset* poDS, const QString& path);
    ~Dataset() override;

    QString GetPath() const { return m_strPath; }
    virtual GDALDataset* GetGDALDataset() const { return m_poDS; }

protected:
    // Closes the GDAL dataset now (flushing it); later calls do nothing.
    void CloseGDAL();

    GDALDataset* m_poDS;
    QString m_strPath;
};

} // namespace OrvDataSource
