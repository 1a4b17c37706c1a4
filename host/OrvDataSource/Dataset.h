#pragma once
#include "OrvUtility/CRef.h"

#include <QString>
#include <QStringList>

class GDALDataset;

namespace OrvDataSource {

// Any dataset GDAL can open; closed when its last handle goes.
class Dataset : public OrvUtility::CRef {
public:
    Dataset(GDALDataset* poDS, const QString& path);
    ~Dataset() override;

    QString GetPath() const { return m_strPath; }
    virtual GDALDataset* GetGDALDataset() const { return m_poDS; }
    // Every file the dataset is made of, as GDAL lists them: the main file, side files, VRT sources.
    QStringList GetFileList() const;

protected:
    // Closes the GDAL dataset now (flushing it); later calls do nothing. A failure while an
    // output is flushed is recorded under `shownPath`, the name the user knows.
    void CloseGDAL(const QString& shownPath);

    GDALDataset* m_poDS;
    QString m_strPath;
};

} // namespace OrvDataSource
