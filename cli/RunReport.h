#pragma once
#include "CommandLine.h"

#include <QString>
#include <string>

// What a run left for the user, as the host tells it on stderr.

// A plain description for an error code whose text the plug-in left empty.
std::string DescribeCode(int code);

// A line in plain language under a plug-in text that alone would puzzle a user; empty when none.
std::string ExplainPluginText(const QString& text);

// The I/O failures GDAL reported during the run, one per line, each starting with two spaces.
std::string RecordedFailureLines();

// True when GDAL reported a failed read, write, flush or copy during the run.
bool HostSawFailure();

// A run that returned true but whose I/O failed: says what failed and removes what it wrote.
void ReportHostFailure(const Request& req);
