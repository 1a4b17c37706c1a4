#pragma once
#include "CommandLine.h"

#include <QString>
#include <string>
#include <vector>

// What a run left for the user, as the host tells it on stderr.

// What failed, for a failure whose text the plug-in left empty: the principal component runs
// leave it so, and the host says what it knows of them.
std::string DescribeFailure(const Request& req, int code);

// A plain description for an error code whose text the plug-in left empty.
std::string DescribeCode(int code);

// A line in plain language under a plug-in text that alone would puzzle a user; empty when none.
std::string ExplainPluginText(const QString& text);

// The I/O failures GDAL reported during the run, one per line, each starting with two spaces.
std::string RecordedFailureLines();

// True when GDAL reported a failed read, write, flush or copy during the run.
bool HostSawFailure();
// What a successful run lost on the way (a no-data value a format dropped), one line each.
std::vector<std::string> HostWarnings();

// One row of the eigenvalue table a statistics-only PCA run hands back, percentages in percent.
struct EigenRow {
    size_t component;
    double eigenvalue, percent, cumulative;
};
std::vector<EigenRow> EigenTable(const boost::any& record);

// A run that returned true but whose I/O failed: says what failed and removes what it wrote.
void ReportHostFailure(const Request& req);
