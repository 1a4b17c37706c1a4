#include "pca/PCAEngine.h"
#include "frame/BlockPipeline.h"
#include "frame/RasterAccess.h"
#include "frame/RunSteps.h"
#include "frame/TransWorker.h"
#include "pca/PCAEigen.h"
#include "pca/PCAKernels.h"
#include "pca/PCAMasked.h"

#include "OrvDataSource/DatasetFactory.h"

#include <atomic>
#include <new>
#include <optional>

using namespace OrvDataSource;

namespace {

const char* kContext = "RSPCA";
constexpr long long kMi = 1LL << 20;
constexpr int kRangeRows = 128;
// Each block is moved in chunks of rows of about this many samples: the sums see the pixels in the
// same order, and memory stays a few MiB whatever the block holds.
constexpr long long kChunkSamples = 64 * 1024;
// Square matrices of this many bands stay near 128 MiB; a statistics file claiming more is refused.
constexpr int kMaxBands = 4096;

QString ForwardMessage() { return Tr(kContext, "Forward PCA Rotation is running..."); }
QString InverseMessage() { return Tr(kContext, "Inverse PCA Rotation is running..."); }


// An output on the input's grid, with its projection and geotransform; null when it cannot be created.
template <class TOut>
OrvUtility::_ptr_t<RasterDataset> CreatePlaced(RasterDataset& in, const QString& path, int bands, const QString& format)
{
    auto out = DatasetFactory::Instance()->CreateRasterDataset(path, in.GetRasterXSize(), in.GetRasterYSize(), bands,
                                                               static_cast<PixelDataType>(PixelTypeOf<TOut>()), format,
                                                               nullptr);
    if (out) {
        CopySpatialReference(in, *out);
        CopyGeoTransform(in, *out);
    }
    return out;
}

// Whole rows of bands 1..bands, pixel-major.
template <class T>
bool ReadRows(RasterDataset& in, int first, int rows, int bands, T* buffer)
{
    return ReadBandRows(in, 0, in.GetRasterXSize(), first, rows, AllBandNumbers(bands), PixelTypeOf<T>(), buffer,
                        SampleOrder::PixelMajor);
}

// A chunk of bands 1..bands, band after band.
template <class T>
bool ReadChunk(RasterDataset& in, const PcaChunk& c, int bands, T* buffer)
{
    return ReadBandRows(in, c.x0, c.cols, c.first, c.rows, AllBandNumbers(bands), PixelTypeOf<T>(), buffer,
                        SampleOrder::BandAfterBand);
}

// A chunk's pixel-major values of bands 1..bands.
template <class T>
bool WriteChunk(RasterDataset& out, const PcaChunk& c, int bands, T* buffer)
{
    const BandNumbers numbers = AllBandNumbers(bands);
    const PixelMajor space = PixelMajorSpacing(bands, c.cols, sizeof(T));
    return out.WriteRaster(c.x0, c.first, c.cols, c.rows, buffer, c.cols, c.rows,
                           static_cast<PixelDataType>(PixelTypeOf<T>()), bands, numbers.data(), space.pixel,
                           space.line, space.band);
}

int ChunkRows(long long blockRows, int width, int bands)
{
    return static_cast<int>(std::max(1LL, std::min(blockRows, RowsWithin(kChunkSamples, width, bands))));
}

// A pass's blocks of rows cut into chunks of about kChunkSamples samples, numbered through the
// image in pixel order: whole rows where a row fits, pieces of one row where it does not, so that
// memory stays the same for any width.
class ChunkPlan {
public:
    ChunkPlan(int width, int height, long long blockRows, int bands)
        : m_width(width), m_blocks(height, static_cast<int>(blockRows)),
          m_pieces(static_cast<int>((static_cast<long long>(width) * bands + kChunkSamples - 1) / kChunkSamples)),
          m_cols((width + m_pieces - 1) / m_pieces),
          m_rows(m_pieces > 1 ? 1 : ChunkRows(m_blocks.RowsPerBlock(), width, bands)),
          m_perBlock(RowChunks(m_blocks.RowsPerBlock()) * m_pieces)
    {
    }
    const RowBlocks& Blocks() const { return m_blocks; }
    long long MaxPixels() const { return static_cast<long long>(m_rows) * m_cols; }
    int Count() const
    {
        const int blocks = m_blocks.Count();
        return blocks == 0 ? 0 : (blocks - 1) * m_perBlock + RowChunks(m_blocks[blocks - 1].rows) * m_pieces;
    }
    PcaChunk operator[](int index) const
    {
        const RowBlock block = m_blocks[index / m_perBlock];
        const int within = index % m_perBlock;
        const int row = within / m_pieces * m_rows;
        const int rows = std::min(m_rows, block.rows - row);
        const int x0 = within % m_pieces * m_cols;
        const int cols = std::min(m_cols, m_width - x0);
        return {block.index, block.first + row, rows, x0, cols, row + rows == block.rows && x0 + cols == m_width};
    }

private:
    int RowChunks(int rows) const { return (rows + m_rows - 1) / m_rows; }
    int m_width;
    RowBlocks m_blocks;
    int m_pieces, m_cols, m_rows, m_perBlock;
};

// The helper widens and interleaves a chunk a piece of this many samples at a time.
constexpr long long kPieceSamples = 8 * 1024;

// fn(values, first pixel, pixels) over a chunk's band-sequential samples, a piece at a time,
// widened and interleaved into `piece` (kPieceSamples doubles, or n for more bands than that).
template <class TIn, class Fn>
void ForPieces(const TIn* samples, long long pixels, int n, double* piece, Fn&& fn)
{
    const long long step = std::max(1LL, kPieceSamples / n);
    for (long long first = 0; first < pixels; first += step) {
        const long long count = std::min(step, pixels - first);
        PcaInterleave(samples + first, pixels, count, n, piece);
        fn(piece, first, count);
    }
}

TypedBuffer<double> NewPiece(int n) { return NewSamples<double>(std::max<long long>(kPieceSamples, n)); }

// Chunks in flight: one being read, one being computed, one being written.
constexpr int kSlots = 3;

// Calls fn(TIn{}, TOut{}) for two pixel type codes; false when either is not 1..7.
template <class Fn>
bool DispatchPair(int inType, int outType, Fn&& fn)
{
    bool matched = false;
    DispatchPixelType(inType, [&](auto in) {
        matched = DispatchPixelType(outType, [&](auto out) { fn(in, out); });
    });
    return matched;
}

} // namespace

CPCAEngine::CPCAEngine(const QString& input, const RunContext* context) : m_strInput(input), m_pContext(context) {}

CPCAEngine::~CPCAEngine() = default;

// Rows of all n bands per block, about 4 Mi samples; 0 when not even one row fits.
long long CPCAEngine::BlockRows() const
{
    return RowsWithin(m_nBlockMi * kMi, m_pDataset->GetRasterXSize(), m_nBands);
}

// ---------------------------------------------------------------- forward

int CPCAEngine::ForwardDriver(const stForwardPCAInfo& info)
{
    // Without stepwise and with no components the engine is taken as it is: a fresh one has no
    // pixel types, so no routine matches.
    if (info.bStepwise || info.nComponents >= 1) {
        int status = 0;
        if (!PrepareForward(info, status))
            return status;
    }
    int status = 14;
    const bool matched = DispatchPair(m_nInType, m_nOutType, [&](auto in, auto out) {
        status = StepRoutine<typename decltype(in)::type, typename decltype(out)::type>(
            info.strOutputFile, info.nComponents, info.bSubtractMean, info.strFormat);
    });
    return matched ? status : 14;
}

// Runs on every accepted call, rotation-only included: the sums start again from zero, so a
// rotation-only run subtracts means of zero. Kept on purpose; the eigenvectors stay.
bool CPCAEngine::PrepareForward(const stForwardPCAInfo& info, int& status)
{
    m_strStatFile = info.strStatFile;
    m_bCovariance = info.bCovariance;
    m_bStepwise = info.bStepwise;
    m_nOutType = info.nOutDataType + 1;
    m_pDataset = TransWorker::OpenInputRaster(m_strInput);
    if (!m_pDataset) {
        status = 1;
        return false;
    }
    const int available = m_pDataset->GetBandCount();
    const int n = info.nComponents != 0 ? info.nComponents : available;
    if (n < 1 || n > available) {
        status = 1;
        return false;
    }
    m_nBands = n;
    if (!ResetAccumulators()) {
        status = 1;
        return false;
    }
    EnsureStatFile();
    m_nInType = m_pDataset->GetRasterBand(0)->GetRasterDataType();
    return true;
}

bool CPCAEngine::ResetAccumulators()
{
    const long long n = m_nBands;
    m_pSum = NewZeroedSamples<double>(n);
    m_pSumSq = NewZeroedSamples<double>(n);
    m_pCross = NewZeroedSamples<double>(n * n);
    return m_pSum && m_pSumSq && m_pCross;
}

// An object left from an earlier run is reused only while it names the same file and band count.
void CPCAEngine::EnsureStatFile()
{
    if (!m_pStatFile || m_pStatFile->Bands() != m_nBands || m_pStatFile->Path() != m_strStatFile)
        m_pStatFile = std::make_unique<CPCAStatFile>(m_strStatFile, m_nBands);
}

template <class TIn, class TOut>
int CPCAEngine::StepRoutine(const QString& output, int components, bool subtractMean, const QString& format)
{
    if (!(m_bStepwise && components != 0)) {
        if (const int status = StatisticsPass<TIn>(components))
            return status;
        if (m_bStepwise)
            return 0;
    }
    return Projection<TIn, TOut>(output, components, subtractMean, format);
}

template <class TIn>
int CPCAEngine::StatisticsPass(int components)
{
    if (!m_pDataset)
        return 1;
    if (!ResetAccumulators())
        return 1;
    EnsureStatFile();
    const int n = m_nBands;
    const long long rows = BlockRows();
    if (rows < 1)
        return 1;
    const ProgressSpan readSpan(*m_pContext, ForwardMessage(), 0, 30, ProgressMath::Integer);
    TypedBuffer<double> piece = NewPiece(n); // the computation's: one chunk is computed at a time
    if (!piece)
        return 1;
    const int read = StreamChunks<TIn>(rows, readSpan, true, [&](const PcaChunk& chunk, const TIn* samples, int slot) {
        ForPieces(samples, chunk.Pixels(), n, piece.get(), [&](double* values, long long first, long long pixels) {
            if (m_pMask)
                pixels = m_pMask->KeepValid(values, first, pixels, n, slot);
            PcaWithBandCount(n, [&](auto fixed) {
                PcaAccumulate<decltype(fixed)::value>(values, pixels, n, m_pSum.get(), m_pSumSq.get(), m_pCross.get());
            });
        });
    });
    if (read != 0) {
        m_pStatFile.reset();
        return read;
    }
    if (const int status = FinishMatrix())
        return status;
    if (!m_pStatFile->CreateForWriting())
        return 1;
    if (!DecomposeAndStore())
        return 1;
    if (components == 0)
        HandBackEigenValues();
    readSpan.ReportPercent(50);
    return 0;
}

// Sums into means, standard deviations and the population covariance (or correlation) matrix.
int CPCAEngine::FinishMatrix()
{
    const int n = m_nBands;
    const double count = m_pMask ? static_cast<double>(m_pMask->ValidPixels())
                                 : static_cast<double>(m_pDataset->GetRasterXSize()) * m_pDataset->GetRasterYSize();
    if (count == 0) { // only a masked run gets here; its branch words its own failures
        m_pContext->SetErrorInfo(1, Tr(kContext, "Every pixel of the input is masked: there are no statistics to take."));
        return 1;
    }
    double* mean = m_pSum.get();
    double* std = m_pSumSq.get();
    double* cross = m_pCross.get();
    for (int b = 0; b < n; ++b)
        for (int j = 0; j < b; ++j)
            cross[b * n + j] = cross[j * n + b];
    for (int b = 0; b < n; ++b)
        mean[b] /= count;
    const ProgressSpan bandSpan(*m_pContext, ForwardMessage(), 30, 40, ProgressMath::Integer);
    bandSpan.ReportPercent(30);
    for (int b = 0; b < n; ++b) {
        std[b] /= count;
        std[b] = std::sqrt(std[b] - mean[b] * mean[b]);
        bandSpan.Report(b, n);
    }
    bandSpan.ReportPercent(40);
    const ProgressSpan rowSpan(*m_pContext, ForwardMessage(), 40, 50, ProgressMath::Integer);
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            double& c = cross[i * n + j];
            c = c / count - mean[i] * mean[j];
            if (!m_bCovariance)
                c = i == j ? 1.0 : c / (std[j] * std[i]);
        }
        if (!rowSpan.ReportAndPoll(i, n)) {
            m_pStatFile.reset();
            return 6;
        }
    }
    return 0;
}

bool CPCAEngine::DecomposeAndStore()
{
    const int n = m_nBands;
    m_pStatFile->SetMeans(m_pSum.get());
    m_pStatFile->SetMatrix(m_pCross.get());
    m_matrix = Eigen::Map<const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>(m_pCross.get(), n, n);
    PcaEigenResult eigen;
    if (!PcaDecompose(m_pCross.get(), n, 0.001, eigen))
        return false;
    m_eigenValues = std::move(eigen.values);
    m_eigenVectors = std::move(eigen.vectors);
    m_contribution = std::move(eigen.contribution);
    m_cumulative = std::move(eigen.cumulative);
    const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> rows = m_eigenVectors;
    m_pStatFile->SetEigenVectors(rows.data());
    m_pStatFile->SetEigenValues(m_eigenValues.data());
    m_pStatFile->SetCumulative(m_cumulative.data());
    m_pStatFile->WriteAndClose();
    return true;
}

void CPCAEngine::HandBackEigenValues() const
{
    const boost::any params = m_pContext->Params();
    const auto* held = boost::any_cast<stForwardPCAInfo>(&params);
    if (!held) {
        const long long total = static_cast<long long>(m_pDataset->GetRasterXSize()) * m_pDataset->GetRasterYSize();
        HandBackMaskedEigenValues(*m_pContext, m_eigenValues, m_contribution, m_cumulative,
                                  m_pMask ? m_pMask->ValidPixels() : total, total);
        return;
    }
    stForwardPCAInfo record = *held;
    record.vecEigenValues = m_eigenValues;
    record.vecContribution = m_contribution;
    record.vecCumulative = m_cumulative;
    m_pContext->SetParams(record);
}

template <class TIn>
PcaSampleRange CPCAEngine::InputRange(RasterDataset& raster, bool& refused)
{
    PcaSampleRange range;
    const int width = raster.GetRasterXSize();
    const int bands = raster.GetBandCount();
    const int chunkRows = ChunkRows(kRangeRows, width, bands);
    TypedBuffer<TIn> buffer = NewSamples<TIn>(static_cast<long long>(chunkRows) * width * bands);
    refused = !buffer;
    if (!buffer)
        return range;
    for (const RowBlock block : RowBlocks(raster.GetRasterYSize(), kRangeRows))
        for (const RowBlock chunk : RowBlocks(block.rows, chunkRows)) {
            ReadRows(raster, block.first + chunk.first, chunk.rows, bands, buffer.get());
            const TIn* p = buffer.get();
            for (long long i = 0, count = static_cast<long long>(chunk.rows) * width * bands; i < count; ++i)
                range.Add(static_cast<double>(p[i]));
        }
    return range;
}

template <class TIn, class TOut>
int CPCAEngine::Projection(const QString& output, int components, bool subtractMean, const QString& format)
{
    const int n = m_nBands;
    const int m = components > 0 ? components : n;
    if (m > n || m_eigenVectors.rows() < n || m_eigenVectors.cols() < m)
        return 1;
    const long long rows = BlockRows();
    if (rows < 1)
        return 1;
    m_projection = m_eigenVectors.topLeftCorner(n, m);
    // Square for the rotation step; the columns past m only compute values that are not written.
    Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> weights = Eigen::MatrixXd::Zero(n, n);
    weights.leftCols(m) = m_projection;
    RasterPtr raster = CreatePlaced<TOut>(*m_pDataset, output, m, format);
    if (!raster)
        return 2;
    const ProgressSpan span(*m_pContext, ForwardMessage(), 50, 100, ProgressMath::Integer);
    const int status = RotateBlocks<TIn, TOut>(*raster, rows, m, subtractMean ? m_pSum.get() : nullptr,
                                               weights.data(), nullptr, span);
    if (status == 0 && m_pMask)
        m_pMask->Declare(*raster, m);
    if (status == 0)
        CopyRpcIfPresent(*m_pDataset, *raster);
    m_pStatFile.reset();
    return status;
}

// The input in blocks of `rows` rows, each moved in chunks: bands 1..n of a chunk are read on the
// run's thread, band after band; compute(chunk, samples, slot) runs on the pipeline's helper,
// chunk after chunk, and done(chunk, samples, slot) back on the run's thread once the chunk is
// computed (false: memory was short). The span reports and polls once a block's last chunk is read. `announce` reports the
// span's start once the buffers are there. 0, or the failed status.
template <class TIn>
int CPCAEngine::StreamChunks(long long rows, const ProgressSpan& span, bool announce, const ChunkWork<TIn>& compute,
                             const ChunkDone<TIn>& done)
{
    const int n = m_nBands;
    const ChunkPlan plan(m_pDataset->GetRasterXSize(), m_pDataset->GetRasterYSize(), rows, n);
    if (m_pMask && !m_pMask->Prepare(*m_pDataset, n, kSlots, plan.MaxPixels()))
        return 1;
    TypedBuffer<TIn> slots[kSlots];
    for (auto& slot : slots)
        if (!(slot = NewSamples<TIn>(plan.MaxPixels() * n)))
            return 1;
    BlockPipeline pipe(kSlots, [&](int index) { compute(plan[index], slots[index % kSlots].get(), index % kSlots); });
    if (!pipe.Ready())
        return 1;
    if (announce)
        span.Report(0, 1);
    int status = 0;
    pipe.Stream(plan.Count(), [&](int index) {
        const PcaChunk chunk = plan[index];
        if (!ReadChunk(*m_pDataset, chunk, n, slots[index % kSlots].get()) ||
            (m_pMask && !m_pMask->ReadChunk(chunk.x0, chunk.first, chunk.cols, chunk.rows,
                                            static_cast<const TIn*>(slots[index % kSlots].get()), index % kSlots)))
            status = 1;
        else if (chunk.lastOfBlock && !span.ReportAndPoll(chunk.block, plan.Blocks().Count()))
            status = 6;
        return status == 0;
    }, [&](int index) {
        if (done && !done(plan[index], slots[index % kSlots].get(), index % kSlots))
            status = 1;
        return status == 0;
    });
    return status;
}

// Both rotations: every pixel's first m of n rotated values. The input's sample range is read only
// if a value falls outside the output type; the helper then leaves that chunk to the run's thread,
// which alone reads the input.
template <class TIn, class TOut>
int CPCAEngine::RotateBlocks(RasterDataset& out, long long rows, int m, const double* sub, const double* weights,
                             const double* add, const ProgressSpan& span)
{
    const int n = m_nBands;
    const ChunkPlan plan(m_pDataset->GetRasterXSize(), m_pDataset->GetRasterYSize(), rows, n);
    const long long chunkPixels = plan.MaxPixels();
    TypedBuffer<TOut> results[kSlots];
    for (auto& result : results)
        if (!(result = NewSamples<TOut>(chunkPixels * m)))
            return 1;
    // The helper's piece and scratch; the run thread's only once a chunk needs the input's range.
    TypedBuffer<double> piece = NewPiece(n), redone;
    std::vector<double> scratch(2 * n), redoneScratch(2 * n);
    if (!piece)
        return 1;
    bool needsRange[kSlots] = {};
    // Written once by the run's thread before `known` is set; the helper reads it only after.
    std::optional<PcaSampleRange> range;
    std::atomic<bool> known{false};
    auto rotate = [&](const PcaChunk& chunk, const TIn* samples, double* into, double* work, TOut* result,
                      auto&& rangeFn) {
        ForPieces(samples, chunk.Pixels(), n, into, [&](double* values, long long first, long long pixels) {
            PcaWithBandCount(n, [&](auto fixed) {
                PcaRotate<decltype(fixed)::value>(values, pixels, n, sub, weights, add, work);
            });
            PcaNarrow(values, pixels, n, m, result + first * m, rangeFn);
        });
    };
    return StreamChunks<TIn>(rows, span, false, [&](const PcaChunk& chunk, const TIn* samples, int slot) {
        const PcaSampleRange none;
        bool missing = false;
        rotate(chunk, samples, piece.get(), scratch.data(), results[slot].get(), [&]() -> const PcaSampleRange& {
            if (known.load(std::memory_order_acquire))
                return *range;
            missing = true;
            return none;
        });
        needsRange[slot] = missing;
        if (m_pMask && !missing)
            m_pMask->FillMasked(results[slot].get(), chunk.Pixels(), m, slot);
    }, [&](const PcaChunk& chunk, const TIn* samples, int slot) {
        if (needsRange[slot]) {
            if (!range) {
                bool refused = false;
                range = m_pMask ? m_pMask->ValidRange<TIn>(*m_pDataset, refused) : InputRange<TIn>(*m_pDataset, refused);
                // Without the input's range the values beyond the output type cannot be mapped.
                if (refused)
                    return false;
                known.store(true, std::memory_order_release);
            }
            if (!redone && !(redone = NewPiece(n)))
                return false;
            rotate(chunk, samples, redone.get(), redoneScratch.data(), results[slot].get(),
                   [&]() -> const PcaSampleRange& { return *range; });
            if (m_pMask)
                m_pMask->FillMasked(results[slot].get(), chunk.Pixels(), m, slot);
        }
        WriteChunk(out, chunk, m, results[slot].get());
        return true;
    });
}

// ---------------------------------------------------------------- inverse

int CPCAEngine::InverseDriver(const stInversePCAInfo& info)
{
    const ProgressSpan span(*m_pContext, InverseMessage(), 0, 100, ProgressMath::Integer);
    span.ReportPercent(0);
    m_pStatFile = std::make_unique<CPCAStatFile>(info.strStatFile, 0);
    if (!m_pStatFile->OpenForReading())
        return 1;
    const int n = m_pStatFile->Bands();
    if (n < 1 || n > kMaxBands)
        return 1;
    m_nBands = n;
    m_nOutType = info.nOutDataType >= 0 && info.nOutDataType <= 5 ? info.nOutDataType + 1 : 7;
    m_pDataset = TransWorker::OpenInputRaster(m_strInput);
    if (!m_pDataset)
        return 1;
    if (m_pDataset->GetBandCount() < n)
        return 1;

    // Zero-filled first: values a short file does not hold stay zero.
    TypedBuffer<double> vectors = NewZeroedSamples<double>(static_cast<long long>(n) * n);
    m_pSum = NewZeroedSamples<double>(n);
    if (!vectors || !m_pSum)
        return 1;
    m_pStatFile->ReadEigenVectors(vectors.get());
    m_pStatFile->ReadMeans(m_pSum.get());
    // File order into a column-major matrix is the transpose of the stored one.
    const Eigen::MatrixXd transposed = Eigen::Map<const Eigen::MatrixXd>(vectors.get(), n, n);
    const Eigen::MatrixXd back = transposed.inverse();

    m_nInType = m_pDataset->GetRasterBand(0)->GetRasterDataType();
    int status = 14;
    const bool matched = DispatchPair(m_nInType, m_nOutType, [&](auto in, auto out) {
        status = InverseRoutine<typename decltype(in)::type, typename decltype(out)::type>(info.strOutputFile, back,
                                                                                          m_pSum.get(), info.strFormat);
    });
    m_pStatFile.reset();
    return matched ? status : 14;
}

template <class TIn, class TOut>
int CPCAEngine::InverseRoutine(const QString& output, const Eigen::MatrixXd& back, const double* means,
                               const QString& format)
{
    const int n = m_nBands;
    const long long rows = BlockRows();
    if (rows < 1)
        return 1;
    RasterPtr raster = CreatePlaced<TOut>(*m_pDataset, output, n, format);
    if (!raster)
        return 2;
    // Component k of a pixel weighs back-rotation column k: weights[k][b] = back(b, k). The mean
    // goes back whatever the forward run subtracted; intended.
    const Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> weights = back.transpose();
    const ProgressSpan span(*m_pContext, InverseMessage(), 0, 100, ProgressMath::Integer);
    const int status = RotateBlocks<TIn, TOut>(*raster, rows, n, nullptr, weights.data(), means, span);
    if (status == 0 && m_pMask)
        m_pMask->Declare(*raster, n);
    return status;
}
