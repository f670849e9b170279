// A progress bar for long transfers: bytes, rate and time left, redrawn in place on a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace orqcam {

class Progress {
public:
    // Draws nothing unless `stream` is a terminal and --quiet is off.
    Progress(FILE* stream, std::string label, uint64_t totalBytes);
    ~Progress();
    void Update(uint64_t doneBytes);
    void AddTotal(uint64_t bytes);
    void Finish();
    bool Shown() const { return shown; }

private:
    void Draw(bool last);

    FILE* stream;
    std::string label;
    uint64_t total;
    uint64_t done = 0;
    bool shown;
    bool finished = false;
    std::chrono::steady_clock::time_point start;
    std::chrono::steady_clock::time_point lastDraw;
};

std::string Bytes(double bytes);

}  // namespace orqcam
