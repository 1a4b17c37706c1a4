#pragma once
#include "frame/TransWorker.h"

struct stTasseledCapInfo;

// Tasseled Cap worker: fixed linear combinations of the bands, one coefficient set per sensor.
class KTTransformFunc : public TransWorker {
public:
    using TransWorker::TransWorker;
    // The window is inclusive; xStart -1 means the whole image.
    bool Run(const QString& input, const QString& output, const QString& format, int sensor,
             int xStart, int xEnd, int yStart, int yEnd);
    // A set the host brings in its record, over the whole image, through the same kernel. The
    // output keeps the input's origin; a pixel that is no-data in any used band is NaN, the
    // outputs' no-data value. `created` tells whether the
    // output was created, so that a failed run removes what it made and nothing else.
    bool RunSet(const stTasseledCapInfo& info, bool& created);
};
