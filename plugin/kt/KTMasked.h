#pragma once
#include "frame/MaskRecords.h"
#include "kt/KTTransformFunc.h"

// The Tasseled Cap run with masked pixels: every component is the output's no-data value there,
// and the output declares it. A run that finds nothing to mask writes what the unmasked run writes.
class KTMaskedTransformFunc : public KTTransformFunc {
public:
    using KTTransformFunc::KTTransformFunc;
    bool Run(const QString& input, const QString& output, const QString& format, int sensor,
             const stMaskInfo& mask);
};
