#pragma once
#include "CommandLine.h"

#include <string>
#include <vector>

// The statistics files of the principal component and MNF runs as the host reads them, to
// refuse an inverse that cannot end well and to fail a forward run whose file is missing or holds
// values that are not numbers.

struct StatsVerdict {
    int status = 0;         // 0 run / succeeded, 1 failed, 2 usage error
    std::string message;    // why, when status is not 0
    std::string warning;    // said on stderr even when the run goes on
};

// Before an inverse run: a statistics file for another band count than INPUT's is a usage error;
// one whose matrix is not finite or cannot be inverted fails the run before anything is written.
StatsVerdict CheckStatisticsRead(const Request& req);

// After a forward run that returned true: the file must be there with what the run meant to
// write, and finite; a file the inverse could not use is a warning.
StatsVerdict CheckStatisticsWritten(const Request& req);

// Bands (1-based) that a null vector of the n x n row-major matrix `m` combines, one column per
// band; empty when `m` can be inverted in double precision.
std::vector<int> DependentBands(const std::vector<double>& m, int n);

// The GDAL name of the pixel type an MNF inverse writes (the one its statistics file records), or
// "Float64" when the file does not say: what its -dstnodata value must fit.
std::string MnfInverseOutputType(const std::string& statsPath);
