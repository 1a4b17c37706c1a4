#pragma once
#include "Options.h"

// Protects what the user owns before anything runs: the usage problem with the files, or empty.
std::string CheckFiles(const Options& options);

// True when a and b name the same file, also when neither exists yet.
bool SameFile(const std::string& a, const std::string& b);
