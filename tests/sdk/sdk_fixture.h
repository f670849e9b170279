// A started SDK on the virtual bus, and small waits for what arrives on SDK threads.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "../core/test_support.h"
#include "orqsdk.h"
#include "orqsdk_sim.h"

namespace orqtest {

inline bool WaitFor(const std::function<bool()>& condition, int timeoutMs = 5000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

struct Recorder {
    std::mutex lock;
    std::vector<std::pair<uint32_t, int>> cameraChanges;  // public id, state
    std::vector<int> initErrors;
    std::vector<int> cameraErrors;
    std::atomic<int> calls{0};

    static void OnCameraList(void* self, OrqCameraInfo* info, int state) {
        auto* r = static_cast<Recorder*>(self);
        std::lock_guard<std::mutex> guard(r->lock);
        r->cameraChanges.emplace_back(info->id, state);
        OrqFree(info);
    }
    static void OnInitError(void* self, int result, OrqChar* path) {
        auto* r = static_cast<Recorder*>(self);
        std::lock_guard<std::mutex> guard(r->lock);
        r->initErrors.push_back(result);
        OrqFree(path);
    }
    static void OnCameraError(void* self, OrqResult result) {
        auto* r = static_cast<Recorder*>(self);
        std::lock_guard<std::mutex> guard(r->lock);
        r->cameraErrors.push_back(result);
    }
    static void Count(void* self) { static_cast<Recorder*>(self)->calls++; }

    size_t Changes() {
        std::lock_guard<std::mutex> guard(lock);
        return cameraChanges.size();
    }
    size_t CameraErrors() {
        std::lock_guard<std::mutex> guard(lock);
        return cameraErrors.size();
    }
};

class SdkTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (manager) OrqFree(manager);
        OrqTerminateSDK();
        OrqSimRemoveAll();
    }

    void Start() {
        ASSERT_EQ(OrqInitializeSDK(), ORQ_OK);
        manager = OrqGetCameraManager();
    }

    std::vector<OrqCameraInfo> Cameras() {
        OrqCameraInfo* list = nullptr;
        int count = -1;
        EXPECT_EQ(OrqGetCameraList(manager, &list, &count), ORQ_OK);
        if (count <= 0) return {};
        std::vector<OrqCameraInfo> cameras(list, list + count);
        OrqFree(list);
        return cameras;
    }

    OrqSessionHandle Open(uint32_t id) {
        OrqSessionHandle session = nullptr;
        EXPECT_EQ(OrqOpenSession(manager, static_cast<int>(id), &session), ORQ_OK);
        return session;
    }

    OrqCameraManagerHandle manager = nullptr;
};

}  // namespace orqtest
