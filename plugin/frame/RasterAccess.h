#pragma once
#include "OrvDataSource/PixelDataType.h"

#include <QString>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <type_traits>

using OrvDataSource::PixelDataType;

// 8, 16, 32 or 64 for codes 1..7; 0 otherwise.
int PixelTypeBits(int type);
// Bytes of one sample the way the workers size their disk needs: unknown types count as 1.
int BytesPerSample(int type);

// The one allocation behind every working buffer of a run: non-throwing, null when memory is
// short; `alignment` 0 takes malloc's own, else a power of two. Free with FreeWorking.
void* AllocateWorking(std::size_t bytes, std::size_t alignment = 0);
void FreeWorking(void* buffer);
// Asked before every working allocation when set: false refuses it as if memory were short, so
// tests can make any one of a run's allocations fail.
using AllocationGate = std::function<bool(std::size_t bytes)>;
AllocationGate& AllocationSeam();

// Uninitialised array of count samples of the type; null for codes outside 1..7, on overflow or
// when memory is short. Free with FreeTypedBuffer.
void* NewTypedBuffer(int type, long long count);
void FreeTypedBuffer(void* buffer);
// Zeroes (bits / 8) × count bytes; false for a null pointer.
bool ClearTypedBuffer(void* buffer, int type, long long count);
// The nearest float; beyond the float range ±infinity, as the hardware rounds, NaN kept. Inline:
// the runs call it once a sample.
inline float ToFloatSample(double value)
{
    constexpr double kMax = std::numeric_limits<float>::max();
    // Half a unit in the last place above the largest float still rounds down to it.
    constexpr double kRoundsToInfinity = kMax + 0x1p103;
    if (value > kMax)
        return value >= kRoundsToInfinity ? std::numeric_limits<float>::infinity() : std::numeric_limits<float>::max();
    if (value < -kMax)
        return value <= -kRoundsToInfinity ? -std::numeric_limits<float>::infinity() : -std::numeric_limits<float>::max();
    return static_cast<float>(value);
}
// One sample as Float32: doubles by the rule above, every other type as the hardware converts it.
template <class T>
inline float SampleToFloat(T value)
{
    if constexpr (std::is_same_v<T, double>)
        return ToFloatSample(value);
    else
        return static_cast<float>(value);
}
// A new zero-filled Float32 copy of count samples of the type (unknown types stay 0);
// a count below 1 gives a zero-length array. Free with FreeTypedBuffer; null when memory is short.
float* ToFloatArray(const void* source, long long count, int type);
// ToFloatArray's conversion into the caller's array of count floats.
void ConvertToFloats(const void* source, long long count, int type, float* out);

struct TypedBufferDeleter {
    void operator()(void* p) const { FreeTypedBuffer(p); }
};
template <class T>
using TypedBuffer = std::unique_ptr<T, TypedBufferDeleter>;

// The pixel type code of a sample type.
template <class T>
constexpr int PixelTypeOf()
{
    if constexpr (std::is_same_v<T, uint8_t>) return OrvDataSource::PDT_Byte;
    else if constexpr (std::is_same_v<T, uint16_t>) return OrvDataSource::PDT_UInt16;
    else if constexpr (std::is_same_v<T, int16_t>) return OrvDataSource::PDT_Int16;
    else if constexpr (std::is_same_v<T, uint32_t>) return OrvDataSource::PDT_UInt32;
    else if constexpr (std::is_same_v<T, int32_t>) return OrvDataSource::PDT_Int32;
    else if constexpr (std::is_same_v<T, float>) return OrvDataSource::PDT_Float32;
    else {
        static_assert(std::is_same_v<T, double>, "not a pixel sample type");
        return OrvDataSource::PDT_Float64;
    }
}

// count uninitialised samples, owned; null when refused.
template <class T>
TypedBuffer<T> NewSamples(long long count)
{
    return TypedBuffer<T>(static_cast<T*>(NewTypedBuffer(PixelTypeOf<T>(), count)));
}

// count zero samples, owned; null when refused or when count is below 1.
template <class T>
TypedBuffer<T> NewZeroedSamples(long long count)
{
    TypedBuffer<T> samples = count > 0 ? NewSamples<T>(count) : nullptr;
    if (samples)
        std::fill_n(samples.get(), count, T{});
    return samples;
}

// Calls fn(std::type_identity<T>{}) with the C++ type of a pixel type code 1..7; false otherwise.
template <class Fn>
bool DispatchPixelType(int type, Fn&& fn)
{
    switch (type) {
    case OrvDataSource::PDT_Byte: fn(std::type_identity<uint8_t>{}); return true;
    case OrvDataSource::PDT_UInt16: fn(std::type_identity<uint16_t>{}); return true;
    case OrvDataSource::PDT_Int16: fn(std::type_identity<int16_t>{}); return true;
    case OrvDataSource::PDT_UInt32: fn(std::type_identity<uint32_t>{}); return true;
    case OrvDataSource::PDT_Int32: fn(std::type_identity<int32_t>{}); return true;
    case OrvDataSource::PDT_Float32: fn(std::type_identity<float>{}); return true;
    case OrvDataSource::PDT_Float64: fn(std::type_identity<double>{}); return true;
    default: return false;
    }
}

// Free-space check before an output of predictable size is created: true when at least 100 MiB
// of the drive's free bytes would be left, or when the path begins with "/" or "\" (such paths
// are not checked).
bool EnoughFreeSpace(const QString& outputPath, double requiredBytes);

// What a drive query tells of the file system holding `folder`: its free bytes and the part of
// them this process may use. Tests replace the query to fake a full disk.
struct DriveSpace {
    unsigned long long freeBytes = 0;
    unsigned long long availableBytes = 0;
};
using FreeSpaceQuery = std::function<DriveSpace(const QString& folder)>;
FreeSpaceQuery& FreeSpaceSeam();
