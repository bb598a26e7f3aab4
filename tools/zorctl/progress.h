// A progress bar on a terminal; on anything else (a pipe, a log file) the
// same bar printed as a line at every tenth of the way, so logs stay short
// and readable.
#pragma once

#include <cstdio>
#include <string>

namespace zorctl {

class ProgressBar {
  public:
    // `label` starts every line, e.g. "moving".
    ProgressBar(std::FILE *out, std::string label);
    ProgressBar(std::FILE *out, std::string label, bool terminal);
    ~ProgressBar();
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    // `fraction` is 0..1 (clamped); `detail` follows the bar.
    void update(double fraction, const std::string &detail);
    // Draws the last state and ends the line.
    void finish(double fraction, const std::string &detail);

    // The bar as drawn: "label [#####-----]  50%  detail".
    static std::string render(const std::string &label, double fraction, const std::string &detail);

  private:
    void draw(double fraction, const std::string &detail, bool last);

    std::FILE *m_out;
    std::string m_label;
    bool m_terminal;
    int m_lastTenth = -1;
    std::string m_lastLine;
    bool m_open = false; // a terminal line waits to be ended
};

} // namespace zorctl
