// The 10 kilo-ohm divider and thermistor on the focuser's temperature input,
// as the firmware's analogue side sees it.
#pragma once

namespace zorsim {

// Resistance of the probe at `celsius`, interpolated from the probe's table
// (-20 to 250 degrees); temperatures outside the table take its end values.
double thermistorKiloOhms(double celsius);

// The 10-bit converter reading of the divider for a probe at `celsius`:
// 1024 * R / (R + 10), rounded.
int thermistorAdc(double celsius);

} // namespace zorsim
