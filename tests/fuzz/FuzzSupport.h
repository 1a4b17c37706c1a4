#pragma once
// What the fuzz targets share: one scratch folder per process and the fuzzer's bytes as a file in it.
#include "TestSupport.h"

#include <QString>
#include <cstdint>
#include <fstream>
#include <string>

namespace tavfuzz {

// Removed when the process ends, also after libFuzzer's -max_total_time.
inline const tavtest::TempDir& Scratch()
{
    static const tavtest::TempDir dir;
    return dir;
}

inline QString Q(const std::string& s) { return QString::fromStdString(s); }

// The bytes as the file `name` of the scratch folder, replacing what was there.
inline std::string BytesAsFile(const std::string& name, const uint8_t* data, size_t size)
{
    const std::string path = Scratch().file(name);
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data),
                                                                   static_cast<std::streamsize>(size));
    return path;
}

// A 5 x 3 Float32 raster of `bands` bands with varied pixels, in the scratch folder; no coordinate
// system, whose copy would cost more than the run.
inline std::string TinyRaster(const std::string& name, int bands)
{
    const std::string path = Scratch().file(name);
    tavtest::WriteRaster(path, tavtest::Shape(5, 3, bands, GDT_Float32, false),
                         [](int b, int x, int y) { return (b + 1) * 7.5 - x * y + x; });
    return path;
}

} // namespace tavfuzz
