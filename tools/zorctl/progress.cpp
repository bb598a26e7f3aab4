#include "progress.h"

#include <algorithm>
#include <unistd.h>

namespace zorctl {
namespace {

constexpr int kWidth = 30;

double clamp01(double f) { return f < 0 ? 0 : f > 1 ? 1 : f; }

} // namespace

ProgressBar::ProgressBar(std::FILE *out, std::string label)
    : ProgressBar(out, std::move(label), isatty(fileno(out)) != 0)
{
}

ProgressBar::ProgressBar(std::FILE *out, std::string label, bool terminal)
    : m_out(out), m_label(std::move(label)), m_terminal(terminal)
{
}

std::string ProgressBar::render(const std::string &label, double fraction, const std::string &detail)
{
    const double f = clamp01(fraction);
    const int filled = static_cast<int>(f * kWidth + 0.5);
    const int percent = static_cast<int>(f * 100 + 0.5);
    std::string line = label + " [";
    line.append(static_cast<std::size_t>(filled), '#');
    line.append(static_cast<std::size_t>(kWidth - filled), '-');
    char pct[8];
    std::snprintf(pct, sizeof pct, "%4d%%", percent);
    return line + "]" + pct + "  " + detail;
}

ProgressBar::~ProgressBar()
{
    // A bar cut short (an error) must not share its line with the message.
    if (m_open)
        std::fputc('\n', m_out);
}

void ProgressBar::update(double fraction, const std::string &detail) { draw(fraction, detail, false); }

void ProgressBar::finish(double fraction, const std::string &detail) { draw(fraction, detail, true); }

void ProgressBar::draw(double fraction, const std::string &detail, bool last)
{
    const std::string line = render(m_label, fraction, detail);
    if (m_terminal) {
        // Back to the start of the line, draw, clear what a longer line left.
        std::fprintf(m_out, "\r%s\033[K%s", line.c_str(), last ? "\n" : "");
        m_open = !last;
    } else {
        const int tenth = static_cast<int>(clamp01(fraction) * 10);
        if (tenth == m_lastTenth && (!last || line == m_lastLine))
            return;
        m_lastTenth = tenth;
        m_lastLine = line;
        std::fprintf(m_out, "%s\n", line.c_str());
    }
    std::fflush(m_out);
}

} // namespace zorctl
