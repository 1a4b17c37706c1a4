#include "fft/FftTransform.h"
#include "frame/MeanFill.h"
#include "fft/FftLanes.h"
#include "frame/RasterAccess.h"
#include "frame/RunSteps.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/mman.h>
#ifdef __SSE2__
#include <xmmintrin.h>
#endif

using namespace OrvDataSource;

namespace {

const char* kContext = "TavTransFFTFuncNew";

// Float32 values in 4 MiB: the real half of a block holds that many, so L = 1048576 / W rows.
constexpr int kBlockFloats = 4194304 / 4;
// Wider rows would leave L at zero.
constexpr int kMaxWidth = kBlockFloats;
// Neighbouring columns gathered per sweep over the rows; one sweep reads 128 bytes of each row
// half, so the band is walked W / 32 times instead of W times.
constexpr int kColumnBatch = 32;

// Distance between gathered columns: a multiple of 16 floats (cache-line aligned) that is never a
// multiple of 1024, so the batch's columns do not all fall into the same cache sets.
long long ColumnStride(int height)
{
    const long long aligned = (static_cast<long long>(height) + 15) / 16 * 16;
    return aligned % 1024 == 0 ? aligned + 16 : aligned;
}

// Every percentage of the run is a share of its work units, in single precision.
ProgressSpan RunProgress(const RunContext& ctx, const char* message)
{
    return ProgressSpan(ctx, Tr(kContext, message), 0, 100, ProgressMath::Single);
}

constexpr std::size_t kHugePage = 2 * 1024 * 1024;

struct FreeDeleter {
    void operator()(float* p) const { FreeWorking(p); }
};
using BlockBuffer = std::unique_ptr<float, FreeDeleter>;

// Block memory on huge-page boundaries, offered to the kernel as huge pages: the column pass
// touches every row of the band per sweep, and 4 KiB pages would cost a TLB miss per row and
// a page fault per 4 KiB on first touch. The tail past the last whole huge page stays small pages.
float* NewBlockFloats(long long count)
{
    if (count < 0 || static_cast<unsigned long long>(count) > SIZE_MAX / sizeof(float))
        return nullptr;
    const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(float);
    void* p = AllocateWorking(bytes, bytes >= kHugePage ? kHugePage : 64);
    if (!p)
        return nullptr;
#ifdef MADV_HUGEPAGE
    if (bytes >= kHugePage)
        madvise(p, bytes / kHugePage * kHugePage, MADV_HUGEPAGE);
#endif
    return static_cast<float*>(p);
}

// The run's lanes, and the kernel's scratch freed when a run ends, whichever way it ends.
class RunLanes {
public:
    RunLanes(FftWorkspace& ws, FftLanes*& slot) : m_ws(ws), m_slot(slot), m_lanes(ws, FftLaneCount())
    {
        m_slot = &m_lanes;
    }
    ~RunLanes()
    {
        m_slot = nullptr;
        FftFreeWorkspace(&m_ws);
    }
    RunLanes(const RunLanes&) = delete;
    RunLanes& operator=(const RunLanes&) = delete;

private:
    FftWorkspace& m_ws;
    FftLanes*& m_slot;
    FftLanes m_lanes;
};

// Rows firstRow .. firstRow + rows - 1 of a 1-based band, as Float32.
bool ReadFloatRows(RasterDataset& ds, int bandNumber, int firstRow, int rows, int width, float* into)
{
    return ds.GetRasterBand(bandNumber - 1)->ReadBlock(0, firstRow, width, rows, into, width, rows, PDT_Float32, 0, 0);
}

// Places element x of `src` at column (x + shift) mod width of `dst`.
void RotateRow(const float* src, float* dst, int width, int shift)
{
    std::memcpy(dst + shift, src, sizeof(float) * (width - shift));
    std::memcpy(dst, src + (width - shift), sizeof(float) * shift);
}

} // namespace

// The size and the centre, (floor(W/2), floor(H/2)), both ways.
struct CentreGeometry {
    int width, height, hW, hH;
};

// A row's real and imaginary parts.
struct RowPair {
    explicit RowPair(int width) : re(NewSamples<float>(width)), im(NewSamples<float>(width)) {}
    explicit operator bool() const { return re && im; }
    TypedBuffer<float> re, im;
};

// One band in row blocks of L rows: each block is the rows' real parts, row after row, then
// their imaginary parts in the same order. The whole band stays resident.
class FftBandBlocks {
public:
    FftBandBlocks(int width, int height) : m_width(width), m_height(height), m_rows(height, kBlockFloats / width)
    {
        m_blocks.reserve(BlockCount());
    }

    int Width() const { return m_width; }
    int Height() const { return m_height; }
    const RowBlocks& Blocks() const { return m_rows; }
    int RowsPerBlock() const { return m_rows.RowsPerBlock(); }
    int BlockCount() const { return m_rows.Count(); }
    int FirstRow(int block) const { return m_rows[block].first; }
    int RowsOf(int block) const { return m_rows[block].rows; }

    // Appends the next block; false when memory is short. The real half is left for the caller to
    // fill whole; the imaginary half is set to 0 when asked, else the caller fills it too.
    bool Append(bool zeroImaginary)
    {
        const long long half = static_cast<long long>(RowsOf(static_cast<int>(m_blocks.size()))) * m_width;
        BlockBuffer block(NewBlockFloats(2 * half));
        if (!block)
            return false;
        if (zeroImaginary)
            std::memset(block.get() + half, 0, static_cast<std::size_t>(half) * sizeof(float));
        m_blocks.push_back(std::move(block));
        return true;
    }

    // Frees a block whose rows are written; the output's block cache grows by as much meanwhile.
    void Release(int block) { m_blocks[block].reset(); }
    bool IsLastRowOfBlock(int y) const
    {
        const RowBlock b = m_rows[m_rows.BlockOfRow(y)];
        return y == b.first + b.rows - 1;
    }

    float* Re(int block) { return m_blocks[block].get(); }
    float* Im(int block) { return m_blocks[block].get() + static_cast<long long>(RowsOf(block)) * m_width; }
    float* ReRow(int y) { return Re(m_rows.BlockOfRow(y)) + RowOffset(y); }
    float* ImRow(int y) { return Im(m_rows.BlockOfRow(y)) + RowOffset(y); }

    // Columns x0 .. x0 + n - 1 into n contiguous arrays of H values, `stride` floats apart, and back.
    void GatherColumns(int x0, int n, float* re, float* im, long long stride)
    {
        CopyColumns(x0, n, re, im, stride, false);
    }
    void ScatterColumns(int x0, int n, const float* re, const float* im, long long stride)
    {
        CopyColumns(x0, n, const_cast<float*>(re), const_cast<float*>(im), stride, true);
    }

private:
    // Four rows at a time, so that 4 x 4 tiles move as whole vectors; a group of four rows may
    // straddle two blocks, hence a pointer per row.
    void CopyColumns(int x0, int n, float* re, float* im, long long stride, bool toBlocks)
    {
        int y = 0;
        for (; y + 4 <= m_height; y += 4) {
            float* rowRe[4];
            float* rowIm[4];
            for (int i = 0; i < 4; ++i) {
                rowRe[i] = ReRow(y + i) + x0;
                rowIm[i] = ImRow(y + i) + x0;
            }
            CopyTiles(rowRe, re + y, n, stride, toBlocks);
            CopyTiles(rowIm, im + y, n, stride, toBlocks);
        }
        for (; y < m_height; ++y) {
            CopyOneRow(ReRow(y) + x0, re + y, n, stride, toBlocks);
            CopyOneRow(ImRow(y) + x0, im + y, n, stride, toBlocks);
        }
    }

    // Columns k of four rows to or from four consecutive entries of column array k.
    static void CopyTiles(float* const row[4], float* col, int n, long long stride, bool toBlocks)
    {
        int k = 0;
#ifdef __SSE2__
        for (; k + 4 <= n; k += 4) {
            float* c = col + k * stride;
            if (toBlocks) {
                __m128 a = _mm_loadu_ps(c), b = _mm_loadu_ps(c + stride);
                __m128 d = _mm_loadu_ps(c + 2 * stride), e = _mm_loadu_ps(c + 3 * stride);
                _MM_TRANSPOSE4_PS(a, b, d, e);
                _mm_storeu_ps(row[0] + k, a);
                _mm_storeu_ps(row[1] + k, b);
                _mm_storeu_ps(row[2] + k, d);
                _mm_storeu_ps(row[3] + k, e);
            } else {
                __m128 a = _mm_loadu_ps(row[0] + k), b = _mm_loadu_ps(row[1] + k);
                __m128 d = _mm_loadu_ps(row[2] + k), e = _mm_loadu_ps(row[3] + k);
                _MM_TRANSPOSE4_PS(a, b, d, e);
                _mm_storeu_ps(c, a);
                _mm_storeu_ps(c + stride, b);
                _mm_storeu_ps(c + 2 * stride, d);
                _mm_storeu_ps(c + 3 * stride, e);
            }
        }
#endif
        for (int i = 0; i < 4; ++i)
            CopyOneRow(row[i] + k, col + k * stride + i, n - k, stride, toBlocks);
    }

    static void CopyOneRow(float* row, float* col, int n, long long stride, bool toBlocks)
    {
        for (int k = 0; k < n; ++k) {
            if (toBlocks)
                row[k] = col[k * stride];
            else
                col[k * stride] = row[k];
        }
    }

    long long RowOffset(int y) const { return static_cast<long long>(y - m_rows[m_rows.BlockOfRow(y)].first) * m_width; }

    int m_width;
    int m_height;
    RowBlocks m_rows;
    std::vector<BlockBuffer> m_blocks;
};

namespace {

CentreGeometry Centre(const FftBandBlocks& blocks)
{
    return {blocks.Width(), blocks.Height(), blocks.Width() / 2, blocks.Height() / 2};
}

// The row pass, one block at a time: a block's rows are transformed on the helper lanes while the
// caller reads the next block, and the last block on every lane. Each row is transformed by the
// same code on whichever lane, so the result is the same as one row after another.
class RowPipeline {
public:
    RowPipeline(FftLanes& lanes, FftWorkspace& ws, FftBandBlocks& blocks, int sign, double scaling)
        : m_lanes(lanes), m_blocks(blocks), m_sign(sign), m_scaling(scaling),
          m_prepared(FftLinesPrepare(&ws, blocks.Width(), sign) == 0)
    {
    }
    // No helper may outlive the blocks it works on, whichever way the pass ends.
    ~RowPipeline() { m_lanes.Wait(); }
    RowPipeline(const RowPipeline&) = delete;
    RowPipeline& operator=(const RowPipeline&) = delete;

    // False when the kernel failed (it has no text of its own).
    bool Prepared() const { return m_prepared; }
    // The block's rows are all in: waits for the block before, then starts this one.
    bool Filled(int block)
    {
        if (!Finish())
            return false;
        if (block + 1 == m_blocks.BlockCount())
            m_lanes.Run(Job(block));
        else
            m_lanes.Start(Job(block));
        return !*m_failed;
    }
    // The block's rows on every lane at once, for rows that were all read beforehand.
    bool TransformNow(int block)
    {
        if (!Finish())
            return false;
        m_lanes.Run(Job(block));
        return !*m_failed;
    }
    bool Finish()
    {
        m_lanes.Wait();
        return !*m_failed;
    }

private:
    FftLanes::Job Job(int block) const
    {
        const int width = m_blocks.Width();
        const int rows = m_blocks.RowsOf(block);
        float* re = m_blocks.Re(block);
        float* im = m_blocks.Im(block);
        return [=, sign = m_sign, scaling = m_scaling, failed = m_failed](FftWorkspace& ws, int share, int shares) {
            int first, end;
            LaneShare(rows, share, shares, first, end);
            const long long offset = static_cast<long long>(first) * width;
            if (FftLinesRun(&ws, width, sign, scaling, re + offset, im + offset, width, end - first) != 0)
                *failed = true;
        };
    }

    FftLanes& m_lanes;
    FftBandBlocks& m_blocks;
    int m_sign;
    double m_scaling;
    bool m_prepared;
    std::shared_ptr<std::atomic<bool>> m_failed = std::make_shared<std::atomic<bool>>(false);
};

} // namespace

TavTransFFTFuncNew::~TavTransFFTFuncNew() { FftFreeWorkspace(&m_workspace); }

TavTransFFTFuncNew::RasterPtr TavTransFFTFuncNew::OpenInput(const QString& input)
{
    RasterPtr in = OpenInputRaster(input);
    if (in && in->GetRasterXSize() > kMaxWidth) {
        Fail(kContext, "The image is wider than 1048576 columns; the Fourier transform cannot hold its rows!");
        return nullptr;
    }
    return in;
}

TavTransFFTFuncNew::RasterPtr TavTransFFTFuncNew::CreateLike(OrvDataSource::RasterDataset& in, const QString& output,
                                                             int bands, int type, const QString& format)
{
    RasterPtr out = CreateOutput(output, in.GetRasterXSize(), in.GetRasterYSize(), bands, type, format);
    if (out) {
        CopyGeoTransform(in, *out);
        CopySpatialReference(in, *out);
    }
    return out;
}

// The run's work units: three passes over every pixel of every band, a third of a band's share each.
class FftRunUnits {
public:
    FftRunUnits(int bands, int width, int height)
        : m_bands(bands), m_pixels(static_cast<long long>(width) * height)
    {
    }
    ProgressPass Pass(const ProgressSpan& span, int band, int pass) const
    {
        return ProgressPass(span, (3LL * band + pass) * m_pixels, 3LL * m_bands * m_pixels);
    }

private:
    long long m_bands, m_pixels;
};

template <class BandPasses>
bool TavTransFFTFuncNew::EachBand(int count, OrvDataSource::RasterDataset& in, const char* message,
                                  BandPasses&& passes)
{
    const int width = in.GetRasterXSize();
    const int height = in.GetRasterYSize();
    const ProgressSpan progress = RunProgress(Context(), message);
    const FftRunUnits units(count, width, height);
    for (int i = 0; i < count; ++i) {
        progress.Report(i, count);
        FftBandBlocks blocks(width, height);
        const auto pass = [&](int p) { return units.Pass(progress, i, p); };
        if (!passes(i, blocks, pass))
            return false;
    }
    return true;
}

bool TavTransFFTFuncNew::ForwardRun(const QString& input, const QString& output, const QString& format,
                                    std::vector<int> bands)
{
    RunLanes lanes(m_workspace, m_lanes);
    RasterPtr in = OpenInput(input);
    if (!in || !CheckBands(bands, in->GetBandCount()))
        return false;
    const int bandCount = static_cast<int>(bands.size());
    std::vector<std::unique_ptr<BandMeanFill>> fills;
    m_filled.clear();
    if (m_useMask) {
        m_strError = MeanFillProblem(m_mask, bands, kContext);
        if (!m_strError.isEmpty())
            return false;
        fills = MeanFills(*in, bands, m_mask);
    }
    RasterPtr out = CreateLike(*in, output, 2 * bandCount, PDT_Float32, format);
    if (!out)
        return false;
    return EachBand(bandCount, *in, "Forward FFT Transform is running...",
                    [&](int i, FftBandBlocks& blocks, const auto& pass) {
                        BandMeanFill* fill = fills.empty() ? nullptr : fills[i].get();
                        const bool rows = fill && fill->Active()
                                              ? ReadFillAndTransformRows(*in, *fill, blocks, pass(0))
                                              : ReadAndTransformRows(*in, bands[i], blocks, pass(0));
                        return rows && TransformColumns(blocks, +1, -1.0, pass(1)) &&
                               WriteCentred(*out, 2 * i, blocks, pass(2));
                    });
}

bool TavTransFFTFuncNew::InverseRun(const QString& input, const QString& output, int outTypeIndex,
                                    const QString& format)
{
    RunLanes lanes(m_workspace, m_lanes);
    RasterPtr in = OpenInput(input);
    if (!in)
        return false;
    if (outTypeIndex < 0 || outTypeIndex > 6)
        return Fail(kContext, "Invalid output data type: the index must lie between 0 (Byte) and 6 (Float64)!");
    // Bands come in (real, imaginary) pairs; an odd last band has no partner and is left out. With
    // no pair at all the creation of a band-less output fails.
    const int outCount = in->GetBandCount() / 2;
    const int outType = outTypeIndex + 1;
    RasterPtr out = CreateLike(*in, output, outCount, outType, format);
    if (!out)
        return false;
    return EachBand(outCount, *in, "Inverse FFT Transform is running...",
                    [&](int i, FftBandBlocks& blocks, const auto& pass) {
                        // Un-centring fills both halves of every row.
                        for (int b = 0; b < blocks.BlockCount(); ++b)
                            if (!blocks.Append(false))
                                return Fail(kContext, "Apply memory Fail!");
                        auto outBand = out->GetRasterBand(i);
                        return UncentreConjugated(*in, 2 * i + 1, blocks, pass(0), pass(1)) &&
                               TransformColumns(blocks, -1, 0.0, pass(2)) &&
                               WriteRealHalves(*outBand, blocks, outType);
                    });
}

bool TavTransFFTFuncNew::CheckBands(const std::vector<int>& bands, int bandCount)
{
    for (int n : bands) {
        if (n < 1 || n > bandCount) {
            m_strError =
                Tr(kContext, "Band %1 does not exist: the input file has bands 1 to %2!").arg(n).arg(bandCount);
            return false;
        }
    }
    return true;
}

bool TavTransFFTFuncNew::ReadBlock(RasterDataset& in, int bandNumber, const RowBlock& b, FftBandBlocks& blocks,
                                   bool zeroImaginary)
{
    if (!blocks.Append(zeroImaginary))
        return Fail(kContext, "Apply memory Fail!");
    // The host's block cache is small and bounded, so the band is held once, in the blocks.
    if (!ReadFloatRows(in, bandNumber, b.first, b.rows, blocks.Width(), blocks.Re(b.index)))
        return Fail(kContext, "Failed to read the input file!");
    return true;
}

bool TavTransFFTFuncNew::ReadAndTransformRows(RasterDataset& in, int bandNumber, FftBandBlocks& blocks,
                                              const ProgressPass& pass)
{
    const int width = blocks.Width();
    // +1 with -1 scaling: the positive exponent, divided by W here and by H in the columns.
    RowPipeline rows(*m_lanes, m_workspace, blocks, +1, -1.0);
    if (!rows.Prepared())
        return false;
    for (const RowBlock b : blocks.Blocks()) {
        if (!pass.PollAndReport(static_cast<long long>(b.first) * width))
            return LeaveCancelled();
        // The imaginary parts of real pixels are 0.
        if (!ReadBlock(in, bandNumber, b, blocks, true) || !rows.Filled(b.index))
            return false;
    }
    return rows.Finish();
}

bool TavTransFFTFuncNew::ReadFillAndTransformRows(RasterDataset& in, BandMeanFill& fill, FftBandBlocks& blocks,
                                                  const ProgressPass& pass)
{
    const int width = blocks.Width();
    // The band is held whole anyway, so the mean costs no second read: each block's masked pixels
    // are marked with 1 in its imaginary half, zero until the row transforms.
    for (const RowBlock b : blocks.Blocks()) {
        if (pass.Cancelled())
            return LeaveCancelled();
        // The marks below fill the imaginary half.
        if (!ReadBlock(in, fill.Band(), b, blocks, false))
            return false;
        fill.Survey(0, b.first, width, b.rows, blocks.Re(b.index), width);
        const uint8_t* valid = fill.Flags();
        float* mark = blocks.Im(b.index);
        for (long long p = 0, n = static_cast<long long>(b.rows) * width; p < n; ++p)
            mark[p] = static_cast<float>(1 - valid[p]);
    }
    if (!NoteFilled(fill, static_cast<long long>(width) * blocks.Height(), m_filled))
    {
        m_strError = AllMaskedText(fill.Band(), kContext);
        return false;
    }
    const float value = fill.Value();
    for (const RowBlock b : blocks.Blocks()) {
        float* re = blocks.Re(b.index);
        float* im = blocks.Im(b.index);
        for (long long p = 0, n = static_cast<long long>(b.rows) * width; p < n; ++p) {
            re[p] = im[p] != 0.0f ? value : re[p];
            im[p] = 0.0f;
        }
    }
    // +1 with -1 scaling: the positive exponent, divided by W here and by H in the columns.
    RowPipeline rows(*m_lanes, m_workspace, blocks, +1, -1.0);
    if (!rows.Prepared())
        return false;
    for (const RowBlock b : blocks.Blocks()) {
        if (!pass.PollAndReport(static_cast<long long>(b.first) * width))
            return LeaveCancelled();
        if (!rows.TransformNow(b.index))
            return false;
    }
    return rows.Finish();
}

bool TavTransFFTFuncNew::UncentreConjugated(RasterDataset& in, int realBandNumber, FftBandBlocks& blocks,
                                            const ProgressPass& readPass, const ProgressPass& rowPass)
{
    const auto [width, height, hW, hH] = Centre(blocks);
    const RowPair row(width);
    if (!row)
        return Fail(kContext, "Apply memory Fail!");
    // -1 without scaling; each block's rows start as soon as the block is read.
    RowPipeline rows(*m_lanes, m_workspace, blocks, -1, 0.0);
    if (!rows.Prepared())
        return false;
    for (int y = 0; y < height; ++y) {
        if (!readPass.PollAndReport(y))
            return LeaveCancelled();
        const int source = (y + hH) % height;
        if (!ReadFloatRows(in, realBandNumber, source, 1, width, row.re.get()) ||
            !ReadFloatRows(in, realBandNumber + 1, source, 1, width, row.im.get()))
            return Fail(kContext, "Failed to read the input file!");
        // Column (x + hW) mod W goes back to x; rotating by W - hW does exactly that.
        RotateRow(row.re.get(), blocks.ReRow(y), width, width - hW);
        float* im = blocks.ImRow(y);
        RotateRow(row.im.get(), im, width, width - hW);
        // The conjugate on the way in, so that the -1 passes below pair with the forward run.
        for (int x = 0; x < width; ++x)
            im[x] = -im[x];
        if (blocks.IsLastRowOfBlock(y) && !rows.Filled(blocks.Blocks().BlockOfRow(y)))
            return false;
    }
    if (!rows.Finish())
        return false;
    // The row pass ran alongside the reads; its progress follows them, block by block, as before.
    for (const RowBlock b : blocks.Blocks())
        if (!rowPass.PollAndReport(static_cast<long long>(b.first) * width))
            return LeaveCancelled();
    return true;
}

bool TavTransFFTFuncNew::TransformColumns(FftBandBlocks& blocks, int sign, double scaling, const ProgressPass& pass)
{
    const int width = blocks.Width();
    const int height = blocks.Height();
    const int lanes = m_lanes->Count();
    const int batch = std::min(kColumnBatch, width);
    const long long stride = ColumnStride(height);
    // Each lane gathers its own batch of columns.
    auto re = NewSamples<float>(lanes * batch * stride);
    auto im = NewSamples<float>(lanes * batch * stride);
    if (!re || !im)
        return Fail(kContext, "Apply memory Fail!");
    if (FftLinesPrepare(&m_workspace, height, sign) != 0)
        return false; // a kernel failure has no text of its own
    std::atomic<bool> failed{false};
    const int round = lanes * batch;
    for (int x0 = 0; x0 < width; x0 += round) {
        const int end = std::min(width, x0 + round);
        // Every column is polled and reported in order, as one lane would, before the round runs.
        for (int x = x0; x < end; ++x)
            if (!pass.PollAndReport(x))
                return LeaveCancelled();
        m_lanes->Run([&](FftWorkspace& ws, int share, int) {
            const int first = x0 + share * batch;
            const int n = std::min(batch, end - first);
            if (n <= 0)
                return;
            float* laneRe = re.get() + share * batch * stride;
            float* laneIm = im.get() + share * batch * stride;
            blocks.GatherColumns(first, n, laneRe, laneIm, stride);
            if (FftLinesRun(&ws, height, sign, scaling, laneRe, laneIm, stride, n) != 0) {
                failed = true;
                return;
            }
            blocks.ScatterColumns(first, n, laneRe, laneIm, stride);
        });
        if (failed)
            return false;
    }
    return true;
}

bool TavTransFFTFuncNew::WriteCentred(RasterDataset& out, int firstBand, FftBandBlocks& blocks, const ProgressPass& pass)
{
    const auto [width, height, hW, hH] = Centre(blocks);
    const RowPair row(width);
    if (!row)
        return Fail(kContext, "Apply memory Fail!");
    auto realBand = out.GetRasterBand(firstBand);
    auto imagBand = out.GetRasterBand(firstBand + 1);
    for (int y = 0; y < height; ++y) {
        if (!pass.PollAndReport(y))
            return LeaveCancelled();
        // A circular quadrant swap: the zero frequency lands on (floor(W/2), floor(H/2)).
        RotateRow(blocks.ReRow(y), row.re.get(), width, hW);
        RotateRow(blocks.ImRow(y), row.im.get(), width, hW);
        const int target = (y + hH) % height;
        if (!realBand->WriteBlock(0, target, width, 1, row.re.get(), width, 1, PDT_Float32, 0, 0) ||
            !imagBand->WriteBlock(0, target, width, 1, row.im.get(), width, 1, PDT_Float32, 0, 0))
            return Fail(kContext, "Failed to write the output file!");
        if (blocks.IsLastRowOfBlock(y))
            blocks.Release(y / blocks.RowsPerBlock());
    }
    return true;
}

bool TavTransFFTFuncNew::WriteRealHalves(RasterBand& band, FftBandBlocks& blocks, int declaredType)
{
    const int width = blocks.Width();
    for (int b = 0; b < blocks.BlockCount(); ++b) {
        const int rows = blocks.RowsOf(b);
        // The float samples go out under the declared type without conversion, kept on purpose:
        // only Float32 yields the values, other types get the float bits reinterpreted. A block
        // holds 8 bytes a pixel, so even a Float64 declaration stays inside it.
        if (!band.WriteBlock(0, blocks.FirstRow(b), width, rows, blocks.Re(b), width, rows,
                             static_cast<PixelDataType>(declaredType), 0, 0))
            return Fail(kContext, "Failed to write the output file!");
        blocks.Release(b);
    }
    return true;
}
