// Eight virtual cameras that name their files alike, shooting again and again, each picture
// downloaded to a path the eight share and deleted from its card. Every completed download is
// read back at once and must be, byte for byte, one of the pictures sent to that path: a file
// mixed of two, cut short or missing counts against it. Run by hand: soak_bench [rounds].
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "orqsdk.h"
#include "platform/Platform.h"
#include "sim/VirtualCamera.h"

namespace {

constexpr int kCameras = 8;

struct Soak {
    std::mutex lock;
    std::map<std::u16string, std::set<std::string>> sent;  // path -> pictures sent there
    std::vector<OrqFileInfo> shots[kCameras];
    std::atomic<int> downloads{0}, verified{0};
};
Soak soak;

struct Camera {
    int index = 0;
    std::shared_ptr<orqsim::VirtualCamera> virtualCamera;
    OrqSessionHandle session = nullptr;
};

void OnShot(void* context, OrqFileInfo* file) {
    auto* camera = static_cast<Camera*>(context);
    std::lock_guard<std::mutex> guard(soak.lock);
    soak.shots[camera->index].push_back(*file);
    OrqFree(file);
}

void OnDownload(void*, int, OrqChar* path) {
    std::u16string target(path, path + std::char_traits<OrqChar>::length(path));
    OrqFree(path);
    std::string contents;
    bool read = orq::platform::ReadFile(target, contents);
    std::lock_guard<std::mutex> guard(soak.lock);
    ++soak.downloads;
    if (read && soak.sent[target].count(contents)) ++soak.verified;
}

template <class Pred>
bool Wait(Pred pred, int seconds = 30) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 120;
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / "orq_soak";
    std::filesystem::create_directories(folder);
    Camera cameras[kCameras];
    for (int i = 0; i < kCameras; ++i) {
        cameras[i].index = i;
        cameras[i].virtualCamera = std::make_shared<orqsim::VirtualCamera>();
        cameras[i].virtualCamera->PlugIn(u"orqsim://soak/" + std::u16string(1, u'a' + i));
    }
    if (OrqInitializeSDK() != ORQ_OK) return 1;
    OrqCameraManagerHandle manager = OrqGetCameraManager();
    OrqCameraInfo* list = nullptr;
    int count = 0;
    if (OrqGetCameraList(manager, &list, &count) != ORQ_OK || count != kCameras) return 1;
    for (int i = 0; i < kCameras; ++i) {
        // The list is in no particular order: match each entry to its camera by path.
        std::u16string path(list[i].path,
                            list[i].path + std::char_traits<OrqChar>::length(list[i].path));
        Camera& camera = cameras[path.back() - u'a'];
        if (OrqOpenSession(manager, list[i].id, &camera.session) != ORQ_OK) return 1;
        OrqShootCompletedSubscribe(camera.session, &OnShot, &camera);
        OrqDownloadCompletedSubscribe(camera.session, &OnDownload, &camera);
    }
    OrqFree(list);

    const auto start = std::chrono::steady_clock::now();
    int issued = 0;
    for (int round = 0; round < rounds; ++round) {
        for (Camera& camera : cameras) OrqShoot(camera.session);
        if (!Wait([&] {
                std::lock_guard<std::mutex> guard(soak.lock);
                for (auto& shots : soak.shots)
                    if (static_cast<int>(shots.size()) <= round) return false;
                return true;
            })) {
            std::fprintf(stderr, "round %d: shots missing\n", round);
            break;
        }
        for (Camera& camera : cameras) {
            OrqFileInfo shot;
            {
                std::lock_guard<std::mutex> guard(soak.lock);
                shot = soak.shots[camera.index][round];
            }
            // Alike in name, unlike in content: each camera's picture is its own.
            orqsim::Bytes picture(shot.size);
            for (size_t b = 0; b < picture.size(); ++b)
                picture[b] = static_cast<uint8_t>(b * 31 + camera.index * 7 + round);
            camera.virtualCamera->ReplaceFile(static_cast<uint32_t>(shot.id), picture);
            std::u16string name(shot.name,
                                shot.name + std::char_traits<OrqChar>::length(shot.name));
            std::u16string target = orq::platform::FromUtf8(folder.string()) + u"/" + name;
            {
                std::lock_guard<std::mutex> guard(soak.lock);
                soak.sent[target].insert(std::string(picture.begin(), picture.end()));
            }
            std::vector<OrqChar> wide(target.begin(), target.end());
            wide.push_back(0);
            if (OrqDownloadFileTo(camera.session, shot.id, wide.data(), 1) == ORQ_OK) ++issued;
        }
        Wait([&] { return soak.downloads.load() >= issued; });
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf(
        "%d cameras, %d rounds, %.1f s: %d of %d downloads verified byte for byte "
        "(%d completed)\n",
        kCameras, rounds, seconds, soak.verified.load(), issued, soak.downloads.load());
    OrqTerminateSDK();
    for (Camera& camera : cameras) camera.virtualCamera->Unplug();
    std::filesystem::remove_all(folder);
    return soak.verified.load() == issued ? 0 : 1;
}
