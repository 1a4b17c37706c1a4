#pragma once
#include "KeptFiles.h"
#include "frame/PCARecords.h"
#include "frame/stTransInfo.h"

#include <QString>
#include <boost/any.hpp>
#include <string>
#include <vector>

// What one command line asks for, after every check that can be made before the plug-in runs.
struct Request {
    std::string command;
    boost::any record;        // stTransInfo, stForwardPCAInfo or stInversePCAInfo
    bool quiet = false;
    bool statsOnly = false;   // pca -stats-only: print the eigenvalue table afterwards
    std::string pluginPath;   // empty: beside the executable, then ../lib
    std::string warning;      // a conversion the output format makes, said before the run
    std::vector<std::string> outputs; // files the run writes, removed when the host sees it fail
    std::string quicklook;    // PNG preview of the result to write afterwards; empty for none
    std::vector<GuardedFile> guarded; // every file of the user's the run may touch, kept until its end
    int inputBands = 0;       // INPUT's band count as the file checks found it
    std::vector<std::string> creationOptions; // -co NAME=VALUE, for the raster at creationPath
    std::string creationPath;
};

// Outcome of parsing: run the request, print text and leave with a status, or a usage error.
struct ParseResult {
    enum Kind { Run, Done, UsageError } kind = UsageError;
    Request request;
    std::string text;         // help/version text (Done) or the one-line problem (UsageError)
    std::string hint;         // how to get help, for usage errors
};

ParseResult ParseCommandLine(const std::vector<std::string>& args);

// GDAL pixel type name in any case -> 0-based index (Byte 0 .. Float64 6), -1 when unknown; and
// back, Float64 outside 0..6.
int PixelTypeIndex(const std::string& name);
const char* PixelTypeNameAt(int index);
// Sensor name in any case -> the record's code (tm 0, mss 1, etm 2), -1 when unknown; and back,
// etm for any other code.
int SensorCode(const std::string& name);
const char* SensorName(int code);
