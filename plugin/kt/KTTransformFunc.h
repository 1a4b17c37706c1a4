#pragma once
#include "frame/TransWorker.h"

// Tasseled Cap worker: fixed linear combinations of the bands, one coefficient set per sensor.
class KTTransformFunc : public TransWorker {
public:
    using TransWorker::TransWorker;
    // The window is inclusive; xStart -1 means the whole image.
    bool Run(const QString& input, const QString& output, const QString& format, int sensor,
             int xStart, int xEnd, int yStart, int yEnd);
};
