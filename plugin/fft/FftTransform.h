#pragma once
#include "frame/TransWorker.h"

#include <vector>

// Fourier worker: centred real/imaginary spectrum bands and back.
class TavTransFFTFuncNew : public TransWorker {
public:
    using TransWorker::TransWorker;
    // bands: 1-based band numbers, empty = every band in order.
    bool ForwardRun(const QString& input, const QString& output, const QString& format, std::vector<int> bands);
    // outTypeIndex: 0-based pixel type (0..6).
    bool InverseRun(const QString& input, const QString& output, int outTypeIndex, const QString& format);
};
