#pragma once
#include "fft/FftKernel.h"
#include "fft/FftLanes.h"
#include "frame/RunSteps.h"
#include "frame/MaskRecords.h"
#include "frame/TransWorker.h"

#include <vector>

class BandMeanFill;
class FftBandBlocks;

// Fourier worker: centred real/imaginary spectrum bands and back.
class TavTransFFTFuncNew : public TransWorker {
public:
    explicit TavTransFFTFuncNew(const RunContext& ctx) : TransWorker(ctx) {}
    ~TavTransFFTFuncNew();
    TavTransFFTFuncNew(const TavTransFFTFuncNew&) = delete;
    TavTransFFTFuncNew& operator=(const TavTransFFTFuncNew&) = delete;

    // bands: 1-based band numbers; an empty list transforms nothing, so the creation fails.
    bool ForwardRun(const QString& input, const QString& output, const QString& format, std::vector<int> bands);
    // From now on the forward runs give masked pixels their band's valid mean before the transform.
    void SetMask(const stMaskInfo& mask)
    {
        m_mask = mask;
        m_useMask = true;
    }
    // The bands of the last forward run that had pixels filled.
    const std::vector<stBandFill>& Filled() const { return m_filled; }
    // outTypeIndex: 0-based pixel type (0..6).
    bool InverseRun(const QString& input, const QString& output, int outTypeIndex, const QString& format);

private:
    // Runs passes(i, blocks, pass) for output band i = 0 .. count - 1 with fresh blocks, pass(p)
    // being the progress of its pass p; false as soon as one band's passes fail.
    template <class BandPasses>
    bool EachBand(int count, OrvDataSource::RasterDataset& in, const char* message, BandPasses&& passes);
    // Every step returns false after leaving its reason: the cancelled exit or a failure text.
    bool CheckBands(const std::vector<int>& bands, int bandCount);
    // Both runs: null when the input cannot be opened, or is too wide (with a text).
    RasterPtr OpenInput(const QString& input);
    // Both runs: the output with the input's geo-transform and coordinate system, or null.
    RasterPtr CreateLike(OrvDataSource::RasterDataset& in, const QString& output, int bands, int type,
                         const QString& format);
    // bandNumber and realBandNumber are 1-based; the imaginary band follows the real one. Both read
    // the dataset the run opened, so that every band comes from one and the same scene.
    // Appends the next block and reads band `bandNumber`'s rows into its real half.
    bool ReadBlock(OrvDataSource::RasterDataset& in, int bandNumber, const RowBlock& b, FftBandBlocks& blocks,
                   bool zeroImaginary);
    bool ReadAndTransformRows(OrvDataSource::RasterDataset& in, int bandNumber, FftBandBlocks& blocks,
                              const ProgressPass& pass);
    // The masked band's rows: all read and surveyed first, then filled and transformed.
    bool ReadFillAndTransformRows(OrvDataSource::RasterDataset& in, BandMeanFill& fill, FftBandBlocks& blocks,
                                  const ProgressPass& pass);
    // Reads and un-centres the rows (readPass), transforming each block's rows meanwhile (rowPass).
    bool UncentreConjugated(OrvDataSource::RasterDataset& in, int realBandNumber, FftBandBlocks& blocks,
                            const ProgressPass& readPass, const ProgressPass& rowPass);
    bool TransformColumns(FftBandBlocks& blocks, int sign, double scaling, const ProgressPass& pass);
    bool WriteCentred(OrvDataSource::RasterDataset& out, int firstBand, FftBandBlocks& blocks, const ProgressPass& pass);
    bool WriteRealHalves(OrvDataSource::RasterBand& band, FftBandBlocks& blocks, int declaredType);

    FftWorkspace m_workspace;
    stMaskInfo m_mask;
    bool m_useMask = false;
    std::vector<stBandFill> m_filled;
    FftLanes* m_lanes = nullptr; // the run's threads, while a run is under way
};
