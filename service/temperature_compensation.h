// Refocusing as the temperature drifts: the optics' focus moves by a fixed
// number of steps per degree, so once the temperature has moved by at least
// the threshold since focus was last set, the focuser moves by that many
// steps per degree of change.
#pragma once

#include <cmath>
#include <optional>

namespace zorservice {

class TemperatureCompensation {
  public:
    // Focus was set (a move, a sync, compensation switched on) at `celsius`.
    void setReference(double celsius) { m_reference = celsius; }
    void forget() { m_reference.reset(); }
    std::optional<double> reference() const { return m_reference; }

    // The relative move due at `celsius`: 0 within the threshold or before
    // any reference. The reference advances by what the move corrects, so
    // rounding never accumulates.
    int stepsDue(double celsius, double stepsPerDegree, double threshold)
    {
        if (!m_reference || stepsPerDegree == 0 || std::fabs(celsius - *m_reference) < threshold)
            return 0;
        const int steps = static_cast<int>(std::lround((celsius - *m_reference) * stepsPerDegree));
        if (steps != 0)
            *m_reference += steps / stepsPerDegree;
        return steps;
    }

  private:
    std::optional<double> m_reference;
};

} // namespace zorservice
