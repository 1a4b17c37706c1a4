#pragma once
// Private to OrvDataSource: the one place where host pixel codes meet GDAL's. Not for callers of
// the library, which speak PixelDataType only.
#include "OrvDataSource/PixelDataType.h"

#include <gdal.h>

namespace OrvDataSource {

GDALDataType ToGDALType(PixelDataType type);
PixelDataType FromGDALType(GDALDataType type);

} // namespace OrvDataSource
