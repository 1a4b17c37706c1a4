#pragma once
#include "Options.h"

#include "OrvDataSource/PixelDataType.h"

// Fills the plug-in's parameter record; a usage error when a count does not fit the input.
// Takes the input band count from options.inputBands rather than opening INPUT again.
ParseResult BuildRecord(Options options);

// Bands and pixel type of the raster the command writes, for the format check.
struct PlannedOutput {
    int bands = 0;            // 0: nothing is written (pca -stats-only)
    OrvDataSource::PixelDataType type = OrvDataSource::PDT_Float32;
};
PlannedOutput PlanOutput(const Options& options, int inputBands);
