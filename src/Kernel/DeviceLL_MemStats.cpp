// Snapshots of the camera's memory allocator, written to the log around shots, downloads and
// deletions when the configuration asks for them.
#include <cstdio>
#include <string>

#include "Kernel/DeviceLL.h"
#include "Logger.h"

namespace orq {

void DeviceLL::PTPMemoryStatistics(const char* label) {
    if (!IsMemLogging()) return;

    // The model's profile says where its firmware keeps the record.
    uint32_t address = config.allocatorAddress;
    PtpDataBlock block;
    if (PTPGetMemory(address, kAllocatorRecordSize, block) != ORQ_OK) return;

    // A short answer reads as zeros past its end.
    std::string hex;
    for (size_t i = 0; i < kAllocatorRecordWords; ++i) {
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
