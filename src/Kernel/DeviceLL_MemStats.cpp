// Snapshots of the camera's memory allocator, written to the log around shots, downloads and
// deletions when the configuration asks for them.
#include <cstdio>
#include <string>

#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

namespace {

// The allocator record: nine little-endian words.
constexpr uint32_t kAllocatorRecordSize = 36;
constexpr size_t kAllocatorWords = kAllocatorRecordSize / 4;

}  // namespace

uint32_t DeviceLL::MemoryStatisticsAddress(const std::u16string& modelCode) {
    // The record moves with the firmware; these models' firmwares put it elsewhere.
    if (modelCode == u"SX160") return 0x10300;
    if (modelCode == u"A1400") return 0xEF34;
    if (modelCode == u"A810") return 0xD974;
    return 0x10364;
}

void DeviceLL::PTPMemoryStatistics(const char* label) {
    if (!IsMemLogging()) return;

    uint32_t address = MemoryStatisticsAddress(config.name);
    PtpDataBlock block;
    if (PTPGetMemory(address, kAllocatorRecordSize, block) != ORQ_OK) return;

    // A short answer reads as zeros past its end.
    std::string hex;
    for (size_t i = 0; i < kAllocatorWords; ++i) {
        char word[16];
        std::snprintf(word, sizeof word, "%08x ", block.Word(i));
        hex += word;
    }
    ORQ_LOG(DEB,
            "0x%x memory: %s\n    start address:   %d\n    total size:      %d\n"
            "    allocated peak:  %d\n    allocated size:  %d\n    allocated count: %d\n"
            "    hex: %s",
            address, label ? label : "", static_cast<int>(block.Word(1)),
            static_cast<int>(block.Word(2)), static_cast<int>(block.Word(6)),
            static_cast<int>(block.Word(7)), static_cast<int>(block.Word(8)), hex.c_str());
}

}  // namespace orq
