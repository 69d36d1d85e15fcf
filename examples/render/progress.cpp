#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace qelr_render {

bool stderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

Progress::Progress(std::string label, int total, bool enabled)
    : label_(std::move(label)), total_(total < 1 ? 1 : total), enabled_(enabled) {
    if (enabled_) draw(0);
}

Progress::~Progress() {
    if (enabled_) std::fputs("\r\033[K", stderr);  // clear the bar's line
}

std::string Progress::line(const std::string& label, int done, int total, int width) {
    const int filled = int(long(done) * width / total);
    std::string bar = label + " [";
    bar.append(size_t(filled), '#');
    bar.append(size_t(width - filled), '.');
    char tail[16];
    std::snprintf(tail, sizeof tail, "] %3d%%", int(long(done) * 100 / total));
    return bar + tail;
}

void Progress::step() {
    const int done = ++done_;
    if (enabled_) draw(done);
}

void Progress::draw(int done) {
    // Redraw only when the percentage moves, one thread at a time.
    const int percent = int(long(done) * 100 / total_);
    std::lock_guard<std::mutex> lock(drawing_);
    if (percent <= drawnPercent_) return;
    drawnPercent_ = percent;
    std::fprintf(stderr, "\r%s", line(label_, done, total_, 40).c_str());
    std::fflush(stderr);
}

}  // namespace qelr_render
