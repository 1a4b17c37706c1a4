// The Fourier runs of whole rasters: forward against a direct 2-D DFT computed here in double,
// the inverse against the direct conjugate sum, round trips, progress, cancellation, refusals.
#include "AlgoHarness.h"
#include "TestSupport.h"
#include "fft/FftLanes.h"
#include "fft/FftTransform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <ostream>
#include <string>
#include <vector>

using tavtest::AlgoHarness;
using tavtest::Exists;
using tavtest::TempDir;
using tavtest::TransRecord;

namespace {

using Complex = std::complex<double>;

struct Plane {
    int width = 0;
    int height = 0;
    std::vector<double> re, im; // row-major
    Complex at(int x, int y) const { return {re[y * width + x], im[y * width + x]}; }
};

// Integer-valued pixels in 0..250, different per band: exact in every input type.
double Pixel(int band, int x, int y)
{
    const unsigned h = (static_cast<unsigned>(x) * 73856093u) ^ (static_cast<unsigned>(y) * 19349663u) ^
                       (static_cast<unsigned>(band + 1) * 83492791u);
    return static_cast<double>(h % 251u);
}

// exp(sign * 2 pi i * k / n) with k reduced mod n first, so large products keep their accuracy.
Complex Twiddle(long long k, int n, int sign)
{
    const double angle = sign * 2.0 * std::numbers::pi * static_cast<double>(((k % n) + n) % n) / n;
    return {std::cos(angle), std::sin(angle)};
}

// F(u, v) = 1/(W H) sum f(x, y) exp(+2 pi i (u x / W + v y / H)), stored at
// ((u + floor(W/2)) mod W, (v + floor(H/2)) mod H).
Plane CentredSpectrum(int band, int width, int height)
{
    Plane out{width, height, std::vector<double>(width * height), std::vector<double>(width * height)};
    for (int v = 0; v < height; ++v) {
        for (int u = 0; u < width; ++u) {
            Complex sum = 0;
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x)
                    sum += Pixel(band, x, y) * Twiddle(1LL * u * x, width, +1) * Twiddle(1LL * v * y, height, +1);
            sum /= static_cast<double>(width) * height;
            const int at = ((v + height / 2) % height) * width + (u + width / 2) % width;
            out.re[at] = sum.real();
            out.im[at] = sum.imag();
        }
    }
    return out;
}

// The real part of sum conj(S'(u, v)) exp(-2 pi i (u x / W + v y / H)), where S' is the centred
// spectrum S moved back: S'(u, v) = S((u + floor(W/2)) mod W, (v + floor(H/2)) mod H).
std::vector<double> InverseOfCentred(const Plane& s)
{
    const int w = s.width, h = s.height;
    std::vector<double> out(w * h);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            Complex sum = 0;
            for (int v = 0; v < h; ++v)
                for (int u = 0; u < w; ++u)
                    sum += std::conj(s.at((u + w / 2) % w, (v + h / 2) % h)) * Twiddle(1LL * u * x, w, -1) *
                           Twiddle(1LL * v * y, h, -1);
            out[y * w + x] = sum.real();
        }
    }
    return out;
}

double MaxAbsDifference(const std::vector<double>& a, const std::vector<double>& b)
{
    double worst = a.size() == b.size() ? 0.0 : INFINITY;
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        worst = std::max(worst, std::abs(a[i] - b[i]));
    return worst;
}

std::string WriteImage(const TempDir& dir, const std::string& name, int width, int height, int bands,
                       GDALDataType type, const tavtest::PixelFn& fn)
{
    tavtest::WriteRaster(dir.file(name), tavtest::Shape(width, height, bands, type), fn);
    return dir.file(name);
}

stTransInfo ForwardRecord(const std::string& in, const std::string& out, std::vector<int> bands)
{
    stTransInfo info = TransRecord(2, true, in, out);
    info.vecBands = std::move(bands);
    return info;
}

stTransInfo InverseRecord(const std::string& in, const std::string& out, int typeIndex)
{
    stTransInfo info = TransRecord(2, false, in, out);
    info.nOutDataType = typeIndex;
    return info;
}

// ---------------------------------------------------------------------------------------------
// Forward run against the direct DFT, and back.

struct ForwardCase {
    const char* name;
    friend void PrintTo(const ForwardCase& c, std::ostream* os) { *os << c.name; }
    int width, height;
    std::vector<int> bands; // 1-based; empty = all three
};

class ForwardSpectrum : public ::testing::TestWithParam<ForwardCase> {};

// Every selected band becomes (real, imaginary) of its centred, 1/(W H)-scaled positive-exponent DFT;
// the inverse with Float32 output gives f((W - x) mod W, (H - y) mod H): the point reflection, (0, 0)
// in place.
TEST_P(ForwardSpectrum, MatchesTheDirectDftQuadrantSwappedAndComesBackPointReflected)
{
    const ForwardCase c = GetParam();
    TempDir dir;
    const std::string in = WriteImage(dir, "in.tif", c.width, c.height, 3, GDT_Byte, Pixel);
    AlgoHarness h;
    ASSERT_TRUE(h.Run(ForwardRecord(in, dir.file("out.tif"), c.bands))) << h.Text().toStdString();

    const std::vector<int> used = c.bands.empty() ? std::vector<int>{1, 2, 3} : c.bands;
    const auto info = tavtest::Info(dir.file("out.tif"));
    ASSERT_EQ(info.bands, 2 * static_cast<int>(used.size()));
    EXPECT_EQ(info.type, GDT_Float32);
    EXPECT_EQ(info.width, c.width);
    EXPECT_EQ(info.height, c.height);
    EXPECT_TRUE(std::equal(info.gt, info.gt + 6, tavtest::kTestGeoTransform));
    EXPECT_FALSE(info.wkt.empty()) << "the coordinate system is carried over";
    for (size_t i = 0; i < used.size(); ++i) {
        const Plane want = CentredSpectrum(used[i] - 1, c.width, c.height);
        // Pixels are at most 250; single precision keeps the spectrum to a few 1e-5 of that.
        EXPECT_LT(MaxAbsDifference(tavtest::ReadBand(dir.file("out.tif"), 2 * i + 1), want.re), 2e-3)
            << "real part of selected band " << used[i];
        EXPECT_LT(MaxAbsDifference(tavtest::ReadBand(dir.file("out.tif"), 2 * i + 2), want.im), 2e-3)
            << "imaginary part of selected band " << used[i];
    }

    ASSERT_TRUE(h.Run(InverseRecord(dir.file("out.tif"), dir.file("back.tif"), 5))) << h.Text().toStdString();
    ASSERT_EQ(tavtest::Info(dir.file("back.tif")).bands, static_cast<int>(used.size()));
    for (size_t i = 0; i < used.size(); ++i) {
        std::vector<double> want(c.width * c.height);
        for (int y = 0; y < c.height; ++y)
            for (int x = 0; x < c.width; ++x)
                want[y * c.width + x] = Pixel(used[i] - 1, (c.width - x) % c.width, (c.height - y) % c.height);
        EXPECT_LT(MaxAbsDifference(tavtest::ReadBand(dir.file("back.tif"), i + 1), want), 2e-3)
            << "round trip of selected band " << used[i];
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, ForwardSpectrum,
    ::testing::Values(ForwardCase{"OneByOne", 1, 1, {2}}, ForwardCase{"FourByFour", 4, 4, {3, 1}},
                      ForwardCase{"FiveByThree", 5, 3, {3, 1}}, ForwardCase{"SevenBySixteen", 7, 16, {3, 1}},
                      // wider than one column batch, with a short last batch
                      ForwardCase{"FortyBySix", 40, 6, {2}}, ForwardCase{"SixByOne", 6, 1, {1}},
                      ForwardCase{"OneByNine", 1, 9, {3}},
                      ForwardCase{"EveryBandInOrder", 6, 5, {1, 2, 3}},
                      ForwardCase{"ABandTwice", 3, 4, {2, 2}}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// Inverse run against the direct conjugate sum, and the round trip.

struct InverseCase {
    const char* name;
    friend void PrintTo(const InverseCase& c, std::ostream* os) { *os << c.name; }
    int width, height;
    int inputBands; // an odd last band has no partner
};

class InverseImage : public ::testing::TestWithParam<InverseCase> {};

// Any pair of bands (not only a real image's spectrum) comes back as the real part of the
// conjugated, un-centred, negative-exponent sum without scaling; an odd last band is not used.
TEST_P(InverseImage, MatchesTheDirectConjugateSum)
{
    const InverseCase c = GetParam();
    TempDir dir;
    const std::string in = WriteImage(dir, "spectrum.tif", c.width, c.height, c.inputBands, GDT_Float32,
                                      [](int b, int x, int y) { return (Pixel(b, x, y) - 125.0) / 50.0; });
    AlgoHarness h;
    ASSERT_TRUE(h.Run(InverseRecord(in, dir.file("out.tif"), 5))) << h.Text().toStdString();
    const auto info = tavtest::Info(dir.file("out.tif"));
    ASSERT_EQ(info.bands, c.inputBands / 2);
    EXPECT_EQ(info.type, GDT_Float32);
    EXPECT_TRUE(std::equal(info.gt, info.gt + 6, tavtest::kTestGeoTransform));
    EXPECT_FALSE(info.wkt.empty());
    for (int i = 0; i < info.bands; ++i) {
        Plane s{c.width, c.height, tavtest::ReadBand(in, 2 * i + 1), tavtest::ReadBand(in, 2 * i + 2)};
        // Sums of W H terms of size 2.5 at most.
        EXPECT_LT(MaxAbsDifference(tavtest::ReadBand(dir.file("out.tif"), i + 1), InverseOfCentred(s)), 1e-3)
            << "output band " << i + 1;
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, InverseImage,
                         ::testing::Values(InverseCase{"FourByFour", 4, 4, 2},
                                           InverseCase{"ThreeBandsGiveOne", 5, 3, 3},
                                           InverseCase{"FiveBandsGiveTwo", 3, 8, 5}, InverseCase{"OneByOne", 1, 1, 2},
                                           InverseCase{"ThirtyFiveByFour", 35, 4, 2}),
                         [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// Rows and columns are shared among threads (lanes); the output is the same on any number of them.

// Sets the lanes of the runs in a scope, then back to the default.
struct LanesFor {
    explicit LanesFor(int lanes) { SetFftLanes(lanes); }
    ~LanesFor() { SetFftLanes(0); }
};

struct LanesCase {
    const char* name;
    friend void PrintTo(const LanesCase& c, std::ostream* os) { *os << c.name; }
    int width, height;
};

class Lanes : public ::testing::TestWithParam<LanesCase> {};

TEST_P(Lanes, GiveTheSameBitsOnAnyNumberAndMatchTheDirectDft)
{
    const LanesCase c = GetParam();
    TempDir dir;
    const std::string in = WriteImage(dir, "in.tif", c.width, c.height, 1, GDT_Byte, Pixel);
    const Plane want = CentredSpectrum(0, c.width, c.height);
    std::vector<double> firstRe, firstIm, firstBack;
    for (const int lanes : {1, 2, 3, 5}) {
        LanesFor scope(lanes);
        AlgoHarness h;
        const std::string out = dir.file("out" + std::to_string(lanes) + ".tif");
        const std::string back = dir.file("back" + std::to_string(lanes) + ".tif");
        ASSERT_TRUE(h.Run(ForwardRecord(in, out, {1}))) << h.Text().toStdString();
        ASSERT_TRUE(h.Run(InverseRecord(out, back, 5))) << h.Text().toStdString();
        const auto re = tavtest::ReadBand(out, 1), im = tavtest::ReadBand(out, 2), b = tavtest::ReadBand(back, 1);
        EXPECT_LT(MaxAbsDifference(re, want.re), 2e-3) << lanes << " lanes";
        EXPECT_LT(MaxAbsDifference(im, want.im), 2e-3) << lanes << " lanes";
        if (firstRe.empty()) {
            firstRe = re;
            firstIm = im;
            firstBack = b;
            continue;
        }
        EXPECT_EQ(re, firstRe) << lanes << " lanes against one";
        EXPECT_EQ(im, firstIm) << lanes << " lanes against one";
        EXPECT_EQ(b, firstBack) << lanes << " lanes against one";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, Lanes,
    ::testing::Values(LanesCase{"OneByNine", 1, 9}, LanesCase{"NineByOne", 9, 1},
                      // fewer rows than lanes
                      LanesCase{"FiveByThree", 5, 3}, LanesCase{"SixtySevenByTwo", 67, 2},
                      // a prime above the direct stages, three rounds of column batches on two lanes
                      LanesCase{"OneThirtyOneBySeven", 131, 7}),
    [](const auto& info) { return std::string(info.param.name); });

struct PointCase {
    const char* name;
    friend void PrintTo(const PointCase& c, std::ostream* os) { *os << c.name; }
    int width, height, x0, y0, lanes;
};

class RowBlocks : public ::testing::TestWithParam<PointCase> {};

// A point of value W H at (x0, y0) has the unit spectrum exp(+2 pi i (u x0 / W + v y0 / H)).
TEST_P(RowBlocks, APointAcrossThreeBlocksTransformsAndReturnsReflected)
{
    const PointCase c = GetParam();
    const int w = c.width, hgt = c.height, x0 = c.x0, y0 = c.y0;
    const double v = static_cast<double>(w) * hgt;
    LanesFor scope(c.lanes);
    TempDir dir;
    const std::string in = WriteImage(dir, "point.tif", w, hgt, 1, GDT_Float32,
                                      [&](int, int x, int y) { return x == x0 && y == y0 ? v : 0.0; });
    AlgoHarness h;
    ASSERT_TRUE(h.Run(ForwardRecord(in, dir.file("spectrum.tif"), {1})));
    const auto re = tavtest::ReadBand(dir.file("spectrum.tif"), 1);
    const auto im = tavtest::ReadBand(dir.file("spectrum.tif"), 2);
    double worst = 0;
    for (int y = 0; y < hgt; ++y) {
        for (int x = 0; x < w; ++x) {
            const int u = (x - w / 2 + w) % w, vv = (y - hgt / 2 + hgt) % hgt;
            const Complex want = Twiddle(1LL * u * x0, w, +1) * Twiddle(1LL * vv * y0, hgt, +1);
            const size_t at = static_cast<size_t>(y) * w + x;
            worst = std::max({worst, std::abs(re[at] - want.real()), std::abs(im[at] - want.imag())});
        }
    }
    EXPECT_LT(worst, 1e-4);

    ASSERT_TRUE(h.Run(InverseRecord(dir.file("spectrum.tif"), dir.file("back.tif"), 5)));
    const auto back = tavtest::ReadBand(dir.file("back.tif"), 1);
    const size_t peak = static_cast<size_t>(hgt - y0) * w + (w - x0);
    EXPECT_NEAR(back[peak], v, 1e-5 * v);
    double rest = 0;
    for (size_t i = 0; i < back.size(); ++i)
        if (i != peak)
            rest = std::max(rest, std::abs(back[i]));
    EXPECT_LT(rest, 1e-5 * v);
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, RowBlocks,
    // 65536 columns leave 16 rows per 4 MiB block, so 37 rows make blocks of 16, 16 and 5 rows;
    // 80659 columns leave 13, so groups of four rows straddle the blocks.
    ::testing::Values(PointCase{"SixteenSixteenFive", 65536, 37, 12345, 34, 0},
                      PointCase{"ThirteenThirteenFourOnThreeLanes", 80659, 30, 80001, 13, 3}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// The declared output type of the inverse: the float samples are written under it as they are.

struct DeclaredTypeCase {
    const char* name;
    friend void PrintTo(const DeclaredTypeCase& c, std::ostream* os) { *os << c.name; }
    int typeIndex;
    GDALDataType type;
    std::vector<double> firstPixels; // what the bytes of 1.0f (00 00 80 3F) read as under the type
};

class DeclaredType : public ::testing::TestWithParam<DeclaredTypeCase> {};

// The inverse of (1 at the centre, 0 elsewhere) is the constant 1.0f, so the block starts
// with W H floats of 1.0f followed by W H imaginary zeros; every type but Float32 sees those bytes.
TEST_P(DeclaredType, ReinterpretsTheFloatBlockUnderTheChosenType)
{
    const DeclaredTypeCase c = GetParam();
    const int w = 4, hgt = 2;
    TempDir dir;
    const std::string in = WriteImage(dir, "spectrum.tif", w, hgt, 2, GDT_Float32, [&](int b, int x, int y) {
        return b == 0 && x == w / 2 && y == hgt / 2 ? 1.0 : 0.0;
    });
    AlgoHarness h;
    ASSERT_TRUE(h.Run(InverseRecord(in, dir.file("out.tif"), c.typeIndex)));
    EXPECT_EQ(tavtest::Info(dir.file("out.tif")).type, c.type);
    const auto got = tavtest::ReadBand(dir.file("out.tif"), 1);
    ASSERT_EQ(got.size(), c.firstPixels.size());
    // The tolerance only lets a signed zero's bits pass as the denormal they make under Float64.
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_NEAR(got[i], c.firstPixels[i], 1e-300) << "pixel " << i;
}

// 1.0f and 1.0f side by side read as one double: 2^-7 (1 + 0x3F800000 / 2^52).
const double kTwoOnesAsDouble = std::ldexp(1.0 + std::ldexp(1065353216.0, -52), -7);

INSTANTIATE_TEST_SUITE_P(
    EveryIndex, DeclaredType,
    ::testing::Values(DeclaredTypeCase{"Byte", 0, GDT_Byte, {0, 0, 128, 63, 0, 0, 128, 63}},
                      DeclaredTypeCase{"UInt16", 1, GDT_UInt16, {0, 16256, 0, 16256, 0, 16256, 0, 16256}},
                      DeclaredTypeCase{"Int16", 2, GDT_Int16, {0, 16256, 0, 16256, 0, 16256, 0, 16256}},
                      DeclaredTypeCase{"UInt32", 3, GDT_UInt32, std::vector<double>(8, 1065353216.0)},
                      DeclaredTypeCase{"Int32", 4, GDT_Int32, std::vector<double>(8, 1065353216.0)},
                      DeclaredTypeCase{"Float32", 5, GDT_Float32, std::vector<double>(8, 1.0)},
                      DeclaredTypeCase{"Float64", 6, GDT_Float64,
                                       {kTwoOnesAsDouble, kTwoOnesAsDouble, kTwoOnesAsDouble, kTwoOnesAsDouble, //
                                        0, 0, 0, 0}}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// Progress.

struct ProgressCase {
    const char* name;
    friend void PrintTo(const ProgressCase& c, std::ostream* os) { *os << c.name; }
    bool forward;
    int width, height, bands;
    std::vector<double> percents; // worked out by hand from the pass formulas, Execute's 0 and 100 included
};

class ProgressReports : public ::testing::TestWithParam<ProgressCase> {};

std::vector<int> EveryBand(int count)
{
    std::vector<int> bands;
    for (int b = 1; b <= count; ++b)
        bands.push_back(b);
    return bands;
}

TEST_P(ProgressReports, FollowTheWorkUnitsOfEachPass)
{
    const ProgressCase c = GetParam();
    TempDir dir;
    const std::string in = WriteImage(dir, "in.tif", c.width, c.height, c.bands, GDT_Float32, Pixel);
    AlgoHarness h;
    const std::string out = dir.file("out.tif");
    ASSERT_TRUE(h.Run(c.forward ? ForwardRecord(in, out, EveryBand(c.bands)) : InverseRecord(in, out, 5)));
    const auto got = h.Percents();
    ASSERT_EQ(got.size(), c.percents.size());
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_NEAR(got[i], c.percents[i], 1e-4) << "report " << i;
    const QString message = c.forward ? "Forward FFT Transform is running..." : "Inverse FFT Transform is running...";
    for (size_t i = 1; i + 1 < h.events.size(); ++i) {
        EXPECT_EQ(h.events[i].message, message) << "report " << i;
        EXPECT_EQ(h.events[i].context, &h.algo());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Runs, ProgressReports,
    ::testing::Values(
        // P = 36: band 0, block 0, columns (12 + x) / P, rows (24 + y) / P.
        ProgressCase{"ForwardFourByThree", true, 4, 3, 1,
                     {0, 0, 0, 1200.0 / 36, 1300.0 / 36, 1400.0 / 36, 1500.0 / 36, 2400.0 / 36, 2500.0 / 36,
                      2600.0 / 36, 100}},
        // P = 24 over two bands: the second band starts at 50 %.
        ProgressCase{"ForwardTwoBandsTwoByTwo", true, 2, 2, 2,
                     {0, 0, 0, 400.0 / 24, 500.0 / 24, 800.0 / 24, 900.0 / 24, 50, 50, 1600.0 / 24, 1700.0 / 24,
                      2000.0 / 24, 2100.0 / 24, 100}},
        // P = 36: band 0, rows y / P, block 0 at 12 / P, columns (24 + x) / P.
        ProgressCase{"InverseFourByThree", false, 4, 3, 2,
                     {0, 0, 0, 100.0 / 36, 200.0 / 36, 1200.0 / 36, 2400.0 / 36, 2500.0 / 36, 2600.0 / 36,
                      2700.0 / 36, 100}}),
    [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// Refusals: each is decided before an output exists and says why.

enum class Input { Good, Wide, OneBand, Missing, NotARaster };

struct RefusalCase {
    const char* name;
    friend void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }
    bool forward;
    Input input;
    std::vector<int> bands;
    int typeIndex;
    bool outputFolderMissing;
    const char* textPart;
};

class Refusal : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(Refusal, FailsWithAClearTextAndCreatesNothing)
{
    const RefusalCase c = GetParam();
    TempDir dir;
    std::string in = dir.file("in.tif");
    switch (c.input) {
    case Input::Good: WriteImage(dir, "in.tif", 4, 3, 2, GDT_Byte, Pixel); break;
    case Input::Wide: WriteImage(dir, "in.tif", 1048577, 1, 2, GDT_Byte, [](int, int, int) { return 1; }); break;
    case Input::OneBand: WriteImage(dir, "in.tif", 4, 3, 1, GDT_Float32, Pixel); break;
    case Input::Missing: in = dir.file("missing.tif"); break;
    case Input::NotARaster: tavtest::WriteText(in, "not a raster"); break;
    }
    const std::string out = c.outputFolderMissing ? dir.file("no-such-folder/out.tif") : dir.file("out.tif");
    const QString qin = QString::fromStdString(in), qout = QString::fromStdString(out);

    AlgoHarness h;
    TavTransFFTFuncNew worker(h.algo().Context());
    const bool ok = c.forward ? worker.ForwardRun(qin, qout, "GTiff", c.bands)
                              : worker.InverseRun(qin, qout, c.typeIndex, "GTiff");
    EXPECT_FALSE(ok);
    // The failures a host explains itself carry no text.
    if (*c.textPart)
        EXPECT_TRUE(worker.ErrorText().contains(c.textPart)) << worker.ErrorText().toStdString();
    else
        EXPECT_TRUE(worker.ErrorText().isEmpty()) << worker.ErrorText().toStdString();
    EXPECT_FALSE(Exists(out)) << "nothing is created before the refusal";

    stTransInfo record = c.forward ? ForwardRecord(in, out, c.bands) : InverseRecord(in, out, c.typeIndex);
    EXPECT_FALSE(h.Run(record));
    EXPECT_EQ(h.Code(), 1);
    EXPECT_EQ(h.Text(), worker.ErrorText()) << "Execute hands the worker's text to the host";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Refusal,
    ::testing::Values(
        RefusalCase{"ForwardTooWide", true, Input::Wide, {}, 5, false, "wider than 1048576 columns"},
        RefusalCase{"InverseTooWide", false, Input::Wide, {}, 5, false, "wider than 1048576 columns"},
        RefusalCase{"TypeIndexBelowZero", false, Input::Good, {}, -1, false, "Invalid output data type"},
        RefusalCase{"TypeIndexAboveSix", false, Input::Good, {}, 7, false, "Invalid output data type"},
        RefusalCase{"BandZero", true, Input::Good, {1, 0}, 5, false, "Band 0 does not exist"},
        RefusalCase{"BandAboveCount", true, Input::Good, {3}, 5, false, "Band 3 does not exist"},
        // No pair means no output band, and a band-less output cannot be created.
        RefusalCase{"InverseWithoutABandPair", false, Input::OneBand, {}, 5, false, ""},
        RefusalCase{"ForwardEmptyBandList", true, Input::Good, {}, 5, false, ""},
        RefusalCase{"InverseMissingInput", false, Input::Missing, {}, 5, false, ""},
        RefusalCase{"ForwardInputNotARaster", true, Input::NotARaster, {1}, 5, false, ""},
        RefusalCase{"ForwardOutputFolderMissing", true, Input::Good, {1}, 5, true, ""},
        RefusalCase{"InverseOutputFolderMissing", false, Input::Good, {}, 5, true, ""}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace

namespace {

// A scene replaced under the input's name while a run goes (at its first poll, before any pixel
// is read) does not reach that run: both directions read every band from the dataset they opened.
TEST(OneScene, AReplacedInputDoesNotReachARunUnderWay)
{
    TempDir dir;
    const auto first = [](int b, int x, int y) { return 10.0 * b + x * y; };
    const auto second = [](int b, int x, int y) { return 500.0 - b - x - 3 * y; };
    for (const bool forward : {true, false}) {
        const std::string in = forward ? WriteImage(dir, "in.tif", 9, 7, 2, GDT_Float32, first)
                                       : WriteImage(dir, "in.tif", 9, 7, 4, GDT_Float32, first);
        WriteImage(dir, "other.tif", 9, 7, forward ? 2 : 4, GDT_Float32, second);
        const auto record = [&](const std::string& out) {
            return forward ? ForwardRecord(in, out, {1, 2}) : InverseRecord(in, out, 5);
        };
        AlgoHarness clean;
        ASSERT_TRUE(clean.Run(record(dir.file("clean.tif"))));
        AlgoHarness h;
        bool swapped = false;
        h.algo().Context().SetPollHook([&] {
            if (!swapped)
                swapped = std::rename(dir.file("other.tif").c_str(), in.c_str()) == 0;
        });
        ASSERT_TRUE(h.Run(record(dir.file("swapped.tif"))));
        ASSERT_TRUE(swapped);
        for (int b = 1; b <= (forward ? 4 : 2); ++b)
            EXPECT_EQ(tavtest::ReadBand(dir.file("swapped.tif"), b), tavtest::ReadBand(dir.file("clean.tif"), b))
                << (forward ? "forward" : "inverse") << " band " << b;
    }
}

} // namespace
