#pragma once
#include <string>

// Longest side of a preview, in pixels.
constexpr int kQuicklookSide = 1024;

// Writes a PNG preview of `raster`: bands 1-3 as RGB, a single band as grey, each stretched
// between its 2 % and 98 % values. With `spectrum`, bands 1 and 2 are a real/imaginary pair and
// the preview is their log magnitude. Returns the problem, or empty when the PNG was written.
std::string WriteQuicklook(const std::string& raster, const std::string& png, bool spectrum);

// Usage problem with a -quicklook value (it must name a .png, and there must be a result to show).
std::string QuicklookProblem(const std::string& png, bool statsOnly);
