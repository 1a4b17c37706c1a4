// The FFT kernel checked against a naive DFT evaluated in long double.
#include "fft/FftKernel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <map>
#include <numeric>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using LComplex = std::complex<long double>;

// Relative L2 error allowed for a transform of n points: single-precision rounding grows
// with the number of passes, i.e. with log2(n).
double errorBound(long long n)
{
    return 3e-8 * (std::log2(static_cast<double>(n)) + 4.0);
}

struct Data {
    std::vector<float> re, im;
};

Data randomData(std::size_t n, unsigned seed)
{
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    Data d{std::vector<float>(n), std::vector<float>(n)};
    for (std::size_t i = 0; i < n; ++i) {
        d.re[i] = dist(gen);
        d.im[i] = dist(gen);
    }
    return d;
}

std::vector<LComplex> toComplex(const Data& d)
{
    std::vector<LComplex> x(d.re.size());
    for (std::size_t i = 0; i < x.size(); ++i) x[i] = {d.re[i], d.im[i]};
    return x;
}

// X[k] = sum_j x[j] exp(sign*2*pi*i*j*k/n) along every dimension, first dimension fastest.
std::vector<LComplex> naiveDft(std::vector<LComplex> x, const std::vector<int>& dims, int sign)
{
    const long double pi = 3.141592653589793238462643383279502884L;
    std::size_t span = 1;
    for (const int n : dims) {
        std::vector<long double> wr(n), wi(n);
        for (int t = 0; t < n; ++t) {
            wr[t] = std::cos(2.0L * pi * t / n);
            wi[t] = sign * std::sin(2.0L * pi * t / n);
        }
        const std::size_t outerStep = span * n;
        std::vector<LComplex> line(n);
        for (std::size_t outer = 0; outer < x.size(); outer += outerStep)
            for (std::size_t inner = 0; inner < span; ++inner) {
                const std::size_t base = outer + inner;
                for (int k = 0; k < n; ++k) {
                    long double sr = 0, si = 0;
                    long long t = 0;  // j*k mod n
                    for (int j = 0; j < n; ++j) {
                        const LComplex v = x[base + j * span];
                        sr += v.real() * wr[t] - v.imag() * wi[t];
                        si += v.real() * wi[t] + v.imag() * wr[t];
                        t += k;
                        if (t >= n) t -= n;
                    }
                    line[k] = {sr, si};
                }
                for (int k = 0; k < n; ++k) x[base + k * span] = line[k];
            }
        span = outerStep;
    }
    return x;
}

// A fixed random signal of length n and its forward transform, computed once per length.
// The backward transform is checked on the conjugate signal, whose answer is the conjugate.
struct Reference {
    Data input;
    std::vector<LComplex> forward;
};

const Reference& referenceFor(int n)
{
    static std::map<int, Reference> cache;
    auto it = cache.find(n);
    if (it == cache.end()) {
        Reference r{randomData(n, 1000u + n), {}};
        r.forward = naiveDft(toComplex(r.input), {n}, -1);
        it = cache.emplace(n, std::move(r)).first;
    }
    return it->second;
}

// Input and expected output for a transform of the given sign.
std::pair<Data, std::vector<LComplex>> caseFor(int n, int sign)
{
    const Reference& r = referenceFor(n);
    if (sign < 0) return {r.input, r.forward};
    Data d = r.input;
    std::vector<LComplex> want(r.forward.size());
    for (int i = 0; i < n; ++i) {
        d.im[i] = -d.im[i];
        want[i] = std::conj(r.forward[i]);
    }
    return {d, want};
}

// ||got - want|| / ||want||, reading got with a stride between elements.
double relativeError(const float* re, const float* im, std::size_t stride,
                     const std::vector<LComplex>& want, long double divisor = 1.0L)
{
    long double diff = 0, norm = 0;
    for (std::size_t i = 0; i < want.size(); ++i) {
        const LComplex w = want[i] / divisor;
        const LComplex g(re[i * stride], im[i * stride]);
        diff += std::norm(g - w);
        norm += std::norm(w);
    }
    return norm > 0 ? static_cast<double>(std::sqrt(diff / norm)) : static_cast<double>(diff);
}

void expectEmpty(const FftWorkspace& ws)
{
    EXPECT_EQ(ws.spaceAllocated, 0);
    EXPECT_EQ(ws.maxPermAllocated, 0);
    EXPECT_EQ(ws.tmp0, nullptr);
    EXPECT_EQ(ws.tmp1, nullptr);
    EXPECT_EQ(ws.tmp2, nullptr);
    EXPECT_EQ(ws.tmp3, nullptr);
    EXPECT_EQ(ws.perm, nullptr);
    EXPECT_EQ(ws.plans, nullptr);
}

struct WorkspaceOwner {
    FftWorkspace ws;
    ~WorkspaceOwner() { FftFreeWorkspace(&ws); }
};

// ---------------------------------------------------------------------------------------
// One dimension, every kind of length, both signs.

std::vector<int> oneDimLengths()
{
    std::vector<int> n(64);
    std::iota(n.begin(), n.end(), 1);
    const int more[] = {128, 256, 512, 1024, 2048, 4096, 8192,    // powers of 2
                        81, 243, 729, 2187,                       // powers of 3
                        125, 625, 3125,                           // powers of 5
                        90, 100, 210, 360, 1000, 2310, 6000, 4000,  // mixed
                        2401, 121, 169, 289, 1369, 4489, 3600,      // squares
                        67, 97, 1031, 7951, 7978, 4288};          // primes, large prime factors
    n.insert(n.end(), std::begin(more), std::end(more));
    return n;
}

class OneDimension : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(OneDimension, MatchesLongDoubleDft)
{
    const auto [n, sign] = GetParam();
    auto [d, want] = caseFor(n, sign);
    WorkspaceOwner w;
    ASSERT_EQ(FftN(&w.ws, n, nullptr, d.re.data(), d.im.data(), sign, 0.0), 0);
    EXPECT_LT(relativeError(d.re.data(), d.im.data(), 1, want), errorBound(n)) << "n=" << n;
}

INSTANTIATE_TEST_SUITE_P(Lengths, OneDimension,
                         testing::Combine(testing::ValuesIn(oneDimLengths()), testing::Values(-1, 1)),
                         [](const auto& info) {
                             std::string name = "n";
                             name += std::to_string(std::get<0>(info.param));
                             name += std::get<1>(info.param) < 0 ? "Forward" : "Backward";
                             return name;
                         });

// ---------------------------------------------------------------------------------------
// Several dimensions, given as a count or as a 0-ended list. |iSign| is the element stride; with
// stride 2 the real and imaginary parts interleave in one array, and each pass must touch only its own.

struct MultiCase {
    std::vector<int> dims;
    bool zeroEnded;
    int stride;
};

class MultiDimension : public testing::TestWithParam<MultiCase> {};

TEST_P(MultiDimension, MatchesLongDoubleDftAlongEveryAxis)
{
    const MultiCase& c = GetParam();
    const long long total = std::accumulate(c.dims.begin(), c.dims.end(), 1LL, std::multiplies<>());
    for (const int sign : {-1, 1}) {
        Data d = randomData(total, 99u);
        const auto want = naiveDft(toComplex(d), c.dims, sign);
        std::vector<float> buf(2 * total * c.stride);
        float* re = buf.data();
        float* im = c.stride == 2 ? buf.data() + 1 : buf.data() + total * c.stride;
        for (long long i = 0; i < total; ++i) {
            re[i * c.stride] = d.re[i];
            im[i * c.stride] = d.im[i];
        }
        std::vector<int> dims = c.dims;
        long long ndim = static_cast<long long>(dims.size());
        if (c.zeroEnded) {
            dims.push_back(0);
            ndim = 0;
        }
        WorkspaceOwner w;
        ASSERT_EQ(FftN(&w.ws, ndim, dims.data(), re, im, sign * c.stride, 0.0), 0);
        EXPECT_LT(relativeError(re, im, c.stride, want), errorBound(total));
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, MultiDimension,
                         testing::Values(MultiCase{{8, 6}, true, 1}, MultiCase{{8, 6}, false, 1},
                                         MultiCase{{4, 4, 4}, false, 1}, MultiCase{{3, 5, 7}, true, 1},
                                         MultiCase{{16, 9}, false, 1}, MultiCase{{1, 12}, false, 1},
                                         MultiCase{{12, 1}, true, 1}, MultiCase{{2, 3, 2, 5}, false, 1},
                                         MultiCase{{67, 3}, false, 1}, MultiCase{{8, 6}, true, 2},
                                         MultiCase{{5, 11}, false, 3}, MultiCase{{7}, false, 2},
                                         MultiCase{{60}, false, 2}, MultiCase{{1031}, true, 2}));

// ---------------------------------------------------------------------------------------
// The fast path and the plain path compute the same pass.

class PlainPath : public testing::TestWithParam<int> {};

TEST_P(PlainPath, AgreesWithFastPath)
{
    const int n = GetParam();
    for (const int sign : {-1, 1}) {
        auto [fast, want] = caseFor(n, sign);
        Data plain = fast;
        WorkspaceOwner w;
        ASSERT_EQ(FftRadix(&w.ws, fast.re.data(), fast.im.data(), n, n, n, sign, n, n), 0);
        ASSERT_EQ(FftRadixPlain(&w.ws, plain.re.data(), plain.im.data(), n, n, n, sign, n, n), 0);
        EXPECT_LT(relativeError(plain.re.data(), plain.im.data(), 1, want), errorBound(n));
        std::vector<LComplex> plainResult(n);
        for (int i = 0; i < n; ++i) plainResult[i] = {plain.re[i], plain.im[i]};
        EXPECT_LT(relativeError(fast.re.data(), fast.im.data(), 1, plainResult), 2 * errorBound(n));
    }
}

INSTANTIATE_TEST_SUITE_P(Lengths, PlainPath,
                         testing::Values(2, 3, 4, 5, 8, 12, 16, 36, 45, 64, 210, 343, 1000, 1024,
                                         1031, 2310, 4096, 4288, 6000));

// ---------------------------------------------------------------------------------------
// Factor lists: squares of 4 first, odd squares, the square-free part, squares mirrored.

struct FactorCase {
    int n;
    int count;
    int squares;
    std::vector<int> stored;  // the first min(count, 11) entries
};

class FactorOrder : public testing::TestWithParam<FactorCase> {};

TEST_P(FactorOrder, ListsSquaresAroundTheSquareFreePart)
{
    const FactorCase& c = GetParam();
    int kt = -1;
    EXPECT_EQ(FftFactorize(c.n, &kt), c.count);
    EXPECT_EQ(kt, c.squares);
    const int* list = FftFactorList();
    EXPECT_EQ(std::vector<int>(list, list + c.stored.size()), c.stored);
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, FactorOrder,
    testing::Values(FactorCase{16, 2, 1, {4, 4}}, FactorCase{36, 3, 1, {3, 4, 3}},
                    FactorCase{2 * 3 * 5 * 7, 4, 0, {2, 3, 5, 7}},
                    FactorCase{1 << 22, 11, 5, {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4}},
                    FactorCase{1 << 23, 13, 6, {4, 4, 4, 4, 4, 2, 2, 2, 4, 4, 4}},
                    FactorCase{1031, 1, 0, {1031}}, FactorCase{8, 3, 1, {2, 2, 2}},
                    FactorCase{2 * 9 * 25 * 7, 6, 2, {3, 5, 2, 7, 5, 3}}));

// Too many factors: 2^23 needs 13.
TEST(FftKernel, LengthWithThirteenFactorsFailsAndEmptiesWorkspace)
{
    const int n = 1 << 23;
    std::vector<float> re(n), im(n);
    WorkspaceOwner w;
    float small[8] = {};
    ASSERT_EQ(FftN(&w.ws, 8, nullptr, small, small, -1, 0.0), 0);
    EXPECT_EQ(FftN(&w.ws, n, nullptr, re.data(), im.data(), -1, 0.0), -1);
    expectEmpty(w.ws);
}

// 2^22 has exactly 11 factors; an impulse at index 1 transforms to the roots of unity.
TEST(FftKernel, LengthWithElevenFactorsTransforms)
{
    const int n = 1 << 22;
    std::vector<float> re(n, 0.0f), im(n, 0.0f);
    re[1] = 1.0f;
    WorkspaceOwner w;
    ASSERT_EQ(FftN(&w.ws, n, nullptr, re.data(), im.data(), -1, 0.0), 0);
    double worst = 0;
    for (int k = 0; k < n; k += 4099) {
        const long double a = -2.0L * 3.141592653589793238462643383279502884L * k / n;
        worst = std::max(worst, static_cast<double>(std::abs(LComplex(re[k], im[k]) - std::polar(1.0L, a))));
    }
    EXPECT_LT(worst, 1e-6);
}

// ---------------------------------------------------------------------------------------
// Scaling: 0 and 1 none, -1 (and up to 0) 1/n, below -1 1/sqrt(n), positive values as given.

struct ScalingCase {
    double scaling;
    double divisor;  // for n = 36
};

class Scaling : public testing::TestWithParam<ScalingCase> {};

TEST_P(Scaling, DividesByTheStatedAmount)
{
    const ScalingCase& c = GetParam();
    const std::vector<int> dims = {4, 9};
    Data d = randomData(36, 3u);
    const auto want = naiveDft(toComplex(d), dims, -1);
    WorkspaceOwner w;
    ASSERT_EQ(FftN(&w.ws, 2, dims.data(), d.re.data(), d.im.data(), -1, c.scaling), 0);
    EXPECT_LT(relativeError(d.re.data(), d.im.data(), 1, want, c.divisor), errorBound(36));
}

INSTANTIATE_TEST_SUITE_P(Values, Scaling,
                         testing::Values(ScalingCase{0.0, 1.0}, ScalingCase{1.0, 1.0},
                                         ScalingCase{-1.0, 36.0}, ScalingCase{-0.5, 36.0},
                                         ScalingCase{-1.5, 6.0}, ScalingCase{-2.0, 6.0},
                                         ScalingCase{4.0, 4.0}));

// ---------------------------------------------------------------------------------------
// Failures return -1 and leave an empty workspace.

struct FailureCase {
    std::string name;
    long long ndim;
    std::vector<int> dims;  // empty: no dims array
    int iSign;
};

class Failure : public testing::TestWithParam<FailureCase> {};

TEST_P(Failure, ReturnsMinusOneWithEmptyWorkspace)
{
    const FailureCase& c = GetParam();
    Data d = randomData(64, 1u);
    WorkspaceOwner w;
    ASSERT_EQ(FftN(&w.ws, 64, nullptr, d.re.data(), d.im.data(), -1, 0.0), 0);
    ASSERT_GT(w.ws.spaceAllocated, 0);
    EXPECT_EQ(FftN(&w.ws, c.ndim, c.dims.empty() ? nullptr : c.dims.data(), d.re.data(), d.im.data(),
                   c.iSign, 0.0),
              -1);
    expectEmpty(w.ws);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Failure,
    testing::Values(FailureCase{"LengthZero", 1, {0}, -1},
                    FailureCase{"LengthZeroInSecondDimension", 2, {4, 0}, -1},
                    FailureCase{"NegativeEntryInZeroEndedList", 0, {8, -3, 0}, -1},
                    FailureCase{"NoDimensions", 0, {}, -1},
                    FailureCase{"EmptyZeroEndedList", 0, {0}, -1},
                    FailureCase{"NegativeCount", -4, {}, -1},
                    FailureCase{"ZeroStride", 8, {}, 0}),
    [](const auto& info) { return info.param.name; });

// A general odd factor beyond maxFactors, or a square-free part beyond maxPerm, fails a pass.
TEST(FftKernel, PassFailsWhenScratchIsSizedTooSmall)
{
    Data d = randomData(30, 2u);
    WorkspaceOwner w;
    EXPECT_EQ(FftRadix(&w.ws, d.re.data(), d.im.data(), 14, 14, 14, -1, 5, 14), -1);
    expectEmpty(w.ws);
    EXPECT_EQ(FftRadix(&w.ws, d.re.data(), d.im.data(), 30, 30, 30, -1, 30, 10), -1);
    expectEmpty(w.ws);
    EXPECT_EQ(FftRadix(&w.ws, d.re.data(), d.im.data(), 30, 30, 30, -1, 30, 29), 0);
}

// Scratch is sized by the largest dimension, kept, and only grown when a pass needs more.
TEST(FftKernel, WorkspaceGrowsOnDemandAndIsReused)
{
    Data d = randomData(100, 4u);
    WorkspaceOwner w;
    ASSERT_EQ(FftN(&w.ws, 100, nullptr, d.re.data(), d.im.data(), -1, 0.0), 0);
    EXPECT_EQ(w.ws.spaceAllocated, 100 * static_cast<int>(sizeof(float)));
    EXPECT_EQ(w.ws.maxPermAllocated, 100);
    const int dims[] = {10, 5, 0};
    ASSERT_EQ(FftN(&w.ws, 0, dims, d.re.data(), d.im.data(), -1, 0.0), 0);
    EXPECT_EQ(w.ws.spaceAllocated, 100 * static_cast<int>(sizeof(float)));
    FftFreeWorkspace(&w.ws);
    expectEmpty(w.ws);
}

// ---------------------------------------------------------------------------------------
// Many lines of one length, prepared once and run on several workspaces at once, each line
// against the long-double DFT with FftN's scaling; the image runs split their rows and columns so.

struct LinesCase {
    friend void PrintTo(const LinesCase& c, std::ostream* os) { *os << "n" << c.n << " x " << c.count; }
    int n;
    int count;
    int step;        // floats between line starts, at least n
    double scaling;  // as FftN takes it
    long double divisor;
};

class Lines : public testing::TestWithParam<LinesCase> {};

TEST_P(Lines, EachLineMatchesLongDoubleDftOnAnyNumberOfThreads)
{
    const LinesCase c = GetParam();
    const Data before = randomData(static_cast<std::size_t>(c.step) * c.count, 500u + c.n);
    for (const int sign : {-1, 1}) {
        std::vector<std::vector<LComplex>> wants;
        for (int line = 0; line < c.count; ++line) {
            const std::size_t at = static_cast<std::size_t>(line) * c.step;
            Data one{{before.re.begin() + at, before.re.begin() + at + c.n},
                     {before.im.begin() + at, before.im.begin() + at + c.n}};
            wants.push_back(naiveDft(toComplex(one), {c.n}, sign));
        }
        for (const int threads : {1, 2, 3}) {
            Data d = before;
            WorkspaceOwner main;
            ASSERT_EQ(FftLinesPrepare(&main.ws, c.n, sign), 0);
            std::vector<WorkspaceOwner> own(threads);
            std::vector<std::thread> pool;
            std::vector<int> status(threads, -2);
            for (int t = 0; t < threads; ++t) {
                const int first = c.count * t / threads, end = c.count * (t + 1) / threads;
                pool.emplace_back([&, t, first, end] {
                    status[t] = FftLinesRun(&own[t].ws, c.n, sign, c.scaling, d.re.data() + first * c.step,
                                            d.im.data() + first * c.step, c.step, end - first);
                });
            }
            for (std::thread& th : pool) th.join();
            for (int t = 0; t < threads; ++t) ASSERT_EQ(status[t], 0) << "thread " << t;
            for (int line = 0; line < c.count; ++line) {
                const std::size_t at = static_cast<std::size_t>(line) * c.step;
                EXPECT_LT(relativeError(d.re.data() + at, d.im.data() + at, 1, wants[line], c.divisor),
                          errorBound(c.n))
                    << "n=" << c.n << " line " << line << " threads " << threads;
                // The gap between lines is left alone.
                for (std::size_t g = at + c.n; g < at + c.step; ++g)
                    ASSERT_EQ(d.re[g], before.re[g]);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, Lines,
                         testing::Values(LinesCase{1, 3, 1, -1.0, 1.0L}, LinesCase{2, 5, 2, 0.0, 1.0L},
                                         LinesCase{12, 7, 16, -1.0, 12.0L}, LinesCase{97, 4, 112, -2.0, std::sqrt(97.0L)},
                                         LinesCase{1031, 3, 1031, 4.0, 4.0L}, LinesCase{4000, 3, 4016, -1.0, 4000.0L},
                                         LinesCase{360, 2, 360, 1.0, 1.0L}),
                         [](const auto& info) {
                             std::string name = "n";
                             name += std::to_string(info.param.n);
                             return name;
                         });

// Lines of a bad length or sign fail like FftN: -1 and an empty workspace; no lines is no work.
TEST(FftKernel, LinesRefuseBadArgumentsAndEmptyTheWorkspace)
{
    Data d = randomData(64, 3u);
    for (const auto& [n, sign] : {std::pair{0, -1}, {-5, 1}, {8, 2}, {8, 0}, {1 << 23, -1}}) {
        WorkspaceOwner w;
        ASSERT_EQ(FftN(&w.ws, 8, nullptr, d.re.data(), d.im.data(), -1, 0.0), 0);
        EXPECT_EQ(FftLinesPrepare(&w.ws, n, sign), -1) << n << " " << sign;
        expectEmpty(w.ws);
        if (n < 1 || sign == 0 || sign == 2) {
            ASSERT_EQ(FftN(&w.ws, 8, nullptr, d.re.data(), d.im.data(), -1, 0.0), 0);
            EXPECT_EQ(FftLinesRun(&w.ws, n, sign, -1.0, d.re.data(), d.im.data(), 8, 1), -1);
            expectEmpty(w.ws);
        }
    }
    WorkspaceOwner w;
    EXPECT_EQ(FftLinesRun(&w.ws, 8, -1, -1.0, d.re.data(), d.im.data(), 8, 0), 0);
    EXPECT_EQ(FftLinesPrepare(nullptr, 8, -1), -1);
    EXPECT_EQ(FftLinesRun(nullptr, 8, -1, -1.0, d.re.data(), d.im.data(), 8, 1), -1);
}

}  // namespace
