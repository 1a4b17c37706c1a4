#include "OrvDataSource/PixelBuffer.h"

#include <new>

namespace OrvDataSource {

int PixelTypeSize(PixelDataType type)
{
    switch (type) {
    case PDT_Byte: return 1;
    case PDT_UInt16:
    case PDT_Int16: return 2;
    case PDT_UInt32:
    case PDT_Int32:
    case PDT_Float32:
    case PDT_CInt16: return 4;
    case PDT_Float64:
    case PDT_CInt32:
    case PDT_CFloat32: return 8;
    case PDT_CFloat64: return 16;
    default: return 0;
    }
}

PixelBuffer::PixelBuffer(PixelDataType type, int width, int height, int bandCount)
    : m_type(type), m_width(width), m_height(height), m_bandCount(bandCount)
{
    if (width < 0 || height < 0 || bandCount < 0)
        return;
    m_bytes = static_cast<std::size_t>(PixelTypeSize(type)) * width * height * bandCount;
    // Left uninitialised: a read fills it, and a failed read zero-fills it.
    m_data.reset(new (std::nothrow) std::byte[m_bytes ? m_bytes : 1]);
    if (!m_data)
        m_bytes = 0;
}

} // namespace OrvDataSource
