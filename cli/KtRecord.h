#pragma once
// kt beyond the plug-in's built-in sets: the published sets of KtSets, a user's own set from a CSV
// file, and -unscale, all as one stTasseledCapInfo record.
#include "Options.h"

#include <string>
#include <vector>

// A user's set as its file states it: per row the component's name and its numbers.
struct KtUserSet {
    std::vector<std::string> names;
    std::vector<std::vector<double>> rows; // every row the same length
};

// Reads FILE.csv: one row per component, its name, then numbers. Blank lines, lines starting
// with # and a first row without any number (a header) are skipped. The problem, or empty.
std::string ReadKtCoefficients(const std::string& path, KtUserSet& set);

// Output bands of a kt command (its set's components); 0 when its coefficient file is unusable.
int KtOutputBands(const Options& options);

// Turns the built-in record of a kt command into the record of a published or user's set where
// one is asked for, with the band scales for -unscale or warnings for the scales left unapplied.
// A usage error when the options or the set do not fit INPUT.
ParseResult KtRequest(Options& options);
