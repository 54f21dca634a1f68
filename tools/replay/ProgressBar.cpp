#include "tools/replay/ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <string>

#include "tools/replay/Report.h"

namespace {

constexpr size_t kWidth = 40;
constexpr auto kBetweenDrawings = std::chrono::milliseconds(100);

}  // namespace

ProgressBar::ProgressBar(FILE* terminal) : stream(isatty(fileno(terminal)) ? terminal : nullptr) {}

ProgressBar::~ProgressBar() {
    if (!drawn) return;
    fputs("\r\x1b[K", stream);
    fflush(stream);
}

void ProgressBar::Show(uint64_t done, uint64_t total) {
    const auto now = std::chrono::steady_clock::now();
    if (!stream || total == 0 || now < nextDrawing) return;
    nextDrawing = now + kBetweenDrawings;
    drawn = true;
    const double part = static_cast<double>(std::min(done, total)) / static_cast<double>(total);
    std::string bar(kWidth, ' ');
    std::fill_n(bar.begin(), static_cast<size_t>(part * kWidth), '=');
    fprintf(stream, "\r[%s] %3d %%  %s of %s messages\x1b[K", bar.c_str(), static_cast<int>(part * 100),
            WithSeparators(done).c_str(), WithSeparators(total).c_str());
    fflush(stream);
}
