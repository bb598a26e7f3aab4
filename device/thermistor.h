// The focuser's temperature probe: a thermistor in a divider with a 10 kOhm
// resistor read by a 10-bit ADC, converted through the maker's resistance
// table (one row per whole degree, resistance strictly falling).
#pragma once

#include <cstddef>

struct ThermistorRow {
    int tempC;
    double kOhm;
};

constexpr size_t kThermistorRows = 271;
extern const ThermistorRow kThermistorTable[kThermistorRows];

// Interpolates the temperature for a resistance in kOhm. Returns false when
// the resistance lies outside the table.
bool thermistorTemperature(float kOhm, float *tempC);
