#pragma once
#include "frame/RunSteps.h"
#include "frame/TransWorker.h"

// What a masked run adds to the rows of the Tasseled Cap run; the unmasked run has none.
class KTRowHook {
public:
    virtual ~KTRowHook() = default;
    virtual void Begin(OrvDataSource::RasterDataset& in, const BandNumbers& bands, const PixelWindow& win) = 0;
    // Before the row's components, with the row's used bands as floats, band after band.
    virtual void Row(int r, const float* block) = 0;
    virtual void Component(float* row, int width) = 0; // before a component's row is written
    virtual void End(OrvDataSource::RasterDataset& out, int components) = 0;
};

// Tasseled Cap worker: fixed linear combinations of the bands, one coefficient set per sensor.
class KTTransformFunc : public TransWorker {
public:
    using TransWorker::TransWorker;
    // The window is inclusive; xStart -1 means the whole image.
    bool Run(const QString& input, const QString& output, const QString& format, int sensor,
             int xStart, int xEnd, int yStart, int yEnd);

protected:
    bool RunWith(const QString& input, const QString& output, const QString& format, int sensor, int xStart,
                 int xEnd, int yStart, int yEnd, KTRowHook* hook);
};
