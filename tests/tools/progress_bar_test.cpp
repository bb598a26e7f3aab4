// The progress bar on a terminal and on a pipe.
#include "progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

using testing::HasSubstr;

// Runs `draw` on a bar writing into memory; returns what it wrote.
template <typename Draw> std::string captured(bool terminal, Draw &&draw)
{
    char *data = nullptr;
    std::size_t size = 0;
    std::FILE *f = open_memstream(&data, &size);
    {
        zorctl::ProgressBar bar(f, "moving", terminal);
        draw(bar);
    }
    std::fclose(f);
    std::string text(data, size);
    std::free(data);
    return text;
}

TEST(ProgressBar, OnAPipeWritesALinePerTenthAndTheEnd)
{
    const std::string out = captured(false, [](zorctl::ProgressBar &bar) {
        for (int i = 0; i <= 200; ++i)
            bar.update(i / 200.0, "step " + std::to_string(i));
        bar.finish(1.0, "done");
    });
    EXPECT_EQ(out.find('\r'), std::string::npos);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 12); // 0 %, 10 % ... 100 %, and the end
    EXPECT_THAT(out, HasSubstr("moving [###############---------------]  50%  step 100\n"));
    EXPECT_THAT(out, testing::EndsWith("moving [##############################] 100%  done\n"));
}

TEST(ProgressBar, OnATerminalRedrawsOneLine)
{
    const std::string out = captured(true, [](zorctl::ProgressBar &bar) {
        bar.update(0.25, "a");
        bar.update(0.5, "b");
        bar.finish(0.75, "c");
    });
    EXPECT_EQ(std::count(out.begin(), out.end(), '\r'), 3);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1);
    EXPECT_THAT(out, testing::EndsWith(" 75%  c\x1b[K\n"));

    // A bar cut short by an error still ends its line.
    const std::string cut = captured(true, [](zorctl::ProgressBar &bar) { bar.update(1.5, "over"); });
    EXPECT_THAT(cut, testing::EndsWith("] 100%  over\x1b[K\n"));
}

} // namespace
