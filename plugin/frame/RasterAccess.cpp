#include "frame/RasterAccess.h"

#include <QFile>
#include <QFileInfo>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>

int PixelTypeBits(int type)
{
    switch (type) {
    case 1: return 8;
    case 2:
    case 3: return 16;
    case 4:
    case 5:
    case 6: return 32;
    case 7: return 64;
    default: return 0;
    }
}

int BytesPerSample(int type)
{
    const int bits = PixelTypeBits(type);
    return bits ? bits / 8 : 1;
}

AllocationGate& AllocationSeam()
{
    static AllocationGate gate;
    return gate;
}

void* AllocateWorking(std::size_t bytes, std::size_t alignment)
{
    if (const AllocationGate& gate = AllocationSeam(); gate && !gate(bytes))
        return nullptr;
    if (bytes == 0)
        bytes = 1;
    if (alignment == 0)
        return std::malloc(bytes);
    void* p = nullptr;
    return posix_memalign(&p, alignment, bytes) == 0 ? p : nullptr;
}

void FreeWorking(void* buffer) { std::free(buffer); }

void* NewTypedBuffer(int type, long long count)
{
    const int bytes = PixelTypeBits(type) / 8;
    if (bytes == 0 || count < 0)
        return nullptr;
    if (static_cast<unsigned long long>(count) > std::numeric_limits<std::size_t>::max() / bytes)
        return nullptr;
    return AllocateWorking(static_cast<std::size_t>(count) * bytes);
}

void FreeTypedBuffer(void* buffer) { FreeWorking(buffer); }

bool ClearTypedBuffer(void* buffer, int type, long long count)
{
    if (!buffer)
        return false;
    if (count > 0)
        std::memset(buffer, 0, static_cast<std::size_t>(PixelTypeBits(type) / 8) * static_cast<std::size_t>(count));
    return true;
}

float* ToFloatArray(const void* source, long long count, int type)
{
    auto* out = static_cast<float*>(NewTypedBuffer(OrvDataSource::PDT_Float32, count > 0 ? count : 0));
    if (out && count > 0)
        ConvertToFloats(source, count, type, out);
    return out;
}

void ConvertToFloats(const void* source, long long count, int type, float* out)
{
    // Every element of a known type is overwritten, so only an unknown type needs the zeros.
    const bool converted = source && DispatchPixelType(type, [&](auto tag) {
        using T = typename decltype(tag)::type;
        const T* in = static_cast<const T*>(source);
        for (long long i = 0; i < count; ++i)
            out[i] = SampleToFloat(in[i]);
    });
    if (!converted && count > 0)
        std::memset(out, 0, static_cast<std::size_t>(count) * sizeof(float));
}

namespace {

// The drive of a folder that does not exist yet is the one of its nearest existing parent.
DriveSpace FileSystemSpace(const QString& folder)
{
    std::filesystem::path path(QFile::encodeName(folder).toStdString());
    std::error_code ec;
    while (!path.empty() && !std::filesystem::exists(path, ec) && path.has_parent_path() && path.parent_path() != path)
        path = path.parent_path();
    const auto info = std::filesystem::space(path, ec);
    if (ec)
        return {};
    return {info.free, info.available};
}

} // namespace

FreeSpaceQuery& FreeSpaceSeam()
{
    static FreeSpaceQuery query = FileSystemSpace;
    return query;
}

bool EnoughFreeSpace(const QString& outputPath, double requiredBytes)
{
    if (outputPath.startsWith('/') || outputPath.startsWith('\\'))
        return true;
    // The drive of a relative path is the file system that holds the output's folder.
    const QString folder = QFileInfo(outputPath).absolutePath();
    const float required = static_cast<float>(requiredBytes);
    const float free = static_cast<float>(FreeSpaceSeam()(folder).freeBytes);
    return !(required > free - 104857600.0f);
}
