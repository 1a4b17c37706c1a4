#pragma once
#include "CommandLine.h"
#include "MaskOptions.h"

#include <string>
#include <vector>

// The command line as typed, before any file is looked at.
struct Options {
    std::string command;
    std::string format = "GTiff";
    std::string stats;
    std::string sensor = "tm";    // as typed, in any case
    std::string coefficients; // kt -coefficients FILE.csv: the user's own set
    bool unscale = false;     // kt -unscale: each band's scale and offset applied first
    std::string outType = "Float32";
    std::vector<int> bands;   // -b, 1-based, in the order given
    std::vector<std::string> creationOptions; // -co NAME=VALUE, in the order given
    int components = 0;       // -n, 0 = every band
    bool corr = false;
    bool center = true;       // pca subtracts the band means unless -no-center
    std::string input;
    std::string output;       // empty for pca -stats-only
    int inputBands = 0;       // INPUT's band count as the file checks found it; 0 when it does not open
    MaskOptions mask;         // -srcnodata, -dstnodata, -nomask
    Request request;          // quiet, statsOnly and the plug-in path are filled here
};

// Help, version and usage errors come back as a finished ParseResult; Run means `options` is complete.
ParseResult ParseOptions(const std::vector<std::string>& args, Options& options);

// A usage error with the hint that fits it.
ParseResult Usage(const std::string& problem, const std::string& command = {});

// True when the command takes `-stats FILE` (all PCA and MNF commands).
bool TakesStatistics(const std::string& command);
// True when the command writes its statistics file rather than reading it.
bool WritesStatistics(const Options& options);
