#pragma once
// The steps every run shares: progress spans, row blocks, windows and band lists, placing an
// output on its input, and the output-size estimate of the free-space check.
#include "frame/RunContext.h"

#include "OrvDataSource/RasterDataset.h"

#include <QString>
#include <vector>

// ---- progress ----

// How a span turns done/total into a percentage; each run keeps the arithmetic its hosts have
// always seen, down to the last bit.
enum class ProgressMath {
    Double,  // from + (to - from) * done / total
    Single,  // the same in single precision, widened to double
    Integer, // from + ((to - from) * done) / total, truncated
};

// One pass's done/total mapped onto [from, to) of the run's percentage, with its message.
class ProgressSpan {
public:
    ProgressSpan(const RunContext& ctx, QString message, double from = 0, double to = 100,
                 ProgressMath math = ProgressMath::Double)
        : m_ctx(ctx), m_message(std::move(message)), m_from(from), m_to(to), m_math(math)
    {
    }
    double PercentAt(long long done, long long total) const;
    void Report(long long done, long long total) const { m_ctx.Report(PercentAt(done, total), m_message); }
    // Reports, then polls: false when the run is to stop.
    bool ReportAndPoll(long long done, long long total) const
    {
        Report(done, total);
        return !Cancelled();
    }
    // Polls, then reports: false, with nothing reported, when the run is to stop.
    bool PollAndReport(long long done, long long total) const
    {
        if (Cancelled())
            return false;
        Report(done, total);
        return true;
    }
    void ReportPercent(double percent) const { m_ctx.Report(percent, m_message); }
    bool Cancelled() const { return m_ctx.CancelRequested(); }

private:
    const RunContext& m_ctx;
    QString m_message;
    double m_from, m_to;
    ProgressMath m_math;
};

// One pass of a run that counts in its own work units: done units of the pass are reported as
// (before + done) / total of the run's span.
class ProgressPass {
public:
    ProgressPass(const ProgressSpan& span, long long before, long long total)
        : m_span(span), m_before(before), m_total(total)
    {
    }
    void Report(long long done) const { m_span.Report(m_before + done, m_total); }
    bool PollAndReport(long long done) const { return m_span.PollAndReport(m_before + done, m_total); }
    bool Cancelled() const { return m_span.Cancelled(); }

private:
    const ProgressSpan& m_span;
    long long m_before, m_total;
};

// ---- row blocks ----

struct RowBlock {
    int index;
    int first;
    int rows;
};

// Rows 0 .. height - 1 in blocks of rowsPerBlock, the last one short.
class RowBlocks {
public:
    RowBlocks(int height, int rowsPerBlock) : m_height(height), m_rows(rowsPerBlock < 1 ? 1 : rowsPerBlock) {}
    int Count() const { return m_height <= 0 ? 0 : (m_height - 1) / m_rows + 1; }
    int RowsPerBlock() const { return m_rows; }
    RowBlock operator[](int index) const
    {
        const int first = index * m_rows;
        return {index, first, m_height - first < m_rows ? m_height - first : m_rows};
    }
    int BlockOfRow(int row) const { return row / m_rows; }

    class iterator {
    public:
        iterator(const RowBlocks& blocks, int index) : m_blocks(blocks), m_index(index) {}
        RowBlock operator*() const { return m_blocks[m_index]; }
        iterator& operator++()
        {
            ++m_index;
            return *this;
        }
        bool operator!=(const iterator& other) const { return m_index != other.m_index; }

    private:
        const RowBlocks& m_blocks;
        int m_index;
    };
    iterator begin() const { return {*this, 0}; }
    iterator end() const { return {*this, Count()}; }

private:
    int m_height;
    int m_rows;
};

// Whole rows of width × bands samples that fit in `samples`; 0 when not even one does.
long long RowsWithin(long long samples, long long width, long long bands);

// ---- windows and band lists ----

// The first column or row that stands for the whole image.
constexpr int kWholeImage = -1;

struct PixelWindow {
    int x0 = 0, y0 = 0, width = 0, height = 0;
};
inline PixelWindow WholeWindow(int width, int height) { return {0, 0, width, height}; }
inline PixelWindow InclusiveWindow(int firstCol, int lastCol, int firstRow, int lastRow)
{
    return {firstCol, firstRow, lastCol - firstCol + 1, lastRow - firstRow + 1};
}

using BandNumbers = std::vector<int>; // 1-based: ReadRaster, ReadRasterInto, WriteRaster
using BandIndices = std::vector<int>; // 0-based: GetRasterBand
BandNumbers AllBandNumbers(int count);
BandIndices AllBandIndices(int count);
BandNumbers ToBandNumbers(const BandIndices& indices);

// Spacings of pixel-major rows, the n samples of a pixel side by side: pixel, line, band.
struct PixelMajor {
    long long pixel, line, band;
};
inline PixelMajor PixelMajorSpacing(int n, int width, int bytes)
{
    return {static_cast<long long>(n) * bytes, static_cast<long long>(n) * width * bytes, bytes};
}

// ---- reading rows of bands ----

// How the samples of several bands lie in a read buffer.
enum class SampleOrder {
    PixelMajor,    // the bands of a pixel side by side
    BandAfterBand, // all rows of one band, then the next: GDAL's cheapest way out of any file
    BandsByLine,   // a row of each band in turn, then the next row of each
};

// Rows [y, y + rows) of columns [x0, x0 + cols) of `bands` into `buffer`, converted to `type`; the
// one read every run's pass makes. False when GDAL failed (the buffer's content is then GDAL's).
bool ReadBandRows(OrvDataSource::RasterDataset& in, int x0, int cols, int y, int rows, const BandNumbers& bands,
                  int type, void* buffer, SampleOrder order);

// ---- placing an output on its input ----

// Moves the origin of a geo-transform by (dx, dy) pixels.
void ShiftOrigin(double gt[6], double dx, double dy);
void CopyGeoTransform(OrvDataSource::RasterDataset& in, OrvDataSource::RasterDataset& out);
void CopySpatialReference(OrvDataSource::RasterDataset& in, OrvDataSource::RasterDataset& out);
// Both of the above, only when the input has a geo-transform of its own.
void CopyPlacementIfPresent(OrvDataSource::RasterDataset& in, OrvDataSource::RasterDataset& out);
// Only when the input has an "RPC" metadata domain.
void CopyRpcIfPresent(OrvDataSource::RasterDataset& in, OrvDataSource::RasterDataset& out);

// ---- free-space estimate ----

// bands × bytes of band 0's type (1 for an unknown type) × the whole input's width × height.
double OutputBytesEstimate(OrvDataSource::RasterDataset& in, long long bands);
