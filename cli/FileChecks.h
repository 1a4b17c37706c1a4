#pragma once
#include "Options.h"

// Protects what the user owns before anything runs: the usage problem with the files, or empty.
// Resolves a symlinked OUTPUT and notes the files the run will write in options.request.
std::string CheckFiles(Options& options);

// True when a and b name the same file, also when neither exists yet.
bool SameFile(const std::string& a, const std::string& b);

// Why the -of format cannot hold what the command writes for an input of `inputBands` bands;
// empty when it can. Notes a conversion it makes in options.request.warning.
std::string FormatProblem(Options& options, int inputBands);
