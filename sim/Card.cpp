// The virtual camera's card: objects in memory, optionally kept in a folder on disk, and the
// pictures its shots put there.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "models/CameraConfig.h"
#include "orqsdk_props.h"
#include "sim/Pictures.h"
#include "sim/VirtualCamera.h"

namespace orqsim {

namespace fs = std::filesystem;

namespace {

// Files larger than this in a card folder are left out of the card.
constexpr uintmax_t kMaxFolderFile = 256u << 20;
constexpr size_t kMaxFolderFiles = 9999;
// All a card folder may bring into memory.
constexpr uintmax_t kMaxFolderBytes = uintmax_t{1} << 30;
// A shot's size where no JPEG encoder is built in.
constexpr size_t kJpegLikeSize = 180 * 1024;

std::string Narrow(const std::u16string& text) {
    std::string out;
    for (char16_t c : text) out.push_back(c < 0x80 ? static_cast<char>(c) : '_');
    return out;
}

// The number in "IMG_0123.JPG", or -1.
long FileNumber(const std::u16string& name) {
    const size_t underscore = name.find(u'_');
    if (underscore == std::u16string::npos) return -1;
    long number = -1;
    for (size_t i = underscore + 1; i < name.size() && name[i] >= u'0' && name[i] <= u'9'; ++i) {
        number = (number < 0 ? 0 : number * 10) + (name[i] - u'0');
        if (number > 9999) return -1;
    }
    return number;
}

// Whether a card name may become a file in the folder: one plain name, nothing that climbs out.
bool PlainName(const std::u16string& name) {
    if (name.empty() || name.size() > 64 || name == u"." || name == u"..") return false;
    for (char16_t c : name) {
        if (c < 0x20 || c == u'/' || c == u'\\' || c == u':') return false;
    }
    return true;
}

uint64_t Mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

}  // namespace

std::u16string SerialFor(const std::string& model, uint32_t number) {
    // The model's half, then a bijection of the number: two numbers never share a serial.
    uint64_t high = 1469598103934665603ull;
    for (char c : model) high = (high ^ static_cast<uint8_t>(c)) * 1099511628211ull;
    char text[40];
    std::snprintf(text, sizeof text, "%016llX%016llX", static_cast<unsigned long long>(high),
                  static_cast<unsigned long long>(Mix(number)));
    return std::u16string(text, text + 32);
}

VirtualCamera::Picture VirtualCamera::NextPicture(Clock::time_point now) {
    Picture picture;
    picture.label.model = options.model;
    picture.label.serial = Narrow(options.serialNumber);
    picture.label.shot = ++shots;
    // The camera's clock is the host's: steady time carried over to the wall clock.
    const auto wall =
        std::chrono::system_clock::now() +
        std::chrono::duration_cast<std::chrono::system_clock::duration>(now - Clock::now());
    picture.label.time =
        std::chrono::duration_cast<std::chrono::seconds>(wall.time_since_epoch()).count();
    picture.label.timeUs =
        std::chrono::duration_cast<std::chrono::microseconds>(wall.time_since_epoch()).count();
    picture.label.make = orq::kMakerWord;
    if (profile) {
        picture.label.focalHundredths = profile->FocalHundredths(zoomPosition);
        picture.label.focal35mm = static_cast<uint16_t>(profile->Focal35mm(zoomPosition));
    }
    const orq::PropertyEntry* size = profile ? profile->Find(ORQ_PROP_IMAGE_SIZE) : nullptr;
    if (size && !size->values.empty()) {
        auto raw = propCases.find(size->propCase);
        const orq::PropertyValue* chosen =
            raw == propCases.end() ? nullptr : size->FromCamera(raw->second);
        if (!chosen) chosen = &size->values.front();
        if (chosen->hasSize) {
            picture.width = chosen->width;
            picture.height = chosen->height;
        }
    }
    return picture;
}

uint32_t VirtualCamera::AddObjectLocked(const std::u16string& name, SharedBytes bytes, bool folder,
                                        uint32_t parent, int hiddenListings) {
    CardObject object;
    object.handle = nextHandle++;
    object.name = name;
    object.bytes = bytes ? std::move(bytes) : std::make_shared<const Bytes>();
    object.size = object.bytes->size();
    object.folder = folder;
    object.parent = parent;
    object.hiddenListings = hiddenListings;
    if (!folder) WriteToFolder(object);
    card.push_back(std::move(object));
    return card.back().handle;
}

CardObject* VirtualCamera::FindVisible(uint32_t handle) {
    for (CardObject& object : card) {
        if (object.handle == handle) return object.hiddenListings > 0 ? nullptr : &object;
    }
    return nullptr;
}

std::u16string VirtualCamera::NextFileName(const char* prefix, const char* extension) {
    char name[32];
    std::snprintf(name, sizeof name, "%s_%04u.%s", prefix, nextFileNumber % 10000, extension);
    ++nextFileNumber;
    return std::u16string(name, name + std::char_traits<char>::length(name));
}

void VirtualCamera::AddShotFile(Clock::time_point now) {
    const std::u16string name = NextFileName("IMG", "JPG");
    const Picture picture = NextPicture(now);
    const bool real = options.shotFileSize == 0 && JpegPicturesBuilt();
    if (real && cardFolder.empty()) {
        // Measured when it is listed and built when it is read: the Shoot command itself costs
        // nothing, and a card of many shots holds recipes rather than pictures.
        CardObject object;
        object.handle = nextHandle++;
        object.name = name;
        object.make = [picture] {
            return std::make_shared<const Bytes>(
                StillPicture(picture.label, picture.width, picture.height));
        };
        object.measure = [picture] {
            return StillPictureSize(picture.label, picture.width, picture.height);
        };
        object.parent = pictureFolder;
        object.hiddenListings = shotFileDelay;
        card.push_back(std::move(object));
    } else {
        Bytes bytes = real ? StillPicture(picture.label, picture.width, picture.height) : Bytes();
        if (bytes.empty()) {
            bytes =
                JpegLike(options.shotFileSize ? options.shotFileSize : kJpegLikeSize, nextHandle);
        }
        AddObjectLocked(name, std::make_shared<const Bytes>(std::move(bytes)), false, pictureFolder,
                        shotFileDelay);
    }
    if (real) {
        card.back().width = static_cast<uint32_t>(picture.width);
        card.back().height = static_cast<uint32_t>(picture.height);
    }
}

void VirtualCamera::Measure(CardObject& object) {
    if (object.bytes || !object.measure) return;
    object.size = object.measure();
    object.measure = nullptr;
}

SharedBytes VirtualCamera::Content(const CardObject& object) const {
    if (object.bytes || !object.make)
        return object.bytes ? object.bytes : std::make_shared<const Bytes>();
    if (madeHandle != object.handle || !made) {
        made = object.make();
        madeHandle = object.handle;
    }
    return made;
}

// ---------------------------------------------------------------------------------------------
// The card folder

bool VirtualCamera::WriteToFolder(const CardObject& object) {
    if (cardFolder.empty() || object.folder) return true;
    if (!PlainName(object.name)) return false;  // kept on the card in memory only
    SharedBytes bytes = Content(object);
    std::ofstream out(fs::path(cardFolder) / fs::path(object.name),
                      std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes->data()),
              static_cast<std::streamsize>(bytes->size()));
    out.close();
    return static_cast<bool>(out);
}

void VirtualCamera::RemoveFromFolder(const CardObject& object) {
    if (cardFolder.empty() || object.folder || !PlainName(object.name)) return;
    std::error_code error;
    fs::remove(fs::path(cardFolder) / fs::path(object.name), error);
}

void VirtualCamera::EraseObject(std::vector<CardObject>::iterator object) {
    RemoveFromFolder(*object);
    if (madeHandle == object->handle) made.reset();
    card.erase(object);
}

bool VirtualCamera::SetCardFolder(const std::u16string& folder) {
    std::vector<std::pair<std::u16string, Bytes>> files;
    uintmax_t total = 0;
    if (!folder.empty()) {
        std::error_code error;
        fs::create_directories(fs::path(folder), error);
        if (!fs::is_directory(fs::path(folder), error)) return false;
        for (fs::directory_iterator it(fs::path(folder), error), end; !error && it != end;
             it.increment(error)) {
            std::error_code fileError;
            const uintmax_t size = it->is_regular_file(fileError) ? it->file_size(fileError) : 0;
            if (fileError || size > kMaxFolderFile || size > kMaxFolderBytes - total) continue;
            std::u16string name = it->path().filename().u16string();
            if (!PlainName(name) || files.size() >= kMaxFolderFiles) continue;
            // As many bytes as the listing said, should the file grow meanwhile.
            std::ifstream in(it->path(), std::ios::binary);
            Bytes bytes(static_cast<size_t>(size));
            in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size));
            bytes.resize(static_cast<size_t>(in.gcount()));
            total += size;
            files.emplace_back(std::move(name), std::move(bytes));
        }
        if (error) return false;
        std::sort(files.begin(), files.end());
    }
    std::lock_guard<std::mutex> guard(lock);
    cardFolder.clear();
    card.erase(std::remove_if(card.begin(), card.end(),
                              [](const CardObject& object) { return !object.folder; }),
               card.end());
    made.reset();
    long highest = 0;
    for (auto& [name, bytes] : files) {
        highest = std::max(highest, FileNumber(name));
        AddObjectLocked(name, std::make_shared<const Bytes>(std::move(bytes)), false, pictureFolder,
                        0);
    }
    cardFolder = folder;
    nextFileNumber = std::max(nextFileNumber, static_cast<uint32_t>(highest + 1));
    return true;
}

std::u16string VirtualCamera::CardFolder() const {
    std::lock_guard<std::mutex> guard(lock);
    return cardFolder;
}

// ---------------------------------------------------------------------------------------------
// The card, for tests and the OrqSim exports

uint32_t VirtualCamera::AddFile(const std::u16string& name, Bytes bytes, int hiddenListings) {
    std::lock_guard<std::mutex> guard(lock);
    return AddObjectLocked(name, std::make_shared<const Bytes>(std::move(bytes)), false,
                           pictureFolder, hiddenListings);
}

uint32_t VirtualCamera::AddFileOfSize(const std::u16string& name, size_t size) {
    Bytes bytes = JpegLike(size, static_cast<uint32_t>(size));
    bytes.resize(size);
    return AddFile(name, std::move(bytes));
}

bool VirtualCamera::ReplaceFile(uint32_t handle, Bytes bytes) {
    std::lock_guard<std::mutex> guard(lock);
    for (CardObject& object : card) {
        if (object.handle != handle || object.folder) continue;
        object.bytes = std::make_shared<const Bytes>(std::move(bytes));
        object.size = object.bytes->size();
        object.make = nullptr;
        object.measure = nullptr;
        if (madeHandle == handle) made.reset();
        WriteToFolder(object);
        return true;
    }
    return false;
}

bool VirtualCamera::RemoveFile(uint32_t handle) {
    std::lock_guard<std::mutex> guard(lock);
    auto found = std::find_if(card.begin(), card.end(), [&](const CardObject& object) {
        return object.handle == handle && !object.folder;
    });
    if (found == card.end()) return false;
    EraseObject(found);
    return true;
}

void VirtualCamera::ClearCard() {
    std::lock_guard<std::mutex> guard(lock);
    for (const CardObject& object : card) RemoveFromFolder(object);
    card.erase(std::remove_if(card.begin(), card.end(),
                              [](const CardObject& object) { return !object.folder; }),
               card.end());
    made.reset();
}

size_t VirtualCamera::FileCount() const {
    std::lock_guard<std::mutex> guard(lock);
    return static_cast<size_t>(
        std::count_if(card.begin(), card.end(), [](const CardObject& o) { return !o.folder; }));
}

std::vector<CardObject> VirtualCamera::Files() const {
    std::lock_guard<std::mutex> guard(lock);
    std::vector<CardObject> files;
    for (const CardObject& object : card) {
        if (object.folder) continue;
        files.push_back(object);
        files.back().bytes = Content(object);
    }
    return files;
}

SharedBytes VirtualCamera::FileBytes(uint32_t handle) const {
    std::lock_guard<std::mutex> guard(lock);
    for (const CardObject& object : card) {
        if (object.handle == handle) return Content(object);
    }
    return nullptr;
}

}  // namespace orqsim
