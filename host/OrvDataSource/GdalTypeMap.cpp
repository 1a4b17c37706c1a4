#include "OrvDataSource/GdalTypeMap.h"

namespace OrvDataSource {

namespace {

struct TypePair {
    PixelDataType host;
    GDALDataType gdal;
};

const TypePair kTypePairs[] = {
    {PDT_Byte, GDT_Byte},       {PDT_UInt16, GDT_UInt16},   {PDT_Int16, GDT_Int16},
    {PDT_UInt32, GDT_UInt32},   {PDT_Int32, GDT_Int32},     {PDT_Float32, GDT_Float32},
    {PDT_Float64, GDT_Float64}, {PDT_CInt16, GDT_CInt16},   {PDT_CInt32, GDT_CInt32},
    {PDT_CFloat32, GDT_CFloat32}, {PDT_CFloat64, GDT_CFloat64},
};

} // namespace

GDALDataType ToGDALType(PixelDataType type)
{
    for (const TypePair& p : kTypePairs)
        if (p.host == type)
            return p.gdal;
    return GDT_Unknown;
}

PixelDataType FromGDALType(GDALDataType type)
{
    for (const TypePair& p : kTypePairs)
        if (p.gdal == type)
            return p.host;
    return PDT_Unknown;
}

QString PixelTypeName(PixelDataType type)
{
    const char* name = GDALGetDataTypeName(ToGDALType(type));
    return QString::fromLatin1(name ? name : "Unknown");
}

} // namespace OrvDataSource
