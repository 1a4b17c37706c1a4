#pragma once
#include "frame/MaskRecords.h"
#include "kt/KTTransformFunc.h"

#include <memory>

// The Tasseled Cap run with masked pixels: every component is the output's no-data value there,
// and the output declares it. A run that finds nothing to mask writes what the unmasked run writes.
class KTMaskedTransformFunc : public KTTransformFunc {
public:
    using KTTransformFunc::KTTransformFunc;
    bool Run(const QString& input, const QString& output, const QString& format, int sensor,
             const stMaskInfo& mask);
};

// The rows of a masked run: the masked pixels of every component get the output's no-data value,
// declared on the output only where something was masked.
std::unique_ptr<KTRowHook> NewMaskedRows(const stMaskInfo& mask);
