// The few operating-system services the SDK needs above the USB transport. One implementation
// per platform (Platform_posix.cpp, Platform_win32.cpp); besides them only the USB backends
// (UsbLib_LibUsb.cpp, UsbLib_WinUsb.h) include a system header.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace orq::platform {

// Separator used when joining folder and file names ('\\' on Windows, '/' elsewhere).
char16_t PathSeparator();

// Folder for the two log files, without a trailing separator. On POSIX it is created if missing.
std::u16string LogFolder();

// Folder of the host process's executable (not of this library), without a trailing separator.
std::u16string ExecutableFolder();

// The system's temporary folder, as the system reports it (may or may not end in a separator).
std::u16string TempFolder();

// Numeric id of the calling thread, as printed in log lines.
uint64_t CurrentThreadId();

// Sends one text to a debugger, if one listens. Never visible to the application otherwise.
void DebuggerOutput(const char* text);

// Appends size bytes to the file at path (created if missing) with one open, one write and one
// close, so that nothing stays buffered and another program may read or delete it between calls.
// The path is UTF-8, so that a caller writing often converts it once.
bool AppendToFile(const std::string& utf8Path, const char* data, size_t size);

// fopen with a 16-bit path; null on failure.
FILE* OpenFile(const std::u16string& path, const char* mode);

// A file written under a private name beside its target and moved over the target only when
// whole: no reader sees half a file, two writers to one path never mix, and a link planted at
// the target is replaced, never followed.
class OutputFile {
public:
    // Removes the partial file unless Commit succeeded.
    virtual ~OutputFile() = default;
    // False on any failure (full disk, file size limit).
    virtual bool Write(const void* data, size_t size) = 0;
    // Flushes to the disk, closes and moves into place; false if any of these failed.
    virtual bool Commit() = 0;
    // Null when the partial file cannot be created (missing or read-only folder).
    static std::unique_ptr<OutputFile> Create(const std::u16string& target);
};

// Names this system gives a meaning of its own, which no file may take (device names, names
// ending in a dot or space on Windows).
bool ReservedFileName(const std::u16string& name);

// Creates one folder level; true when it exists afterwards (made now or before).
bool MakeFolder(const std::u16string& path);

// True when something (file, folder, link) stands at path.
bool PathExists(const std::u16string& path);

// Reads a whole file; false when it cannot be opened or read.
bool ReadFile(const std::u16string& path, std::string& contents);

std::string ToUtf8(const std::u16string& text);
std::u16string FromUtf8(const std::string& text);

// Machine-wide single-instance lock, held for the object's lifetime.
class InstanceLock {
public:
    enum class Status { Acquired, HeldElsewhere, Failed };
    virtual ~InstanceLock() = default;
    // name is the lock's GUID-based name, e.g. "ORQSDK{...}". Null unless Acquired.
    static std::unique_ptr<InstanceLock> Acquire(const std::string& name, Status& status);
};

}  // namespace orq::platform
