#include "OrvGeometry/Envelope.h"

#include <algorithm>

namespace OrvGeometry {

Envelope::Envelope(double minX, double minY, double maxX, double maxY)
    : m_minX(std::min(minX, maxX)), m_minY(std::min(minY, maxY)),
      m_maxX(std::max(minX, maxX)), m_maxY(std::max(minY, maxY))
{
}

} // namespace OrvGeometry
