// Manual focus: moves to a named position, steps along the model's table of stops, and follows
// the position that the camera reports.
#include <algorithm>
#include <climits>

#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

constexpr int32_t kInfinity = -1;
constexpr int kFocusShiftTries = 9;

}  // namespace

OrqResult DeviceLL::PTPManualFocusSet(int32_t position, int32_t* reached) {
    int32_t arrived = 0;
    // The wrapper logs the answer and "PTP_ORQM_MoveFocusTo failed".
    if (PTPMoveFocusTo(position, arrived) != ORQ_OK) return ORQ_ERROR;
    if (reached) *reached = arrived;
    {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        focus = arrived;
    }
    ReportFocus();
    return ORQ_OK;
}

void DeviceLL::ReportFocus() {
    ReportLens(focus, reportedFocus, "focus", &DeviceLL::OnFocusChanged);
}

OrqResult DeviceLL::UpdateFocusPos() {
    if (!config.Has(ORQ_PROP_MANUAL_FOCUS_MODE)) return ORQ_UNKNOWN_PROPERTY;
    int32_t position = 0;
    // The wrapper logs "PTP_ORQM_GetFocusParams failed".
    if (PTPGetFocusParams(position) != ORQ_OK) {
        ORQ_LOG(ERR, "PTPManualFocusGetParams failed");
        return ORQ_ERROR;
    }
    if (AdoptLens(focus, position, "focus")) ReportFocus();
    return ORQ_OK;
}

OrqResult DeviceLL::SetFocus(int32_t position) {
    return PTPManualFocusSet(position, nullptr);
}

int32_t DeviceLL::GetFocus() {
    std::lock_guard<std::recursive_mutex> guard(propertyLock);
    return focus;
}

int32_t DeviceLL::NextFocusPosition(int32_t zoomStep, int32_t focusPosition, int32_t shift) const {
    return NextFocusPosition(config.focusTable, zoomStep, focusPosition, shift);
}

int32_t DeviceLL::NextFocusPosition(const FocusTable& table, int32_t zoomStep,
                                    int32_t focusPosition, int32_t shift) {
    if (table.empty()) return 0;
    const int32_t lists = static_cast<int32_t>(std::min<size_t>(table.size(), INT32_MAX));
    const int32_t z = std::min(std::max(zoomStep, 0), lists - 1);
    if (focusPosition == kInfinity && shift >= 0) return kInfinity;

    const std::vector<int32_t>& stops = table[static_cast<size_t>(z)];
    if (stops.empty()) return 0;
    const int64_t n = static_cast<int64_t>(stops.size());
    // 64 bits: an application may ask for any shift, and distances span the whole int32 range.
    int64_t walk = shift;
    int64_t position = focusPosition;
    if (focusPosition == kInfinity) {
        // -1 from infinity lands on the last stop, -2 on the one before.
        walk += 1;
        position = stops.back();
    }

    int64_t i = 0;
    bool exact = false;
    if (position < stops.front()) {
        i = 0;
    } else if (position > stops.back()) {
        i = n - 1;
    } else {
        auto found = std::lower_bound(stops.begin(), stops.end(), position,
                                      [](int32_t stop, int64_t p) { return stop < p; });
        i = found - stops.begin();
        exact = *found == position;
    }
    // Off a stop, start from the nearer neighbour; a tie keeps the farther one.
    if (!exact && i > 0 && position - stops[i - 1] < stops[i] - position) --i;

    const int64_t k = i + walk;
    if (k >= n) return kInfinity;
    if (k < 0) return stops.front();
    return stops[static_cast<size_t>(k)];
}

OrqResult DeviceLL::FocusShift(int32_t shift) {
    if (shift == 0) return ORQ_OK;
    int32_t startZoom = 0;
    int32_t start = 0;
    {
        std::lock_guard<std::recursive_mutex> guard(propertyLock);
        OrqResult ready = CheckStarted();
        if (ready != ORQ_OK) return ready;
        startZoom = zoom;
        start = focus;
    }

    for (int tries = 0;;) {
        // Every try walks from the same start; only the shift widens.
        const int32_t target = NextFocusPosition(startZoom, start, shift);
        int32_t reached = 0;
        OrqResult moved = PTPManualFocusSet(target, &reached);
        if (moved != ORQ_OK) {
            ORQ_LOG(ERR, "PTPManualFocusSet failed");
            return moved;
        }
        if (target == kInfinity) return ORQ_OK;
        if (target == start) return ORQ_OK;  // the end of the table
        if (start == kInfinity && reached != kInfinity) return ORQ_OK;
        // Plain comparison: a negative shift that lands on infinity (-1) has moved nearer.
        if (shift > 0 && reached > start) return ORQ_OK;
        if (shift < 0 && reached < start) return ORQ_OK;

        // The lens has not moved the wanted way; saturate rather than overflow.
        if (shift > 0 && shift < INT32_MAX) ++shift;
        if (shift < 0 && shift > INT32_MIN) --shift;
        ORQ_LOG(DEB, "Focus shift, change shift: %d (%d %d)", shift, target, reached);
        if (++tries >= kFocusShiftTries) {
            ORQ_LOG(DEB, "FocusShift: exit by retry counter");
            return ORQ_OK;
        }
    }
}

}  // namespace orq
