// Messages posted to a camera's main loop; held by shared pointer, told apart by type.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace orq {

class ShotTicket;

struct MainLoopMsg_Base {
    virtual ~MainLoopMsg_Base() = default;
};

struct MainLoopMsg_Halt : MainLoopMsg_Base {};
struct MainLoopMsg_UpdateAeAf : MainLoopMsg_Base {};
struct MainLoopMsg_Shoot : MainLoopMsg_Base {
    MainLoopMsg_Shoot() = default;
    MainLoopMsg_Shoot(std::shared_ptr<ShotTicket> ticket, std::shared_ptr<void> accepted)
        : ticket(std::move(ticket)), accepted(std::move(accepted)) {}
    std::shared_ptr<ShotTicket> ticket;  // null unless the shot is synchronised with others
    std::shared_ptr<void> accepted;      // the shot's hold on the card (DeviceLL::AcceptShot)
};
struct MainLoopMsg_ResetCamera : MainLoopMsg_Base {};

struct MainLoopMsg_RemoveFile : MainLoopMsg_Base {
    explicit MainLoopMsg_RemoveFile(int32_t fileId) : fileId(fileId) {}
    int32_t fileId;
};

struct MainLoopMsg_DownloadTo : MainLoopMsg_Base {
    MainLoopMsg_DownloadTo(int32_t fileId, std::u16string path, bool deleteAfter)
        : fileId(fileId), path(std::move(path)), deleteAfter(deleteAfter) {}
    int32_t fileId;
    std::u16string path;
    bool deleteAfter;
};

struct MainLoopMsg_SetProperyData : MainLoopMsg_Base {
    explicit MainLoopMsg_SetProperyData(int32_t propertyId) : propertyId(propertyId) {}
    int32_t propertyId;
};

struct MainLoopMsg_SetZoom : MainLoopMsg_Base {
    explicit MainLoopMsg_SetZoom(int32_t position) : position(position) {}
    int32_t position;
};

struct MainLoopMsg_SetFocus : MainLoopMsg_Base {
    explicit MainLoopMsg_SetFocus(int32_t position) : position(position) {}
    int32_t position;
};

struct MainLoopMsg_FocusShift : MainLoopMsg_Base {
    explicit MainLoopMsg_FocusShift(int32_t shift) : shift(shift) {}
    int32_t shift;
};

}  // namespace orq
