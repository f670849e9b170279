// Win32 implementation of the platform services. wchar_t and char16_t are both UTF-16 code units
// on Windows, so paths pass between the two by reinterpretation.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// windows.h first: the header below relies on its types.
#include <shlobj.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "platform/Platform.h"

namespace orq::platform {

namespace {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "Windows wide characters are UTF-16 units");

const wchar_t* Wide(const std::u16string& text) {
    return reinterpret_cast<const wchar_t*>(text.c_str());
}

std::u16string FromWide(const wchar_t* text) {
    return std::u16string(reinterpret_cast<const char16_t*>(text));
}

class Win32InstanceLock : public InstanceLock {
public:
    explicit Win32InstanceLock(HANDLE mutex) : mutex_(mutex) {}
    ~Win32InstanceLock() override {
        // Fails harmlessly when another thread releases us; closing the last handle then
        // removes the name anyway.
        ReleaseMutex(mutex_);
        CloseHandle(mutex_);
    }
    Win32InstanceLock(const Win32InstanceLock&) = delete;
    Win32InstanceLock& operator=(const Win32InstanceLock&) = delete;

private:
    HANDLE mutex_;
};

class Win32OutputFile : public OutputFile {
public:
    Win32OutputFile(HANDLE file, std::u16string partial, std::u16string target)
        : file(file), partial(std::move(partial)), target(std::move(target)) {}
    ~Win32OutputFile() override {
        if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
        if (!committed) DeleteFileW(Wide(partial));
    }

    bool Write(const void* data, size_t size) override {
        const auto* bytes = static_cast<const uint8_t*>(data);
        while (size > 0 && file != INVALID_HANDLE_VALUE) {
            DWORD piece = static_cast<DWORD>(std::min<size_t>(size, 1u << 30));
            DWORD written = 0;
            if (!WriteFile(file, bytes, piece, &written, nullptr) || written == 0) return false;
            bytes += written;
            size -= written;
        }
        return file != INVALID_HANDLE_VALUE;
    }

    bool Commit() override {
        if (file == INVALID_HANDLE_VALUE) return false;
        bool ok = FlushFileBuffers(file) != 0;
        ok = CloseHandle(file) != 0 && ok;
        file = INVALID_HANDLE_VALUE;
        if (!ok || !MoveFileExW(Wide(partial), Wide(target),
                                MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
            return false;
        }
        committed = true;
        return true;
    }

private:
    HANDLE file;
    std::u16string partial;
    std::u16string target;
    bool committed = false;
};

bool IsDeviceName(std::u16string stem) {
    while (!stem.empty() && stem.back() == u' ') stem.pop_back();
    for (char16_t& c : stem) {
        if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
    }
    static const char16_t* const kNames[] = {u"CON", u"PRN", u"AUX", u"NUL", u"CONIN$", u"CONOUT$"};
    for (const char16_t* name : kNames) {
        if (stem == name) return true;
    }
    // COM1 to COM9 and LPT1 to LPT9 (and the superscript digits the system also takes).
    if (stem.size() == 4 && (stem.compare(0, 3, u"COM") == 0 || stem.compare(0, 3, u"LPT") == 0)) {
        char16_t digit = stem[3];
        return (digit >= u'1' && digit <= u'9') || digit == 0xB9 || digit == 0xB2 || digit == 0xB3;
    }
    return false;
}

}  // namespace

std::unique_ptr<OutputFile> OutputFile::Create(const std::u16string& target) {
    static std::atomic<uint64_t> serial{0};
    size_t cut = target.find_last_of(u"\\/");
    std::string suffix = std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++serial);
    std::u16string partial =
        (cut == std::u16string::npos ? std::u16string() : target.substr(0, cut + 1)) + u".orq-" +
        std::u16string(suffix.begin(), suffix.end()) + u".part";
    // A new file only, and a reparse point met at that name is opened as itself, never followed.
    HANDLE file = CreateFileW(Wide(partial), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) return nullptr;
    return std::make_unique<Win32OutputFile>(file, std::move(partial), target);
}

bool ReservedFileName(const std::u16string& name) {
    if (name.empty()) return false;
    if (name.back() == u'.' || name.back() == u' ') return true;
    return IsDeviceName(name.substr(0, name.find(u'.')));
}

char16_t PathSeparator() {
    return u'\\';
}

std::u16string LogFolder() {
    wchar_t buffer[MAX_PATH + 1] = {};
    SHGetSpecialFolderPathW(nullptr, buffer, CSIDL_LOCAL_APPDATA, FALSE);
    return FromWide(buffer);
}

std::u16string ExecutableFolder() {
    wchar_t buffer[1024] = {};
    DWORD length = GetModuleFileNameW(nullptr, buffer, 1024);
    if (length == 0 || length >= 1024) return std::u16string();
    std::u16string path(reinterpret_cast<const char16_t*>(buffer), length);
    size_t cut = path.find_last_of(u'\\');
    return cut == std::u16string::npos ? std::u16string() : path.substr(0, cut);
}

bool MakeFolder(const std::u16string& path) {
    if (CreateDirectoryW(Wide(path), nullptr)) return true;
    DWORD attributes = GetFileAttributesW(Wide(path));
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool PathExists(const std::u16string& path) {
    return GetFileAttributesW(Wide(path)) != INVALID_FILE_ATTRIBUTES;
}

std::u16string TempFolder() {
    std::vector<wchar_t> buffer(4096, L'\0');
    DWORD length = GetTempPathW(static_cast<DWORD>(buffer.size()), buffer.data());
    if (length == 0 || length >= buffer.size()) return std::u16string();
    return FromWide(buffer.data());
}

uint64_t CurrentThreadId() {
    return GetCurrentThreadId();
}

void DebuggerOutput(const char* text) {
    if (text) OutputDebugStringA(text);
}

bool AppendToFile(const std::string& utf8Path, const char* data, size_t size) {
    HANDLE file = CreateFileW(Wide(FromUtf8(utf8Path)), FILE_APPEND_DATA,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    bool ok = true;
    while (size > 0) {
        DWORD chunk = size > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size);
        DWORD wrote = 0;
        if (!WriteFile(file, data, chunk, &wrote, nullptr) || wrote == 0) {
            ok = false;
            break;
        }
        data += wrote;
        size -= wrote;
    }
    CloseHandle(file);
    return ok;
}

FILE* OpenFile(const std::u16string& path, const char* mode) {
    if (!mode) return nullptr;
    std::wstring wideMode(mode, mode + std::char_traits<char>::length(mode));
    return _wfopen(Wide(path), wideMode.c_str());
}

bool ReadFile(const std::u16string& path, std::string& contents) {
    FILE* file = OpenFile(path, "rb");
    if (!file) return false;
    std::string data;
    char chunk[65536];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) data.append(chunk, got);
    bool ok = ferror(file) == 0;
    fclose(file);
    if (ok) contents = std::move(data);
    return ok;
}

std::string ToUtf8(const std::u16string& text) {
    if (text.empty()) return std::string();
    int wideLength = static_cast<int>(text.size());
    int length =
        WideCharToMultiByte(CP_UTF8, 0, Wide(text), wideLength, nullptr, 0, nullptr, nullptr);
    if (length <= 0) return std::string();
    std::string result(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, Wide(text), wideLength, &result[0], length, nullptr, nullptr);
    return result;
}

std::u16string FromUtf8(const std::string& text) {
    if (text.empty()) return std::u16string();
    int narrowLength = static_cast<int>(text.size());
    int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), narrowLength, nullptr, 0);
    if (length <= 0) return std::u16string();
    std::u16string result(static_cast<size_t>(length), u'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), narrowLength,
                        reinterpret_cast<wchar_t*>(&result[0]), length);
    return result;
}

std::unique_ptr<InstanceLock> InstanceLock::Acquire(const std::string& name, Status& status) {
    std::u16string fullName = u"Global\\" + FromUtf8(name);
    HANDLE mutex = CreateMutexW(nullptr, TRUE, Wide(fullName));
    if (!mutex) {
        status = Status::Failed;
        return nullptr;
    }
    if (GetLastError() == ERROR_ALREADY_EXISTS) {
        CloseHandle(mutex);
        status = Status::HeldElsewhere;
        return nullptr;
    }
    status = Status::Acquired;
    return std::make_unique<Win32InstanceLock>(mutex);
}

}  // namespace orq::platform
