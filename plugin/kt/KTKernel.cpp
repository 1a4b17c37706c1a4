#include "kt/KTKernel.h"
#include "frame/RasterAccess.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

using namespace OrvDataSource;

KTRowReader::KTRowReader(RasterDataset& in, BandNumbers bands, const PixelWindow& win)
    : m_in(in), m_bands(std::move(bands)), m_win(win), m_oneType(true)
{
    const int first = in.GetRasterBand(m_bands[0] - 1)->GetRasterDataType();
    for (int b : m_bands)
        m_oneType = m_oneType && in.GetRasterBand(b - 1)->GetRasterDataType() == first;
}

void KTRowReader::Read(int r, float* block) const
{
    if (m_oneType)
        ReadInto(m_bands, r, block);
    else
        for (std::size_t j = 0; j < m_bands.size(); ++j)
            ReadInto({m_bands[j]}, r, block + j * m_win.width);
}

void KTRowReader::ReadInto(const BandNumbers& bands, int r, float* into) const
{
    const long long count = static_cast<long long>(bands.size()) * m_win.width;
    auto pixels = m_in.ReadRaster(m_win.x0, m_win.y0 + r, m_win.width, 1, m_win.width, 1, bands);
    ConvertToFloats(pixels->GetData(), count, pixels->GetDataType(), into);
}

namespace {

using Vec4 = float __attribute__((vector_size(16)));
using Mask4 = int __attribute__((vector_size(16)));

inline Vec4 Load4(const float* p)
{
    Vec4 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The band rows and weights of one component: on the stack for the band counts fixed at compile
// time, on the heap for any other count (N = 0).
template <int N>
struct Operands {
    explicit Operands(int) {}
    const float* band[N];
    float w[N];
};
template <>
struct Operands<0> {
    explicit Operands(int n) : band(n), w(n) {}
    std::vector<const float*> band;
    std::vector<float> w;
};

// Pixels [p, p + count) of one component, count a multiple of 4: four pixels per vector, each
// summed in band order exactly as the one-pixel path does.
template <int N, KTConstant M>
inline void ComputeVectors(const float* const* band, const float* w, int n, float c, int p, int count, float* out)
{
    const int bands = N > 0 ? N : n;
    for (int q = p; q < p + count; q += 4) {
        Vec4 sum = {0.0f, 0.0f, 0.0f, 0.0f};
        Mask4 nonZero = {0, 0, 0, 0};
        for (int j = 0; j < bands; ++j) {
            const Vec4 x = Load4(band[j] + q);
            sum += w[j] * x;
            if constexpr (M == KTConstant::AddedUnlessAllZero)
                nonZero |= x != 0.0f;
        }
        if constexpr (M == KTConstant::AddedUnlessAllZero)
            sum = reinterpret_cast<Vec4>(reinterpret_cast<Mask4>(sum + c) & nonZero);
        else if constexpr (M == KTConstant::Added)
            sum = sum + c;
        std::memcpy(out + q, &sum, sizeof sum);
    }
}

template <int N, KTConstant M>
inline void ComputeOne(const float* const* band, const float* w, int n, float c, int p, float* out)
{
    const int bands = N > 0 ? N : n;
    float sum = 0.0f;
    bool allZero = true;
    for (int j = 0; j < bands; ++j) {
        sum += w[j] * band[j][p];
        allZero = allZero && band[j][p] == 0.0f;
    }
    if constexpr (M == KTConstant::AddedUnlessAllZero)
        out[p] = allZero ? 0.0f : sum + c;
    else if constexpr (M == KTConstant::Added)
        out[p] = sum + c;
    else
        out[p] = sum;
}

template <int N, KTConstant M>
bool ComputeRow(const KTComponent& comp, const float* block, int width, float* out, const RunContext& ctx)
{
    const int n = N > 0 ? N : comp.n;
    Operands<N> ops(n);
    for (int j = 0; j < n; ++j) {
        ops.w[j] = comp.weights[j];
        ops.band[j] = block + static_cast<long long>(j) * width;
    }
    const float* const* band = &ops.band[0];
    const float* w = &ops.w[0];
    const float c = M == KTConstant::None ? 0.0f : comp.constant;
    // Every pixel's poll still comes before that pixel is computed; polling a short run of
    // pixels first lets the arithmetic of the run vectorise.
    constexpr int kRun = 16;
    for (int p0 = 0; p0 < width; p0 += kRun) {
        const int end = std::min(width, p0 + kRun);
        for (int p = p0; p < end; ++p)
            if (ctx.CancelRequested())
                return false;
        const int vectored = (end - p0) & ~3;
        ComputeVectors<N, M>(band, w, n, c, p0, vectored, out);
        for (int p = p0 + vectored; p < end; ++p)
            ComputeOne<N, M>(band, w, n, c, p, out);
    }
    return true;
}

using RowKernel = bool (*)(const KTComponent&, const float*, int, float*, const RunContext&);

// The kernel with the band count fixed at compile time where it is one of kFixed, else the
// kernel that takes it at run time.
template <KTConstant M, int... kFixed>
RowKernel PickKernel(int n, std::integer_sequence<int, kFixed...>)
{
    RowKernel kernel = &ComputeRow<0, M>;
    ((n == kFixed + 1 ? (kernel = &ComputeRow<kFixed + 1, M>, 0) : 0), ...);
    return kernel;
}

RowKernel KernelFor(const KTComponent& c)
{
    constexpr auto kUpToEight = std::make_integer_sequence<int, 8>{};
    switch (c.mode) {
    case KTConstant::None: return PickKernel<KTConstant::None>(c.n, kUpToEight);
    case KTConstant::Added: return PickKernel<KTConstant::Added>(c.n, kUpToEight);
    case KTConstant::AddedUnlessAllZero: break;
    }
    return c.n == 6 ? &ComputeRow<6, KTConstant::AddedUnlessAllZero> : &ComputeRow<0, KTConstant::AddedUnlessAllZero>;
}

} // namespace

bool ComputeComponent(const KTComponent& c, const float* block, int width, float* out, const RunContext& ctx)
{
    return KernelFor(c)(c, block, width, out, ctx);
}
