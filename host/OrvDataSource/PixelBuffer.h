#pragma once
#include "OrvDataSource/PixelDataType.h"
#include "OrvUtility/CRef.h"

#include <cstddef>
#include <memory>

namespace OrvDataSource {

// A block of pixels allocated by the host: width × height pixels per band, bands one after another.
class PixelBuffer : public OrvUtility::CRef {
public:
    PixelBuffer(PixelDataType type, int width, int height, int bandCount);

    PixelDataType GetDataType() const { return m_type; }
    void* GetData() { return m_data.get(); }
    const void* GetData() const { return m_data.get(); }
    int GetWidth() const { return m_width; }
    int GetHeight() const { return m_height; }
    int GetBandCount() const { return m_bandCount; }
    std::size_t GetByteCount() const { return m_bytes; }
    bool IsValid() const { return m_data != nullptr; }

private:
    PixelDataType m_type;
    int m_width, m_height, m_bandCount;
    std::size_t m_bytes = 0;
    std::unique_ptr<std::byte[]> m_data;
};

} // namespace OrvDataSource
