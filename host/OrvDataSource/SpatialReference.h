#pragma once
#include "OrvUtility/CRef.h"

#include <QString>
#include <ogr_spatialref.h>

namespace OrvDataSource {

// A coordinate system, reference counted so datasets can hand it around.
class SpatialReference : public OrvUtility::CRef {
public:
    explicit SpatialReference(const OGRSpatialReference& srs) : m_srs(srs) {}
    const OGRSpatialReference& GetOGR() const { return m_srs; }
    QString ExportToWkt() const;
    bool IsSame(const SpatialReference& other) const { return m_srs.IsSame(&other.m_srs); }

private:
    OGRSpatialReference m_srs;
};

} // namespace OrvDataSource
