// A progress bar on standard error, drawn only when it is a terminal.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

namespace qelr_render {

class Progress {
 public:
    // `total` steps; `enabled` false draws nothing (e.g. not a terminal).
    Progress(std::string label, int total, bool enabled);
    ~Progress();

    // One step done; safe to call from any thread.
    void step();

    // The bar line for `done` of `total` steps, `width` cells wide.
    static std::string line(const std::string& label, int done, int total, int width);

 private:
    void draw(int done);

    std::string label_;
    int total_;
    bool enabled_;
    std::atomic<int> done_{0};
    std::mutex drawing_;
    int drawnPercent_ = -1;  // guarded by drawing_
};

// Whether standard error is a terminal.
bool stderrIsTerminal();

}  // namespace qelr_render
