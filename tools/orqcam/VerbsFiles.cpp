// Pictures and files: shoot, files, download, delete, preview.
#include <filesystem>
#include <fstream>
#include <thread>

#include "Progress.h"
#include "Verbs.h"

namespace orqcam {

namespace fs = std::filesystem;

namespace {

std::basic_string<OrqChar> Utf16(const std::string& text) {
    std::basic_string<OrqChar> out;
    for (size_t i = 0; i < text.size();) {
        auto c = static_cast<unsigned char>(text[i]);
        uint32_t code = c;
        size_t length = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        if (length > 1) code = c & (0xFF >> (length + 1));
        for (size_t k = 1; k < length && i + k < text.size(); ++k)
            code = (code << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        i += length;
        if (code >= 0x10000) {
            code -= 0x10000;
            out += static_cast<OrqChar>(0xD800 + (code >> 10));
            out += static_cast<OrqChar>(0xDC00 + (code & 0x3FF));
        } else {
            out += static_cast<OrqChar>(code);
        }
    }
    return out;
}

std::string FileJson(const FileRecord& file) {
    return JsonObject({{"id", JsonNumber(file.id)},
                       {"name", JsonString(file.name)},
                       {"size", JsonNumber(file.size)}});
}

OrqResult ListFiles(Camera& camera, std::vector<FileRecord>& files) {
    OrqFileInfo* list = nullptr;
    int count = 0;
    OrqResult result = sdk.GetFileList(camera.Session(), &list, &count);
    if (result != ORQ_OK) return result;
    files.clear();
    for (int i = 0; i < count && list; ++i)
        files.push_back(FileRecord{list[i].id, Utf8(list[i].name), list[i].size});
    sdk.Free(list);
    return ORQ_OK;
}

// Only the last part of a camera's file name is used, so that no name leads out of the folder.
std::string SafeName(const std::string& name, int id) {
    std::string base = fs::u8path(name).filename().u8string();
    if (base.empty() || base == "." || base == "..") base = "file_" + std::to_string(id);
    return base;
}

uint64_t SizeOnDisk(const fs::path& path) {
    std::error_code error;
    auto size = fs::file_size(path, error);
    return error ? 0 : size;
}

// Downloads files into a folder, one after the other, each waited for and checked on disk.
// With --all each camera has a folder of its own in it, as cameras name their files alike.
Outcome Transfer(const Options& options, Camera& camera, const std::vector<FileRecord>& files,
                 const std::string& folder, bool deleteAfter, std::vector<std::string>& written) {
    std::error_code error;
    fs::path dir = fs::u8path(folder.empty() ? "." : folder);
    if (options.all) dir /= "camera" + std::to_string(camera.Index());
    fs::create_directories(dir, error);
    if (!fs::is_directory(dir)) return Failure(kExitUsage, "cannot make the folder " + folder);
    uint64_t total = 0;
    for (const FileRecord& file : files) total += file.size;
    Progress progress(io.err, "download", total);
    uint64_t done = 0;
    for (const FileRecord& file : files) {
        fs::path target = dir / fs::u8path(SafeName(file.name, file.id));
        fs::remove(target, error);
        auto wide = Utf16(target.u8string());
        int before = camera.Seen().downloads;
        OrqResult result =
            sdk.DownloadFileTo(camera.Session(), file.id, wide.data(), deleteAfter ? 1 : 0);
        if (result != ORQ_OK) return FailureOf(result, "download of " + file.name + " refused");
        // The download arrives whole; the size on disk shows a file being written.
        auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(options.timeoutMs);
        while (true) {
            bool timedOut = false;
            result = camera.WaitUntil(
                [before](const Camera::Counts& now) { return now.downloads > before; }, 100,
                &timedOut);
            if (!timedOut) break;
            progress.Update(done + std::min<uint64_t>(SizeOnDisk(target), file.size));
            if (std::chrono::steady_clock::now() > deadline) {
                return Failure(kExitTimeout,
                               "the download of " + file.name + " did not end in time");
            }
        }
        if (result != ORQ_OK) return FailureOf(result, "download of " + file.name + " failed");
        // The SDK does not notice a file it could not write: look at it.
        if (!fs::exists(target) || SizeOnDisk(target) != file.size) {
            return Failure(kExitCameraError, "could not write " + target.u8string());
        }
        done += file.size;
        progress.Update(done);
        written.push_back(target.u8string());
    }
    progress.Finish();
    camera.TakeDownloads();
    // The download is reported before the deletion that follows it has reached the camera.
    if (deleteAfter) {
        bool timedOut = false;
        OrqResult result = camera.Drain(options.timeoutMs, &timedOut);
        if (timedOut) return Failure(kExitTimeout, "the camera did not delete in time");
        if (result != ORQ_OK) return FailureOf(result, "delete after download failed");
    }
    return Outcome{};
}

bool FindFile(Camera& camera, int id, FileRecord& found, Outcome& failed) {
    std::vector<FileRecord> files;
    OrqResult result = ListFiles(camera, files);
    if (result != ORQ_OK) {
        failed = FailureOf(result, "cannot list the files");
        return false;
    }
    for (const FileRecord& file : files) {
        if (file.id == id) {
            found = file;
            return true;
        }
    }
    failed = Failure(kExitUsage, "no file with id " + std::to_string(id) + " (see orqcam files)");
    return false;
}

// Pictures go to host memory on models that can, for this session only.
OrqResult PrepareShot(const Options& options, Camera& camera) {
    if (options.toHost.empty()) return ORQ_OK;
    int value = 0;
    if (sdk.GetPropertyData(camera.Session(), ORQ_PROP_DIRECT_TRANSFER, &value) != ORQ_OK)
        return ORQ_OK;
    return sdk.SetPropertyData(camera.Session(), ORQ_PROP_DIRECT_TRANSFER, ORQ_SWITCH_ON);
}

// After the shot event: the file, brought to the host when asked, or when it lives in host
// memory and would be lost with the session.
Outcome FinishShot(const Options& options, Camera& camera, long long delayUs) {
    std::vector<FileRecord> shots = camera.TakeShots();
    if (shots.empty()) return Failure(kExitCameraError, "the camera reported no picture");
    FileRecord shot = shots.back();
    std::vector<std::pair<std::string, std::string>> json = {{"file", FileJson(shot)}};
    if (delayUs >= 0) json.push_back({"delayUs", JsonNumber(delayUs)});
    std::string folder = options.toHost;
    if (folder.empty() && shot.id < 0) folder = ".";
    if (!folder.empty()) {
        std::vector<std::string> written;
        Outcome moved = Transfer(options, camera, {shot}, folder, false, written);
        if (moved.exit != kExitOk) return moved;
        json.push_back({"path", JsonString(written[0])});
        Say("#%d %s -> %s\n", camera.Index(), shot.name.c_str(), written[0].c_str());
    } else {
        Say("#%d %s (id %d, %u bytes)\n", camera.Index(), shot.name.c_str(), shot.id, shot.size);
    }
    Outcome outcome;
    outcome.json = JsonObject(json);
    return outcome;
}

}  // namespace

FireStrategy fire = FireInTurn;

std::vector<Fired> FireInTurn(const std::vector<Camera*>& cameras) {
    std::vector<Fired> fired;
    auto first = std::chrono::steady_clock::now();
    for (Camera* camera : cameras) {
        Fired one;
        one.calledUs = std::chrono::duration_cast<std::chrono::microseconds>(
                           std::chrono::steady_clock::now() - first)
                           .count();
        one.result = sdk.Shoot(camera->Session());
        fired.push_back(one);
    }
    return fired;
}

Outcome Shoot(const Options& options, Camera& camera) {
    return ShootAll(options, {&camera});
}

Outcome ShootAll(const Options& options, const std::vector<Camera*>& cameras) {
    std::vector<Outcome> outcomes(cameras.size());
    std::vector<bool> ready(cameras.size(), true);
    std::vector<int> before(cameras.size());
    for (size_t i = 0; i < cameras.size(); ++i) {
        OrqResult result = PrepareShot(options, *cameras[i]);
        if (result != ORQ_OK) {
            outcomes[i] = FailureOf(result, "cannot send pictures to the host");
            ready[i] = false;
        }
        before[i] = cameras[i]->Seen().shots;
    }
    std::vector<Camera*> firing;
    for (size_t i = 0; i < cameras.size(); ++i)
        if (ready[i]) firing.push_back(cameras[i]);
    std::vector<Fired> fired = fire(firing);
    for (size_t i = 0, k = 0; i < cameras.size(); ++i) {
        if (!ready[i]) continue;
        const Fired& shot = fired[k++];
        Camera& camera = *cameras[i];
        if (shot.result != ORQ_OK) {
            outcomes[i] = FailureOf(shot.result, "shoot refused on #" + std::to_string(i));
            continue;
        }
        bool timedOut = false;
        int seen = before[i];
        OrqResult result =
            camera.WaitUntil([seen](const Camera::Counts& now) { return now.shots > seen; },
                             options.timeoutMs, &timedOut);
        if (timedOut) {
            outcomes[i] = Failure(kExitTimeout, "the shot did not end in time");
        } else if (result != ORQ_OK) {
            outcomes[i] = FailureOf(result, "shoot failed");
        } else {
            outcomes[i] = FinishShot(options, camera, cameras.size() > 1 ? shot.calledUs : -1);
        }
    }
    if (cameras.size() == 1) return outcomes[0];
    Outcome all;
    std::vector<std::string> json;
    for (size_t i = 0; i < cameras.size(); ++i) {
        if (all.exit == kExitOk) all.exit = outcomes[i].exit;
        json.push_back(
            JsonObject({{"camera", JsonNumber(cameras[i]->Index())}, {"shot", outcomes[i].json}}));
    }
    for (size_t i = 0, k = 0; i < cameras.size(); ++i) {
        if (ready[i])
            Say("#%d fired %lld us after the first\n", cameras[i]->Index(), fired[k++].calledUs);
    }
    all.json = JsonObject({{"cameras", JsonArray(json)}});
    return all;
}

Outcome Files(const Options&, Camera& camera) {
    std::vector<FileRecord> files;
    OrqResult result = ListFiles(camera, files);
    if (result != ORQ_OK) return FailureOf(result, "cannot list the files");
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> json;
    for (const FileRecord& file : files) {
        rows.push_back({std::to_string(file.id), file.name, std::to_string(file.size)});
        json.push_back(FileJson(file));
    }
    PrintTable({"ID", "NAME", "SIZE"}, rows);
    Outcome outcome;
    outcome.json = JsonArray(json);
    return outcome;
}

Outcome Download(const Options& options, Camera& camera) {
    std::vector<FileRecord> files;
    Outcome failed;
    if (options.allFiles) {
        OrqResult result = ListFiles(camera, files);
        if (result != ORQ_OK) return FailureOf(result, "cannot list the files");
    } else {
        int id = 0;
        if (!ParseInteger(options.args[0], id)) {
            return Failure(kExitUsage, "download takes a file id, not '" + options.args[0] + "'");
        }
        FileRecord file;
        if (!FindFile(camera, id, file, failed)) return failed;
        files.push_back(file);
    }
    std::vector<std::string> written;
    Outcome moved = Transfer(options, camera, files, options.dir, options.deleteAfter, written);
    if (moved.exit != kExitOk) return moved;
    std::vector<std::string> json;
    for (size_t i = 0; i < files.size(); ++i) {
        Say("%s -> %s\n", files[i].name.c_str(), written[i].c_str());
        json.push_back(JsonObject({{"id", JsonNumber(files[i].id)},
                                   {"name", JsonString(files[i].name)},
                                   {"size", JsonNumber(files[i].size)},
                                   {"path", JsonString(written[i])},
                                   {"deleted", JsonBool(options.deleteAfter)}}));
    }
    Outcome outcome;
    outcome.json = JsonArray(json);
    return outcome;
}

Outcome Delete(const Options& options, Camera& camera) {
    int id = 0;
    if (!ParseInteger(options.args[0], id)) {
        return Failure(kExitUsage, "delete takes a file id, not '" + options.args[0] + "'");
    }
    FileRecord file;
    Outcome failed;
    if (!FindFile(camera, id, file, failed)) return failed;
    OrqResult result = sdk.DeleteFile(camera.Session(), id);
    if (result != ORQ_OK) return FailureOf(result, "delete refused");
    bool timedOut = false;
    result = camera.Drain(options.timeoutMs, &timedOut);
    if (timedOut) return Failure(kExitTimeout, "the camera did not answer in time");
    if (result != ORQ_OK) return FailureOf(result, "delete of " + file.name + " failed");
    Say("deleted %s\n", file.name.c_str());
    Outcome outcome;
    outcome.json = JsonObject({{"deleted", FileJson(file)}});
    return outcome;
}

Outcome Preview(const Options& options, Camera& camera) {
    fs::path dir;
    std::error_code error;
    if (!options.out.empty()) {
        dir = fs::u8path(options.out);
        fs::create_directories(dir, error);
        if (!fs::is_directory(dir))
            return Failure(kExitUsage, "cannot make the folder " + options.out);
    }
    int seen = camera.Seen().previewFrames;
    OrqResult result = sdk.SetPreviewState(camera.Session(), ORQ_PREVIEW_ON);
    if (result != ORQ_OK) return FailureOf(result, "live view refused");
    auto start = std::chrono::steady_clock::now();
    std::vector<std::string> frames;
    int width = 0, height = 0;
    Outcome failed;
    bool ok = true;
    while (static_cast<int>(frames.size()) < options.frames && ok) {
        bool timedOut = false;
        result =
            camera.WaitUntil([seen](const Camera::Counts& now) { return now.previewFrames > seen; },
                             options.timeoutMs, &timedOut);
        seen = camera.Seen().previewFrames;
        if (timedOut || result != ORQ_OK) {
            failed = timedOut ? Failure(kExitTimeout, "no live-view frame came in time")
                              : FailureOf(result, "live view failed");
            ok = false;
            break;
        }
        void* frame = nullptr;
        int size = 0;
        result = sdk.GetPreviewFrame(camera.Session(), &frame, &size);
        if (result == ORQ_NOT_READY) continue;
        if (result != ORQ_OK || !frame || size < 54) {
            failed = FailureOf(result == ORQ_OK ? ORQ_ERROR : result, "cannot fetch a frame");
            sdk.Free(frame);
            ok = false;
            break;
        }
        auto* bytes = static_cast<const unsigned char*>(frame);
        auto word = [bytes](int at) {
            return static_cast<int>(bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 |
                                    bytes[at + 3] << 24);
        };
        width = word(18);
        height = word(22);
        std::string name = std::to_string(frames.size());
        if (!dir.empty()) {
            char file[32];
            std::snprintf(file, sizeof file, "frame_%04zu.bmp", frames.size() + 1);
            fs::path target = dir / file;
            std::ofstream stream(target, std::ios::binary | std::ios::trunc);
            stream.write(static_cast<const char*>(frame), size);
            stream.close();
            name = target.u8string();
            if (!stream) {
                failed = Failure(kExitCameraError, "could not write " + name);
                ok = false;
            }
        }
        sdk.Free(frame);
        frames.push_back(name);
    }
    sdk.SetPreviewState(camera.Session(), ORQ_PREVIEW_OFF);
    if (!ok) return failed;
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    double rate = seconds > 0 ? frames.size() / seconds : 0;
    Say("%zu frames, %dx%d, %.1f frames/s%s%s\n", frames.size(), width, height, rate,
        dir.empty() ? "" : " in ", dir.empty() ? "" : dir.u8string().c_str());
    std::vector<std::string> files;
    if (!dir.empty())
        for (const std::string& name : frames) files.push_back(JsonString(name));
    Outcome outcome;
    outcome.json = JsonObject({{"frames", JsonNumber(static_cast<long long>(frames.size()))},
                               {"width", JsonNumber(width)},
                               {"height", JsonNumber(height)},
                               {"framesPerSecond", JsonNumber(static_cast<long long>(rate + 0.5))},
                               {"files", JsonArray(files)}});
    return outcome;
}

}  // namespace orqcam
