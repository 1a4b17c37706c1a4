#pragma once
#include "frame/RunSteps.h"
#include "frame/TransWorker.h"

struct stTasseledCapInfo;
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
    // A set the host brings in its record, over the whole image, through the same kernel. The
    // output keeps the input's origin; pixels the record's mask leaves out get its no-data value,
    // as in the masked run of the built-in sets. `created` tells whether the
    // output was created, so that a failed run removes what it made and nothing else.
    bool RunSet(const stTasseledCapInfo& info, bool& created);

protected:
    bool RunWith(const QString& input, const QString& output, const QString& format, int sensor, int xStart,
                 int xEnd, int yStart, int yEnd, KTRowHook* hook);
};
