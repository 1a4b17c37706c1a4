#pragma once
#include <string>
#include <vector>

// The files around a run that the user never named: the side files an output driver writes, the
// files GDAL counts as part of a raster, and whether the user may write a file at all.

// Side files the `format` driver (or the run's RPC copy from `input`, or a world file that a
// creation option asks for) writes beside `output`.
std::vector<std::string> DriverSideFiles(const std::string& output, const std::string& format, const std::string& input,
                                         const std::vector<std::string>& creationOptions = {});

// The other files of the raster at `path` (world files, headers, .aux.xml, .ovr) that creating
// a raster under its name deletes; empty when nothing opens there.
std::vector<std::string> RasterSideFiles(const std::string& path);

// Why the user may not have the run write `path` (an existing file, or a new one in its folder);
// empty when they may. Write-protected files count as not writable, also for root, as rm asks.
std::string WritableProblem(const std::string& role, const std::string& path);

// Why `path` cannot pass unchanged through the host's text type (not valid UTF-8); empty if it can.
std::string EncodingProblem(const std::string& role, const std::string& path);
