#include "wavelet/WaveletTransform.h"
#include "frame/MeanFill.h"
#include "frame/RasterAccess.h"
#include "frame/RunSteps.h"
#include "wavelet/WaveletKernel.h"

#include "OrvDataSource/DatasetFactory.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <vector>

using namespace OrvDataSource;

namespace {

const char* kContext = "WaveletTransformFunc";
// The forward run's open failure is translated under the Fourier label; the translation files
// our hosts ship carry it there, so it stays.
const char* kForwardOpenContext = "TavTransFFTFunc";
const char* kForwardMessage = "Forward Wavelet Transform is running...";
const char* kInverseMessage = "Inverse Wavelet Transform is running...";

bool SameFile(const QString& a, const QString& b)
{
    return QFileInfo(a).absoluteFilePath() == QFileInfo(b).absoluteFilePath();
}

// Carries the input's RPC coefficients (".rpb") over to the output's name.
void CopySideFile(const QString& input, const QString& output)
{
    const QString from = CutBeforeLastDot(input) + QStringLiteral(".rpb");
    const QString to = CutBeforeLastDot(output) + QStringLiteral(".rpb");
    if (!QFile::exists(from) || SameFile(from, to))
        return;
    if (QFile::exists(to))
        QFile::remove(to);
    QFile::copy(from, to);
}

// A negative first column or row selects the whole image whatever the other bounds say. A window
// reaching outside the image fails, like a band list that does not fit, without a text.
bool ResolveWindow(int width, int height, int firstCol, int lastCol, int firstRow, int lastRow, PixelWindow& win)
{
    if (firstCol < 0 || firstRow < 0) {
        win = WholeWindow(width, height);
        return width > 0 && height > 0;
    }
    if (lastCol < firstCol || lastRow < firstRow || lastCol >= width || lastRow >= height)
        return false;
    win = InclusiveWindow(firstCol, lastCol, firstRow, lastRow);
    return true;
}

// None listed means every band in order.
bool ResolveBands(const int* bands, int count, int bandCount, BandIndices& list)
{
    if (!bands || count <= 0) {
        list = AllBandIndices(bandCount);
        return bandCount > 0;
    }
    if (count > bandCount)
        return false;
    list.assign(bands, bands + count);
    return std::all_of(list.begin(), list.end(), [&](int b) { return b >= 0 && b < bandCount; });
}

// Origin moved to the window's corner; the coordinate system only when the input is not
// referenced by ground control points, whose system is a different one.
void PlaceOnInput(RasterDataset& in, RasterDataset& out, const PixelWindow& win)
{
    double gt[6];
    in.GetGeoTransform(gt);
    ShiftOrigin(gt, win.x0, win.y0);
    out.SetGeoTransform(gt);
    const auto srs = in.GetSpatialReference();
    if (srs && in.GetGCPCount() == 0)
        out.SetSpatialReference(srs);
}

TypedBuffer<float> NewFloats(std::size_t count)
{
    if (count > static_cast<std::size_t>(std::numeric_limits<long long>::max()))
        return nullptr;
    return NewSamples<float>(static_cast<long long>(count));
}

// a * b * c, or the largest size when that overflows (which no allocator gives).
std::size_t Product(std::size_t a, std::size_t b, std::size_t c)
{
    std::size_t ab = 0, abc = 0;
    if (__builtin_mul_overflow(a, b, &ab) || __builtin_mul_overflow(ab, c, &abc))
        return std::numeric_limits<std::size_t>::max();
    return abc;
}

// Rows of every selected band held together, row after row: the runs read and write all bands of
// a chunk of rows in one call, so a pixel-interleaved file has each of its blocks read or written
// once, never read back to add the next band.
class BandRows {
public:
    BandRows(std::size_t rows, std::size_t bands, std::size_t width)
        : m_rows(rows), m_bands(bands), m_width(width), m_data(NewFloats(Product(rows, bands, width)))
    {
    }
    explicit operator bool() const { return m_data != nullptr; }
    std::size_t Rows() const { return m_rows; }
    float* Row(std::size_t slot, std::size_t band) const { return m_data.get() + (slot * m_bands + band) * m_width; }
    // Floats from a band's row to its next.
    long long RowStride() const { return static_cast<long long>(m_bands * m_width); }

    // Rows y .. y + rows - 1 of the window's columns into slots from `slot`; GDAL converts to Float32.
    bool Read(RasterDataset* ds, int x, int y, std::size_t rows, std::size_t slot, const BandNumbers& bands) const
    {
        return ReadBandRows(*ds, x, static_cast<int>(m_width), y, static_cast<int>(rows), bands, PDT_Float32,
                            Row(slot, 0), SampleOrder::BandsByLine);
    }
    // Slots from `slot` to rows y .. y + rows - 1; GDAL converts to the file's type.
    void Write(RasterDataset* ds, int y, std::size_t rows, std::size_t slot, const BandNumbers& bands) const
    {
        if (rows == 0)
            return;
        ds->WriteRaster(0, y, static_cast<int>(m_width), static_cast<int>(rows), Row(slot, 0),
                        static_cast<int>(m_width), static_cast<int>(rows), PDT_Float32,
                        static_cast<int>(bands.size()), bands.data(), kFloat, LineBytes(), BandBytes());
    }
    // Slots from .. from + count - 1 become slots 0 .. count - 1.
    void MoveToFront(std::size_t from, std::size_t count) const
    {
        if (from > 0 && count > 0)
            std::memmove(Row(0, 0), Row(from, 0), count * m_bands * m_width * sizeof(float));
    }
    void Clear(std::size_t slot) const { std::fill_n(Row(slot, 0), m_bands * m_width, 0.0f); }

private:
    static constexpr long long kFloat = sizeof(float);
    long long LineBytes() const { return kFloat * static_cast<long long>(m_bands * m_width); }
    long long BandBytes() const { return kFloat * static_cast<long long>(m_width); }

    std::size_t m_rows, m_bands, m_width;
    TypedBuffer<float> m_data;
};

// Rows of all bands per chunk unless a narrower chunk is asked for: about a megabyte stays in the
// processor's cache from the read through both passes to the write, which measured fastest, and the
// memory is the same however many rows the scene has.
constexpr std::size_t kChunkBytes = 1u << 20;

std::size_t DefaultRowsPerChunk(std::size_t bands, std::size_t width)
{
    return std::max<std::size_t>(2, kChunkBytes / std::max<std::size_t>(1, Product(bands, width, sizeof(float))));
}

// The temporary raster between the synthesis passes. One row per strip, bands apart: every chunk
// of whole rows written into it or read back from it covers whole blocks, so none is ever read
// back to be completed, whatever the chunk size. The file goes with the handle, on success and on
// failure alike.
class TempRaster {
public:
    explicit TempRaster(QString path) : m_path(std::move(path)) {}
    ~TempRaster()
    {
        if (!m_created)
            return;
        m_ds = nullptr;
        QFile::remove(m_path);
    }
    TempRaster(const TempRaster&) = delete;
    TempRaster& operator=(const TempRaster&) = delete;

    bool Create(int width, int height, int bands)
    {
        const char* options[] = {"BLOCKYSIZE=1", "INTERLEAVE=BAND", nullptr};
        m_ds = DatasetFactory::Instance()->CreateRasterDataset(m_path, width, height, bands, PDT_Float32,
                                                               QStringLiteral("GTiff"),
                                                               const_cast<char**>(options));
        m_created = m_ds != nullptr;
        return m_created;
    }
    RasterDataset* Get() const { return m_ds.get(); }
    const QString& Path() const { return m_path; }

private:
    QString m_path;
    OrvUtility::_ptr_t<RasterDataset> m_ds;
    bool m_created = false;
};

// The budget's batch of lines: two Float32 lines, in and out, of the longer side plus the border.
// Each band's row counts as a line, so a chunk of rows of all bands stays within the budget.
std::size_t LinesPerChunk(long long budget, const PixelWindow& win)
{
    const long long perLine = (4 + 4) * (static_cast<long long>(std::max(win.width, win.height)) + 4);
    return static_cast<std::size_t>(std::max(1LL, budget / perLine));
}

// The two reports per band that the runs have always given, each made when the streamed work
// reaches its share: mark j of `count` is due once done / total exceeds j / count.
class ProgressMarks {
public:
    ProgressMarks(const ProgressSpan& span, std::size_t first, std::size_t count)
        : m_span(span), m_next(first), m_count(count)
    {
    }
    // Reports each mark that is due, polling after each; false when the run is to stop.
    bool Reach(std::size_t done, std::size_t total)
    {
        if (m_span.Cancelled())
            return false;
        while (m_next < m_count && static_cast<double>(m_next) * total < static_cast<double>(done) * m_count)
            if (!m_span.ReportAndPoll(static_cast<long long>(m_next++), static_cast<long long>(m_count)))
                return false;
        return true;
    }

private:
    const ProgressSpan& m_span;
    std::size_t m_next, m_count;
};

// The forward run in row order. Rows are read a chunk at a time for every band and row-passed at
// once; the column pass then needs rows 2k .. 2k + 3 for low-pass row k and rows 2k - 2 .. 2k + 1
// for high-pass row k, so output rows k and floor(h/2) + k are written as soon as row 2k + 3 is in
// and only the last few rows are carried into the next chunk.
class ForwardStream {
public:
    ForwardStream(std::size_t w, std::size_t h, std::size_t bands, std::size_t rowsPerChunk)
        : m_w(w), m_h(h), m_bands(bands), m_chunk(rowsPerChunk),
          // The rows carried over (at most 5) and a chunk.
          m_rows(rowsPerChunk + 6, bands, w),
          // The pairs one chunk completes (at most rowsPerChunk / 2 + 2).
          m_low(rowsPerChunk / 2 + 3, bands, w), m_high(rowsPerChunk / 2 + 3, bands, w),
          m_border(1, bands, w), m_zeros(NewFloats(w)), m_scratch(NewFloats(WaveletKernel::LineScratchSize(w)))
    {
    }
    // Zeroes the padding row; false, with nothing touched, when a buffer was refused.
    bool Prepare()
    {
        if (!m_rows || !m_low || !m_high || !m_border || !m_zeros || !m_scratch)
            return false;
        std::fill_n(m_zeros.get(), m_w, 0.0f);
        return true;
    }
    bool Done() const { return m_read == m_h; }
    std::size_t NextEnd() const { return std::min(m_read + m_chunk, m_h); }
    // One per band, null where the band is read as it is.
    void SetFills(std::vector<BandMeanFill*> fills) { m_fills = std::move(fills); }

    bool ReadChunk(RasterDataset* in, const PixelWindow& win, const BandNumbers& bands)
    {
        const std::size_t keepFrom = m_next >= 1 ? 2 * m_next - 2 : 0;
        m_rows.MoveToFront(keepFrom - m_base, m_read - keepFrom);
        m_base = keepFrom;
        const std::size_t rows = NextEnd() - m_read;
        const std::size_t slot = m_read - m_base;
        if (!m_rows.Read(in, win.x0, win.y0 + static_cast<int>(m_read), rows, slot, bands))
            return false;
        for (std::size_t b = 0; b < m_fills.size(); ++b)
            if (m_fills[b])
                m_fills[b]->Fill(win.x0, win.y0 + static_cast<int>(m_read), static_cast<int>(m_w),
                                 static_cast<int>(rows), m_rows.Row(slot, b), m_rows.RowStride());
        for (std::size_t s = slot; s < slot + rows; ++s)
            for (std::size_t b = 0; b < m_bands; ++b)
                WaveletKernel::ForwardLine(m_rows.Row(s, b), m_rows.Row(s, b), m_w, m_scratch.get());
        m_read += rows;
        return true;
    }

    // Every output row pair the rows read so far complete, all bands per write.
    void WriteReadyRows(RasterDataset* out, const BandNumbers& bands)
    {
        const std::size_t end = Done() ? (m_h + 1) / 2 : (m_read >= 4 ? (m_read - 4) / 2 + 1 : 0);
        if (end > 0 && m_next == 0)
            for (std::size_t b = 0; b < m_bands; ++b)
                WaveletKernel::ForwardBorderRow(Row(0, b), m_h > 1 ? Row(1, b) : m_zeros.get(), m_border.Row(0, b), m_w);
        const std::size_t half = m_h / 2;
        while (m_next < end) {
            const std::size_t k0 = m_next, k1 = std::min(end, k0 + m_low.Rows());
            for (std::size_t k = k0; k < k1; ++k)
                for (std::size_t b = 0; b < m_bands; ++b) {
                    // For an odd h low-pass row floor(h/2) is the first high-pass row's place: never written.
                    if (k < half)
                        WaveletKernel::ForwardLowRow(Ext(2 * k + 2, b), Ext(2 * k + 3, b), Ext(2 * k + 4, b),
                                                     Ext(2 * k + 5, b), m_low.Row(k - k0, b), m_w);
                    WaveletKernel::ForwardHighRow(Ext(2 * k, b), Ext(2 * k + 1, b), Ext(2 * k + 2, b),
                                                  Ext(2 * k + 3, b), m_high.Row(k - k0, b), m_w);
                }
            m_low.Write(out, static_cast<int>(k0), std::min(k1, half) - std::min(k0, half), 0, bands);
            m_high.Write(out, static_cast<int>(half + k0), k1 - k0, 0, bands);
            m_next = k1;
        }
    }

private:
    const float* Row(std::size_t r, std::size_t b) const { return m_rows.Row(r - m_base, b); }
    // Row i of the column extension: the border row, a zero row, the rows, then zeros.
    const float* Ext(std::size_t i, std::size_t b) const
    {
        if (i == 0)
            return m_border.Row(0, b);
        if (i == 1 || i >= m_h + 2)
            return m_zeros.get();
        return Row(i - 2, b);
    }

    std::size_t m_w, m_h, m_bands, m_chunk;
    BandRows m_rows, m_low, m_high, m_border;
    TypedBuffer<float> m_zeros, m_scratch;
    std::vector<BandMeanFill*> m_fills;
    std::size_t m_read = 0; // rows read and row-passed
    std::size_t m_base = 0; // the row in slot 0 of m_rows
    std::size_t m_next = 0; // the next output pair
};

// The inverse's column synthesis in row order: rows 2k and 2k + 1 need the low-pass rows L[k - 1],
// L[k] (stored rows k - 1, k) and the high-pass rows H[k], H[k + 1] (stored rows h/2 + k and on),
// so both halves are read side by side, a chunk of pairs at a time, the last row of each carried.
class ColumnSynthesisStream {
public:
    ColumnSynthesisStream(std::size_t w, std::size_t h, std::size_t bands, std::size_t pairsPerChunk)
        : m_w(w), m_h(h), m_bands(bands), m_pairs(pairsPerChunk), m_low(pairsPerChunk + 1, bands, w),
          m_high(pairsPerChunk + 1, bands, w), m_out(2 * pairsPerChunk, bands, w)
    {
    }
    bool Allocated() const { return m_low && m_high && m_out; }
    bool Done() const { return m_next == NHigh(); }
    // The output rows done once the next chunk is.
    std::size_t NextRowsEnd() const { return std::min(2 * std::min(m_next + m_pairs, NHigh()), m_h); }

    // Reads the next chunk of pairs from `in` and writes its rows into `temp`.
    void Step(RasterDataset* in, const PixelWindow& win, const BandNumbers& inBands, RasterDataset* temp,
              const BandNumbers& tempBands)
    {
        const std::size_t k0 = m_next, k1 = std::min(k0 + m_pairs, NHigh());
        // Slot s of m_low holds L[k0 - 1 + s], slot s of m_high H[k0 + s].
        if (k0 == 0) {
            m_low.Clear(0);
            ReadStored(in, win, inBands, m_high, NLow(), 0, std::min(k1 + 1, NHigh()));
        } else {
            m_low.MoveToFront(m_pairs, 1);
            m_high.MoveToFront(m_pairs, 1);
            ReadStored(in, win, inBands, m_high, NLow() + k0 + 1, 1, std::min(k1 + 1, NHigh()) - (k0 + 1));
        }
        ReadStored(in, win, inBands, m_low, k0, 1, std::min(k1, NLow()) - std::min(k0, NLow()));
        if (k1 == NHigh())
            CompleteBottom(k0);
        for (std::size_t k = k0; k < k1; ++k)
            for (std::size_t b = 0; b < m_bands; ++b) {
                const std::size_t s = k - k0;
                const float *lPrev = m_low.Row(s, b), *l = m_low.Row(s + 1, b);
                const float *h = m_high.Row(s, b), *hNext = m_high.Row(s + 1, b);
                WaveletKernel::InverseEvenRow(lPrev, l, h, hNext, m_out.Row(2 * s, b), m_w);
                if (2 * k + 1 < m_h)
                    WaveletKernel::InverseOddRow(lPrev, l, h, hNext, m_out.Row(2 * s + 1, b), m_w);
            }
        m_out.Write(temp, static_cast<int>(2 * k0), std::min(2 * k1, m_h) - 2 * k0, 0, tempBands);
        m_next = k1;
    }

private:
    std::size_t NLow() const { return m_h / 2; }        // low-pass rows stored
    std::size_t NHigh() const { return (m_h + 1) / 2; } // high-pass rows stored

    static void ReadStored(RasterDataset* in, const PixelWindow& win, const BandNumbers& bands,
                           const BandRows& block, std::size_t row, std::size_t slot, std::size_t rows)
    {
        // Read failures leave the rows as they are, as the whole-band run always did.
        if (rows > 0)
            block.Read(in, win.x0, win.y0 + static_cast<int>(row), rows, slot, bands);
    }

    // The rows past the stored ones: L[h/2] overwritten by an odd height, and H[ceil(h/2)].
    void CompleteBottom(std::size_t k0) const
    {
        const std::size_t lastLowSlot = NHigh() - k0; // L[ceil(h/2) - 1]
        for (std::size_t b = 0; b < m_bands; ++b) {
            if (m_h % 2 != 0)
                WaveletKernel::InverseLastLowRow(m_high.Row(NLow() - k0, b), m_low.Row(NLow() - k0, b),
                                                 m_low.Row(lastLowSlot, b), m_w);
            WaveletKernel::InverseExtraHighRow(m_low.Row(lastLowSlot, b), m_high.Row(NHigh() - k0, b), m_w);
        }
    }

    std::size_t m_w, m_h, m_bands, m_pairs;
    BandRows m_low, m_high, m_out;
    std::size_t m_next = 0; // the next pair of output rows
};

// How the survey of the means ended.
enum class SurveyEnd { Done, Cancelled, NoMemory, ReadFailed, AllMasked };

// The means of the bands that can have masked pixels: one read of those bands, a chunk of rows at
// a time. Hands the fills to the stream and appends what they will fill to `filled`; `band` is the
// band that ended it otherwise.
SurveyEnd SurveyMeans(RasterDataset& in, const PixelWindow& win, const std::vector<std::unique_ptr<BandMeanFill>>& fills,
                      std::size_t rowsPerChunk, const ProgressSpan& progress, ForwardStream& stream,
                      std::vector<stBandFill>& filled, int& band)
{
    std::vector<BandMeanFill*> active, byBand;
    BandNumbers bands;
    for (const auto& fill : fills) {
        byBand.push_back(fill->Active() ? fill.get() : nullptr);
        if (fill->Active()) {
            active.push_back(fill.get());
            bands.push_back(fill->Band());
        }
    }
    if (active.empty())
        return SurveyEnd::Done;
    // Read in the bands' own type when they share one (Float64 holds any), band after band: no
    // conversion and the fewest bytes, which keeps this extra pass a small part of the run.
    int type = in.GetRasterBand(bands[0] - 1)->GetRasterDataType();
    for (int b : bands)
        if (in.GetRasterBand(b - 1)->GetRasterDataType() != type)
            type = PDT_Float64;
    const std::size_t w = win.width, h = win.height, n = active.size(), bytes = BytesPerSample(type);
    const std::size_t rows = rowsPerChunk ? rowsPerChunk : std::max<std::size_t>(1, kChunkBytes / Product(n, w, bytes));
    TypedBuffer<double> chunk = NewSamples<double>(static_cast<long long>((Product(rows, n, w) * bytes + 7) / 8));
    if (!chunk)
        return SurveyEnd::NoMemory;
    for (std::size_t y = 0; y < h; y += rows) {
        if (progress.Cancelled())
            return SurveyEnd::Cancelled;
        const int nr = static_cast<int>(std::min(rows, h - y)), y0 = win.y0 + static_cast<int>(y);
        if (!ReadBandRows(in, win.x0, static_cast<int>(w), y0, nr, bands, type, chunk.get(), SampleOrder::BandAfterBand))
            return SurveyEnd::ReadFailed;
        DispatchPixelType(type, [&](auto t) {
            using T = typename decltype(t)::type;
            const T* samples = reinterpret_cast<const T*>(chunk.get());
            for (std::size_t b = 0; b < n; ++b)
                active[b]->Survey(win.x0, y0, static_cast<int>(w), nr, samples + b * nr * w,
                                  static_cast<long long>(w), true);
        });
    }
    for (const BandMeanFill* fill : active) {
        band = fill->Band();
        if (!NoteFilled(*fill, static_cast<long long>(w) * h, filled))
            return SurveyEnd::AllMasked;
    }
    stream.SetFills(std::move(byBand));
    return SurveyEnd::Done;
}

} // namespace

// What the inverse's set-up hands to its passes. The temporary goes last, after every handle.
struct WaveletTransformFunc::InverseSetup {
    explicit InverseSetup(QString path) : temp(std::move(path)), tempPath(temp.Path()) {}
    TempRaster temp;
    QString tempPath;
    RasterPtr in, out;
    PixelWindow win;
    BandNumbers inBands;
};

bool WaveletTransformFunc::Forward(const QString& input, const QString& output, const QString& format,
                                   const int* bands, int bandCount, int firstCol, int lastCol, int firstRow,
                                   int lastRow)
{
    CopySideFile(input, output);
    RasterPtr in = OpenInputRaster(input);
    if (!in)
        return Fail(kForwardOpenContext, "Failed to open the input file!");
    PixelWindow win;
    BandIndices list;
    if (!ResolveWindow(in->GetRasterXSize(), in->GetRasterYSize(), firstCol, lastCol, firstRow, lastRow, win) ||
        !ResolveBands(bands, bandCount, in->GetBandCount(), list))
        return false;
    if (!EnoughFreeSpace(output, OutputBytesEstimate(*in, static_cast<long long>(list.size()))))
        return Fail(kContext, "Low Disk Space!");
    const int n = static_cast<int>(list.size());
    RasterPtr out = CreateOutput(output, win.width, win.height, n, PDT_Float32, format);
    if (!out)
        return Fail(kContext, "OutFile Creat Fail!");
    PlaceOnInput(*in, *out, win);

    ForwardStream stream(win.width, win.height, n, m_rowsPerChunk ? m_rowsPerChunk : DefaultRowsPerChunk(n, win.width));
    if (!stream.Prepare())
        return Fail(kContext, "Apply memory Fail!");
    const ProgressSpan progress(Context(), Tr(kContext, kForwardMessage));
    ProgressMarks marks(progress, 0, 2 * n);
    const BandNumbers inBands = ToBandNumbers(list), outBands = AllBandNumbers(n);
    std::vector<std::unique_ptr<BandMeanFill>> fills;
    m_filled.clear();
    if (m_useMask) {
        m_strError = MeanFillProblem(m_mask, inBands, kContext);
        if (!m_strError.isEmpty())
            return false;
        fills = MeanFills(*in, inBands, m_mask);
        int band = 0;
        switch (SurveyMeans(*in, win, fills, m_rowsPerChunk, progress, stream, m_filled, band)) {
        case SurveyEnd::Done: break;
        case SurveyEnd::Cancelled: return LeaveCancelled();
        case SurveyEnd::NoMemory: return Fail(kContext, "Apply memory Fail!");
        case SurveyEnd::ReadFailed: return Fail(kContext, "Convert Data Fail!");
        case SurveyEnd::AllMasked: m_strError = AllMaskedText(band, kContext); return false;
        }
    }
    while (!stream.Done()) {
        if (!marks.Reach(stream.NextEnd(), win.height))
            return LeaveCancelled();
        if (!stream.ReadChunk(in.get(), win, inBands))
            return Fail(kContext, "Convert Data Fail!");
        stream.WriteReadyRows(out.get(), outBands);
    }
    return true;
}

// The inverse's set-up, in the order its reports and failures have always come.
bool WaveletTransformFunc::PrepareInverse(const QString& input, const QString& output, const QString& format,
                                          int pixelType, const int* bands, int bandCount, int firstCol, int lastCol,
                                          int firstRow, int lastRow, InverseSetup& setup)
{
    CopySideFile(input, output);
    // The first three reports carry the forward wording on purpose, as hosts have always shown them.
    const QString forwardMessage = Tr(kContext, kForwardMessage);
    Progress(1, forwardMessage);
    setup.in = OpenInputRaster(input);
    if (!setup.in)
        return Fail(kContext, "Failed to open the input file!");
    RasterDataset& in = *setup.in;
    BandIndices list;
    if (!ResolveWindow(in.GetRasterXSize(), in.GetRasterYSize(), firstCol, lastCol, firstRow, lastRow, setup.win) ||
        !ResolveBands(bands, bandCount, in.GetBandCount(), list))
        return false;
    if (in.GetRasterBand(0)->GetRasterDataType() != PDT_Float32)
        return Fail(kContext, "Datatype Error!");
    if (!EnoughFreeSpace(output, OutputBytesEstimate(in, static_cast<long long>(list.size()))))
        return Fail(kContext, "Low Disk Space!");
    Progress(2, forwardMessage);

    const int n = static_cast<int>(list.size());
    // A temporary named like the input would overwrite it.
    if (pixelType < PDT_Byte || pixelType > PDT_Float64 || SameFile(setup.tempPath, input))
        return Fail(kContext, "OutFile Creat Fail!");
    setup.out = CreateOutput(output, setup.win.width, setup.win.height, n, pixelType, format);
    if (!setup.out || !setup.temp.Create(setup.win.width, setup.win.height, n))
        return Fail(kContext, "OutFile Creat Fail!");
    Progress(3, forwardMessage);
    PlaceOnInput(in, *setup.out, setup.win);
    PlaceOnInput(in, *setup.temp.Get(), setup.win);
    setup.inBands = ToBandNumbers(list);
    return true;
}

bool WaveletTransformFunc::Inverse(const QString& input, const QString& output, const QString& format,
                                   int pixelType, const int* bands, int bandCount, int firstCol, int lastCol,
                                   int firstRow, int lastRow, long long memoryBudget)
{
    InverseSetup setup(WaveletTempPath(output));
    if (!PrepareInverse(input, output, format, pixelType, bands, bandCount, firstCol, lastCol, firstRow, lastRow,
                        setup))
        return false;
    const ProgressSpan progress(Context(), Tr(kContext, kInverseMessage), 5, 100);
    progress.ReportPercent(5);
    const PixelWindow& win = setup.win;
    const std::size_t w = win.width, h = win.height, n = setup.inBands.size();
    const std::size_t rows = std::min(std::max<std::size_t>(1, LinesPerChunk(memoryBudget, win) / n),
                                      m_rowsPerChunk ? m_rowsPerChunk : DefaultRowsPerChunk(n, w));
    const std::size_t pairs = std::max<std::size_t>(1, rows / 2);
    ColumnSynthesisStream columns(w, h, n, pairs);
    BandRows chunk(2 * pairs, n, w);
    TypedBuffer<float> scratch = NewFloats(WaveletKernel::LineScratchSize(w));
    if (!columns.Allocated() || !chunk || !scratch)
        return Fail(kContext, "Apply memory Fail!");

    // Mark 0 was the 5 above; the column pass is the first half of the work, the row pass the second.
    ProgressMarks marks(progress, 1, 2 * n);
    RasterDataset* temp = setup.temp.Get();
    const BandNumbers tempBands = AllBandNumbers(static_cast<int>(n));
    while (!columns.Done()) {
        if (!marks.Reach(columns.NextRowsEnd(), 2 * h))
            return LeaveCancelled();
        columns.Step(setup.in.get(), win, setup.inBands, temp, tempBands);
    }
    // Whole rows back from the temporary; GDAL rounds and clamps into the output's type.
    for (std::size_t r0 = 0; r0 < h; r0 += chunk.Rows()) {
        const std::size_t nr = std::min(chunk.Rows(), h - r0);
        if (!marks.Reach(h + r0 + nr, 2 * h))
            return LeaveCancelled();
        chunk.Read(temp, 0, static_cast<int>(r0), nr, 0, tempBands);
        for (std::size_t s = 0; s < nr; ++s)
            for (std::size_t b = 0; b < n; ++b)
                WaveletKernel::InverseLine(chunk.Row(s, b), chunk.Row(s, b), w, scratch.get());
        chunk.Write(setup.out.get(), static_cast<int>(r0), nr, 0, tempBands);
    }
    return true;
}
