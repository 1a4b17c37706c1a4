#include "OrvDataSource/SpatialReference.h"

#include <cpl_conv.h>

namespace OrvDataSource {

QString SpatialReference::ExportToWkt() const
{
    char* wkt = nullptr;
    m_srs.exportToWkt(&wkt);
    QString s = QString::fromUtf8(wkt ? wkt : "");
    CPLFree(wkt);
    return s;
}

} // namespace OrvDataSource
