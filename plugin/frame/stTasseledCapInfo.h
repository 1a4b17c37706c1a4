#pragma once
#include "frame/MaskRecords.h"
#include "frame/stTransInfo.h"

#include <QString>
#include <vector>

// The host's request for a Tasseled Cap set it brings itself (a published set beyond the three
// built in, or a user's own): the matrix, the bands it takes and the names of its components.
struct stTasseledCapInfo {
    stTransInfo trans;                   // input, output and format; its type and sensor code are not read
    std::vector<double> vecCoefficients; // components × used bands, row-major
    std::vector<double> vecConstants;    // empty, or one added to each component
    std::vector<int> vecBands;           // 1-based input band of each column, in column order
    std::vector<QString> vecNames;       // one per component: the output bands' descriptions
    // Empty, or one per column: each value becomes value × scale + offset before the set applies.
    std::vector<double> vecScale;
    std::vector<double> vecOffset;
    // Carried for the host, which records where the set comes from; not read here.
    QString strSensor;                   // the set's name, e.g. "oli"; empty for a user's file
    QString strCoefficientFile;          // the user's file; empty for a published set
    QString strReference;                // the publication the set is taken from
    // Which pixels have no components and what they get instead; source values one for all input
    // bands or one per input band (not per column).
    stMaskInfo mask;
};
