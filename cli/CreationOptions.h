#pragma once
#include "CommandLine.h"

#include <string>

struct Options;

// -co NAME=VALUE, as in gdal_translate: checked against the output driver before anything runs.
// A malformed entry or one GDAL warns about (an unknown name, a value outside its list) is a usage
// error with GDAL's words; the options then travel in the request.
std::string CheckCreationOptions(Options& options);

// Hands the request's creation options to the host's factory for the run's OUTPUT (the plug-in
// creates its outputs without options). Called right before Execute.
void ApplyCreationOptions(const Request& request);
