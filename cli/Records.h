#pragma once
#include "Options.h"

// Fills the plug-in's parameter record; a usage error when a count does not fit the input.
ParseResult BuildRecord(Options options);

// Band count of the raster GDAL opens under `path`, 0 when it does not open.
int InputBandCount(const std::string& path);
