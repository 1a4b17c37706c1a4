#include "WaveletReference.h"
#include "wavelet/WaveletKernel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using WaveletKernel::LineScratchSize;
using namespace wavelettest;

// The product's taps are rounded to seven decimals (off by up to 5e-8) and its
// arithmetic is single precision (ulp 6e-8). Measured worst cases relative to
// the peak magnitude of the input: one pass 3.2e-7, rows and columns 4.7e-7,
// forward then inverse 7.3e-7.
constexpr double kLineTolerance = 6e-7;
constexpr double kRoundTripTolerance = 1e-6;

std::vector<float> RandomImage(std::size_t count, float lo, float hi, unsigned seed)
{
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> v(count);
    for (auto& x : v)
        x = dist(gen);
    return v;
}

double PeakMagnitude(const std::vector<float>& v)
{
    double peak = 0;
    for (float x : v)
        peak = std::max(peak, std::fabs(double(x)));
    return peak;
}

std::vector<float> ForwardLine(const std::vector<float>& x)
{
    std::vector<float> y(x.size()), scratch(LineScratchSize(x.size()));
    WaveletKernel::ForwardLine(x.data(), y.data(), x.size(), scratch.data());
    return y;
}

std::vector<float> InverseLine(const std::vector<float>& y)
{
    std::vector<float> x(y.size()), scratch(LineScratchSize(y.size()));
    WaveletKernel::InverseLine(y.data(), x.data(), y.size(), scratch.data());
    return x;
}

double MaxDifference(const std::vector<float>& a, const std::vector<double>& b)
{
    double d = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        d = std::max(d, std::fabs(double(a[i]) - b[i]));
    return d;
}

double MaxDifference(const std::vector<float>& a, const std::vector<float>& b)
{
    return MaxDifference(a, std::vector<double>(b.begin(), b.end()));
}

std::vector<std::uint32_t> Bits(const std::vector<float>& v)
{
    std::vector<std::uint32_t> bits(v.size());
    std::memcpy(bits.data(), v.data(), v.size() * sizeof(float));
    return bits;
}

// --- Forward line against the definition -------------------------------------------------------

class ForwardLineSizes : public ::testing::TestWithParam<std::size_t> {};

// Protects the taps, the left boundary value, the zero padding and the placement.
TEST_P(ForwardLineSizes, MatchesDoubleComputationWithExactTaps)
{
    const std::size_t n = GetParam();
    const auto x = RandomImage(n, -500.0f, 500.0f, unsigned(n));
    const auto expected = ReferenceLine(std::vector<double>(x.begin(), x.end()));
    EXPECT_LE(MaxDifference(ForwardLine(x), expected), kLineTolerance * PeakMagnitude(x));
}

INSTANTIATE_TEST_SUITE_P(EvenAndOdd, ForwardLineSizes,
                         ::testing::Values(1, 2, 3, 4, 5, 6, 7, 8, 9, 16, 33, 64, 101));

// Hand-computed lines of five samples: two low-pass values, then three
// high-pass values from index 2, the first of them over the third low-pass value.
struct HandLine {
    const char* name;
    std::array<float, 5> x;
    std::array<double, 5> y;
};

class OddWidthOverwrite : public ::testing::TestWithParam<HandLine> {};

TEST_P(OddWidthOverwrite, ThirdLowPassSlotHoldsFirstHighPassValue)
{
    const HandLine& c = GetParam();
    const auto y = ForwardLine(std::vector<float>(c.x.begin(), c.x.end()));
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_NEAR(y[i], c.y[i], 1e-6) << "index " << i;
}

INSTANTIATE_TEST_SUITE_P(
    FiveSamples, OddWidthOverwrite,
    ::testing::Values(
        // L = lo0, 0, (0); H0 = hi0 e0 + hi2 with e0 = -lo2/lo0, that is √3/(1 + √3); H1 = hi0.
        HandLine{"FirstImpulse", {1, 0, 0, 0, 0},
                 {(1 + std::sqrt(3.0)) / 8, 0, std::sqrt(3.0) / (1 + std::sqrt(3.0)), (1 - std::sqrt(3.0)) / 8, 0}},
        // L = 0, lo2, (lo0 lost); H = 0, 0, hi2.
        HandLine{"LastImpulse", {0, 0, 0, 0, 1}, {0, (3 - std::sqrt(3.0)) / 8, 0, 0, (3 + std::sqrt(3.0)) / 8}},
        // L = 1, 1 - lo3, (lo0 + lo1 lost); e0 = -(lo2 + lo3)/lo0 = 5 - 3√3, so
        // H0 = hi0 e0 + hi2 + hi3 = 2 - √3; H1 = 0; H2 = hi0 + hi1 + hi2 = (1 + √3)/8.
        HandLine{"Constant", {1, 1, 1, 1, 1},
                 {1, (7 + std::sqrt(3.0)) / 8, 2 - std::sqrt(3.0), 0, (1 + std::sqrt(3.0)) / 8}}),
    [](const auto& info) { return std::string(info.param.name); });

// --- Round trips -----------------------------------------------------------------------------

class LineRoundTrip : public ::testing::TestWithParam<std::size_t> {};

// Protects the synthesis border terms: both ends of even and odd lines.
TEST_P(LineRoundTrip, InverseReturnsTheLine)
{
    const std::size_t n = GetParam();
    const auto x = RandomImage(n, -1.0f, 1.0f, unsigned(100 + n));
    EXPECT_LE(MaxDifference(InverseLine(ForwardLine(x)), x), kRoundTripTolerance * PeakMagnitude(x));
}

INSTANTIATE_TEST_SUITE_P(OneToForty, LineRoundTrip, ::testing::Range<std::size_t>(1, 41));

// The taps are the stored seven-decimal values, not the exact ones: a unit sample at index 2 or 3
// of a line hands each of them back alone.
TEST(WaveletTaps, AreTheStoredSevenDecimalValues)
{
    std::vector<float> unit2(8, 0.0f), unit3(8, 0.0f);
    unit2[2] = unit3[3] = 1.0f;
    const auto a = ForwardLine(unit2), b = ForwardLine(unit3);
    EXPECT_EQ(a[1], 0.3415064f);
    EXPECT_EQ(b[1], 0.5915064f);
    EXPECT_EQ(a[0], 0.1584937f);
    EXPECT_EQ(b[0], -0.0915063f);
    EXPECT_EQ(a[6], -0.0915063f);
    EXPECT_EQ(b[6], -0.1584937f);
    EXPECT_EQ(a[5], 0.5915064f);
    EXPECT_EQ(b[5], -0.3415064f);
}

// Lines may be transformed in place: the raster runs reuse one buffer.
TEST(WaveletLines, InPlaceEqualsOutOfPlace)
{
    const std::size_t n = 13;
    const auto line = RandomImage(n, -10, 10, 5);
    std::vector<float> scratch(LineScratchSize(n)), inPlace = line;
    WaveletKernel::ForwardLine(inPlace.data(), inPlace.data(), n, scratch.data());
    EXPECT_EQ(Bits(inPlace), Bits(ForwardLine(line)));
    inPlace = line;
    WaveletKernel::InverseLine(inPlace.data(), inPlace.data(), n, scratch.data());
    EXPECT_EQ(Bits(inPlace), Bits(InverseLine(line)));
}

}  // namespace
