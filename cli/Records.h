#pragma once
#include "Options.h"

#include "OrvDataSource/PixelDataType.h"

// Fills the plug-in's parameter record; a usage error when a count does not fit the input.
ParseResult BuildRecord(Options options);

// Band count of the raster GDAL opens under `path`, 0 when it does not open.
int InputBandCount(const std::string& path);

// Bands and pixel type of the raster the command writes, for the format check.
struct PlannedOutput {
    int bands = 0;            // 0: nothing is written (pca -stats-only)
    OrvDataSource::PixelDataType type = OrvDataSource::PDT_Float32;
};
PlannedOutput PlanOutput(const Options& options, int inputBands);
