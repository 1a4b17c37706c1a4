#pragma once
#include "Options.h"

// Protects what the user owns before anything runs: the usage problem with the files, or empty.
// Resolves a symlinked OUTPUT and notes the files the run will write in options.request.
std::string CheckFiles(Options& options);

// True when a and b name the same file, also when neither exists yet.
bool SameFile(const std::string& a, const std::string& b);
