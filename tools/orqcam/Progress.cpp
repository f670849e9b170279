#include "Progress.h"

#include "Output.h"

#ifdef _WIN32
#include <io.h>
#define isatty _isatty
#define fileno _fileno
#else
#include <unistd.h>
#endif

namespace orqcam {

std::string Bytes(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 3) {
        bytes /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit ? "%.1f %s" : "%.0f %s", bytes, units[unit]);
    return text;
}

Progress::Progress(FILE* stream, std::string label, uint64_t totalBytes)
    : stream(stream),
      label(std::move(label)),
      total(totalBytes),
      shown(!io.quiet && !io.json && isatty(fileno(stream))),
      start(std::chrono::steady_clock::now()) {
    Draw(false);
}

Progress::~Progress() {
    Finish();
}

void Progress::AddTotal(uint64_t bytes) {
    total += bytes;
}

void Progress::Update(uint64_t doneBytes) {
    done = doneBytes;
    // A terminal redrawn more often than ten times a second only flickers.
    if (std::chrono::steady_clock::now() - lastDraw >= std::chrono::milliseconds(100)) Draw(false);
}

void Progress::Finish() {
    if (finished) return;
    finished = true;
    Draw(true);
}

void Progress::Draw(bool last) {
    if (!shown) return;
    auto now = std::chrono::steady_clock::now();
    lastDraw = now;
    double seconds = std::chrono::duration<double>(now - start).count();
    double rate = seconds > 0 ? done / seconds : 0;
    const int width = 24;
    int filled = total ? static_cast<int>(width * std::min<double>(1.0, double(done) / total)) : 0;
    std::string bar = std::string(filled, '#') + std::string(width - filled, '-');
    std::string left = "--";
    if (rate > 0 && total > done) {
        char text[16];
        std::snprintf(text, sizeof text, "%.0fs", (total - done) / rate);
        left = text;
    } else if (total && done >= total) {
        left = "0s";
    }
    std::fprintf(stream, "\r%s [%s] %s / %s  %s/s  %s left\x1b[K%s", label.c_str(), bar.c_str(),
                 Bytes(double(done)).c_str(), Bytes(double(total)).c_str(), Bytes(rate).c_str(),
                 left.c_str(), last ? "\n" : "");
    std::fflush(stream);
}

}  // namespace orqcam
