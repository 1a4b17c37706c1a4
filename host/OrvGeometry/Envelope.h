#pragma once
#include "OrvUtility/CRef.h"

namespace OrvGeometry {

// A geographic rectangle in the units of its coordinate system.
class Envelope : public OrvUtility::CRef {
public:
    Envelope() = default;
    Envelope(double minX, double minY, double maxX, double maxY);

    double MinX() const { return m_minX; }
    double MinY() const { return m_minY; }
    double MaxX() const { return m_maxX; }
    double MaxY() const { return m_maxY; }
    double Width() const { return m_maxX - m_minX; }
    double Height() const { return m_maxY - m_minY; }
    bool IsEmpty() const { return !(m_maxX > m_minX && m_maxY > m_minY); }

private:
    double m_minX = 0, m_minY = 0, m_maxX = 0, m_maxY = 0;
};

} // namespace OrvGeometry
