#include "AlgoHarness.h"
#include "TestSupport.h"
#include "frame/BlockPipeline.h"
#include "frame/RasterAccess.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>

namespace {

TEST(PixelTypeBits, KnownCodesAndEverythingElse)
{
    const int expected[] = {0, 8, 16, 16, 32, 32, 32, 64, 0, 0, 0, 0};
    for (int code = 0; code < 12; ++code)
        EXPECT_EQ(PixelTypeBits(code), expected[code]) << code;
    EXPECT_EQ(PixelTypeBits(-1), 0);
}

TEST(NewTypedBuffer, RefusesUnknownTypesNegativeCountsAndOverflow)
{
    for (int code : {0, 8, 9, 10, 11, -1})
        EXPECT_EQ(NewTypedBuffer(code, 16), nullptr) << code;
    EXPECT_EQ(NewTypedBuffer(7, std::numeric_limits<long long>::max() / 2), nullptr) << "byte count overflows";
    EXPECT_EQ(NewTypedBuffer(7, std::numeric_limits<long long>::max() / 8), nullptr) << "memory is short";
    EXPECT_EQ(NewTypedBuffer(6, -1), nullptr);
    TypedBuffer<void> ok(NewTypedBuffer(7, 3));
    EXPECT_NE(ok.get(), nullptr);
    TypedBuffer<void> empty(NewTypedBuffer(1, 0));
    EXPECT_NE(empty.get(), nullptr) << "a zero-length array is still an array";
}

TEST(ClearTypedBuffer, ZeroesExactlyTheTypesBytes)
{
    EXPECT_FALSE(ClearTypedBuffer(nullptr, 6, 10));
    uint8_t bytes[12];
    for (int code : {1, 3, 6, 7, 8}) {
        std::fill(std::begin(bytes), std::end(bytes), 0xAB);
        EXPECT_TRUE(ClearTypedBuffer(bytes, code, 1));
        const int cleared = PixelTypeBits(code) / 8;
        for (int i = 0; i < 12; ++i)
            EXPECT_EQ(bytes[i], i < cleared ? 0 : 0xAB) << "code " << code << " byte " << i;
    }
}

TEST(ToFloatArray, ConvertsEachTypeByValue)
{
    const int16_t i16[] = {-1, 32767};
    const uint16_t u16[] = {65535, 0};
    const uint32_t u32[] = {4294967295u, 16777217u};
    const int32_t i32[] = {-2147483647 - 1, 7};
    const double f64[] = {1e300, -0.1};
    const double f64Edges[] = {-1e300, 3.4028235e38};
    const uint8_t u8[] = {255, 1};
    struct Case { const void* src; int type; float a, b; };
    const Case cases[] = {
        {u8, 1, 255.0f, 1.0f},
        {u16, 2, 65535.0f, 0.0f},
        {i16, 3, -1.0f, 32767.0f},
        {u32, 4, 4294967296.0f, 16777216.0f}, // nearest floats
        {i32, 5, -2147483648.0f, 7.0f},
        {f64, 7, std::numeric_limits<float>::infinity(), -0.1f},
        // just above the largest float but nearer to it than to infinity
        {f64Edges, 7, -std::numeric_limits<float>::infinity(), std::numeric_limits<float>::max()},
        {u8, 9, 0.0f, 0.0f}, // complex: left at 0
    };
    for (const Case& c : cases) {
        TypedBuffer<float> out(ToFloatArray(c.src, 2, c.type));
        ASSERT_NE(out.get(), nullptr);
        EXPECT_EQ(out.get()[0], c.a) << "type " << c.type;
        EXPECT_EQ(out.get()[1], c.b) << "type " << c.type;
    }
    TypedBuffer<float> none(ToFloatArray(u8, 0, 1));
    EXPECT_NE(none.get(), nullptr);
}

TEST(DispatchPixelType, HandsTheMatchingCppType)
{
    EXPECT_TRUE(DispatchPixelType(3, [](auto tag) { EXPECT_TRUE((std::is_same_v<typename decltype(tag)::type, int16_t>)); }));
    EXPECT_TRUE(DispatchPixelType(7, [](auto tag) { EXPECT_TRUE((std::is_same_v<typename decltype(tag)::type, double>)); }));
    EXPECT_FALSE(DispatchPixelType(8, [](auto) { ADD_FAILURE(); }));
}

constexpr double MiB = 1024.0 * 1024.0;

// The drive's free bytes count, not the caller's share of them (reserved blocks aside), with 100 MiB
// left over, compared in single precision.
TEST(FreeSpace, LeavesAHundredMebibytesOfTheDrivesFreeBytes)
{
    {
        tavtest::FakeFreeSpace drive(static_cast<unsigned long long>(300 * MiB), 0);
        EXPECT_TRUE(EnoughFreeSpace("out.tif", 200 * MiB)) << "exactly 100 MiB left is enough";
        EXPECT_TRUE(EnoughFreeSpace("out.tif", 200 * MiB + 1)) << "one byte over vanishes in a float";
        EXPECT_FALSE(EnoughFreeSpace("out.tif", 200 * MiB + 64));
        EXPECT_EQ(drive.asked, QFileInfo("out.tif").absolutePath());
    }
    tavtest::FakeFreeSpace nearlyFull(50 * 1024 * 1024);
    EXPECT_FALSE(EnoughFreeSpace("sub/out.tif", 0)) << "a nearly full disk refuses even an empty output";
    EXPECT_FALSE(EnoughFreeSpace("./out.tif", 1));
    EXPECT_TRUE(EnoughFreeSpace("/data/out.tif", 1e12)) << "paths from the root are not checked";
    EXPECT_TRUE(EnoughFreeSpace("\\\\server\\share\\out.tif", 1e12)) << "nor network shares";
}

TEST(FreeSpaceQueryDefault, AsksTheRealFileSystemAlsoForAFolderNotMadeYet)
{
    const auto temp = QString::fromStdString(std::filesystem::temp_directory_path().string());
    EXPECT_GT(FreeSpaceSeam()(temp).freeBytes, 0u);
    EXPECT_GT(FreeSpaceSeam()(temp + "/no-such-folder/deeper").freeBytes, 0u);
}

} // namespace

// Each block computed once, in order, and no slot filled again before its block is computed;
// with or without an after-compute step.
TEST(BlockPipeline, StreamsEveryBlockOnceThroughItsSlots)
{
    for (const bool withDone : {false, true}) {
        std::vector<int> slotHolds(2, -1), order, done;
        std::array<std::atomic<int>, 7> times{};
        BlockPipeline pipe(2, [&](int b) {
            order.push_back(slotHolds[b % 2] == b ? b : -1);
            ++times[b];
        });
        ASSERT_TRUE(pipe.Ready());
        const std::function<bool(int)> after = [&](int b) { done.push_back(b); return true; };
        EXPECT_TRUE(pipe.Stream(7, [&](int b) {
            const int held = slotHolds[b % 2];
            EXPECT_TRUE(held < 0 || times[held] == 1) << "block " << b << " fills over " << held;
            slotHolds[b % 2] = b;
            return true;
        }, withDone ? after : std::function<bool(int)>()));
        EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6}));
        EXPECT_EQ(done, withDone ? order : std::vector<int>());
    }
}
