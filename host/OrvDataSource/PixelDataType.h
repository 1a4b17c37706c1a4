#pragma once
#include <QString>


namespace OrvDataSource {

// Host pixel type codes; the values are part of the plug-in interface.
enum PixelDataType {
    PDT_Unknown = 0,
    PDT_Byte = 1,
    PDT_UInt16 = 2,
    PDT_Int16 = 3,
    PDT_UInt32 = 4,
    PDT_Int32 = 5,
    PDT_Float32 = 6,
    PDT_Float64 = 7,
    PDT_CInt16 = 8,
    PDT_CInt32 = 9,
    PDT_CFloat32 = 10,
    PDT_CFloat64 = 11,
};

enum OpenMode {
    OM_Read = 0,
    OM_Update = 1,
};

// Bytes of one pixel of the type, 0 for codes outside 1..11.
int PixelTypeSize(PixelDataType type);

// GDAL's name of the type ("Byte", "CInt16"), "Unknown" outside 1..11.
QString PixelTypeName(PixelDataType type);

// Codes 8 to 11: the complex types, which no transform reads.
inline bool IsComplexType(PixelDataType type) { return type >= PDT_CInt16 && type <= PDT_CFloat64; }

} // namespace OrvDataSource
