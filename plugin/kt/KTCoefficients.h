#pragma once

// One sensor's Tasseled Cap set: rows are output components, columns the used input bands.
struct KTSensorSet {
    int requiredBands;
    int components;
    int weights;           // used input bands per component
    bool hasConstant;      // also turns on the all-zero rule
    const float* matrix;   // components × weights, row-major
    const float* constants;
    const char* const* names;
};

// Sensor code 0 Landsat TM digital numbers, 1 Landsat MSS, any other code Landsat ETM+ reflectance.
const KTSensorSet& KTSensor(int sensorCode);
