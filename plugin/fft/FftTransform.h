#pragma once
#include "fft/FftKernel.h"
#include "frame/TransWorker.h"

#include <vector>

class FftBandBlocks;

// Fourier worker: centred real/imaginary spectrum bands and back.
class TavTransFFTFuncNew : public TransWorker {
public:
    explicit TavTransFFTFuncNew(TavTransformFunc* algo) : TransWorker(algo) {}
    ~TavTransFFTFuncNew();
    TavTransFFTFuncNew(const TavTransFFTFuncNew&) = delete;
    TavTransFFTFuncNew& operator=(const TavTransFFTFuncNew&) = delete;

    // bands: 1-based band numbers, empty = every band in order.
    bool ForwardRun(const QString& input, const QString& output, const QString& format, std::vector<int> bands);
    // outTypeIndex: 0-based pixel type (0..6).
    bool InverseRun(const QString& input, const QString& output, int outTypeIndex, const QString& format);

private:
    // Every step returns false after leaving its reason: the cancelled exit or a failure text.
    bool SelectBands(std::vector<int>& bands, int bandCount);
    // Both runs: null, with the reason left, when the input cannot be opened or is too wide.
    RasterPtr OpenInput(const QString& input);
    // Both runs: the output with the input's geo-transform and coordinate system, or null.
    RasterPtr CreateLike(OrvDataSource::RasterDataset& in, const QString& output, int bands, int type,
                         const QString& format);
    static RasterPtr OpenBlockReader(const QString& input);
    // bandNumber and realBandNumber are 1-based; the imaginary band follows the real one.
    bool ReadAndTransformRows(const QString& input, int bandNumber, FftBandBlocks& blocks, long long unitsBefore,
                              long long unitsTotal, const QString& message);
    bool UncentreConjugated(const QString& input, int realBandNumber, FftBandBlocks& blocks, long long unitsBefore,
                            long long unitsTotal, const QString& message);
    bool TransformBlockRows(FftBandBlocks& blocks, int sign, double scaling, long long unitsBefore,
                            long long unitsTotal, const QString& message);
    bool TransformRowsOf(FftBandBlocks& blocks, int block, int sign, double scaling);
    bool TransformColumns(FftBandBlocks& blocks, int sign, double scaling, long long unitsBefore,
                          long long unitsTotal, const QString& message);
    bool WriteCentred(OrvDataSource::RasterDataset& out, int firstBand, FftBandBlocks& blocks,
                      long long unitsBefore, long long unitsTotal, const QString& message);
    bool WriteRealHalves(OrvDataSource::RasterBand& band, FftBandBlocks& blocks, int declaredType);

    FftWorkspace m_workspace;
};
