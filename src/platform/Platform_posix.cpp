#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "common/Utf16.h"
#include "platform/Platform.h"

namespace orq::platform {

namespace {

std::string EnvOr(const char* name, const std::string& fallback) {
    const char* value = std::getenv(name);
    return value && *value ? std::string(value) : fallback;
}

void MakeFolders(const std::string& path) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0700);
    }
}

// A debugger is told apart by the tracer pid the kernel reports for us.
bool DebuggerAttached() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("TracerPid:", 0) == 0) return std::atoi(line.c_str() + 10) != 0;
    }
    return false;
}

class FlockInstanceLock : public InstanceLock {
public:
    explicit FlockInstanceLock(int fd) : fd(fd) {}
    ~FlockInstanceLock() override {
        flock(fd, LOCK_UN);
        close(fd);
    }

private:
    int fd;
};

class PosixOutputFile : public OutputFile {
public:
    PosixOutputFile(int fd, std::string partial, std::string target)
        : fd(fd), partial(std::move(partial)), target(std::move(target)) {}
    ~PosixOutputFile() override {
        if (fd >= 0) close(fd);
        if (!committed) unlink(partial.c_str());
    }

    bool Write(const void* data, size_t size) override {
        const auto* bytes = static_cast<const uint8_t*>(data);
        while (size > 0 && fd >= 0) {
            ssize_t written = write(fd, bytes, size);
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return false;
            bytes += written;
            size -= static_cast<size_t>(written);
        }
        return fd >= 0;
    }

    bool Commit() override {
        if (fd < 0) return false;
        bool ok = fsync(fd) == 0;
        ok = close(fd) == 0 && ok;
        fd = -1;
        if (!ok || rename(partial.c_str(), target.c_str()) != 0) return false;
        committed = true;
        return true;
    }

private:
    int fd;
    std::string partial;
    std::string target;
    bool committed = false;
};

}  // namespace

std::unique_ptr<OutputFile> OutputFile::Create(const std::u16string& target) {
    static std::atomic<uint64_t> serial{0};
    std::string path = ToUtf8(target);
    size_t cut = path.rfind('/');
    std::string partial = (cut == std::string::npos ? std::string() : path.substr(0, cut + 1)) +
                          ".orq-" + std::to_string(getpid()) + "-" + std::to_string(++serial) +
                          ".part";
    // A new file only: whatever is planted at that name, a link included, is never opened.
    int fd = open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0) return nullptr;
    return std::make_unique<PosixOutputFile>(fd, std::move(partial), std::move(path));
}

bool ReservedFileName(const std::u16string&) {
    return false;
}

char16_t PathSeparator() {
    return u'/';
}

std::u16string LogFolder() {
    std::string folder = EnvOr("XDG_STATE_HOME", EnvOr("HOME", "/tmp") + "/.local/state");
    MakeFolders(folder);
    return FromUtf8(folder);
}

std::u16string ExecutableFolder() {
    char buffer[PATH_MAX + 1] = {};
    ssize_t length = readlink("/proc/self/exe", buffer, PATH_MAX);
    if (length <= 0) return u"";
    std::string path(buffer, static_cast<size_t>(length));
    return FromUtf8(path.substr(0, path.rfind('/')));
}

bool MakeFolder(const std::u16string& path) {
    std::string narrow = ToUtf8(path);
    struct stat info;
    return mkdir(narrow.c_str(), 0700) == 0 ||
           (errno == EEXIST && stat(narrow.c_str(), &info) == 0 && S_ISDIR(info.st_mode));
}

bool PathExists(const std::u16string& path) {
    struct stat info;
    return lstat(ToUtf8(path).c_str(), &info) == 0;
}

std::u16string TempFolder() {
    return FromUtf8(EnvOr("TMPDIR", "/tmp"));
}

namespace {
thread_local uint64_t cachedThreadId = 0;
}  // namespace

uint64_t CurrentThreadId() {
    // Asked once per thread; a forked child's one thread asks again (see the handler below).
    if (cachedThreadId == 0) {
        static const int forkHandler = pthread_atfork(nullptr, nullptr, [] { cachedThreadId = 0; });
        (void)forkHandler;
        cachedThreadId = static_cast<uint64_t>(syscall(SYS_gettid));
    }
    return cachedThreadId;
}

void DebuggerOutput(const char* text) {
    // Written to stderr only under a debugger, where the developer is looking.
    static const bool attached = DebuggerAttached();
    if (attached) {
        ssize_t ignored = write(STDERR_FILENO, text, std::strlen(text));
        (void)ignored;
    }
}

bool AppendToFile(const std::string& utf8Path, const char* data, size_t size) {
    int fd = open(utf8Path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    bool ok = true;
    while (size > 0) {
        ssize_t wrote = write(fd, data, size);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) {
            ok = false;
            break;
        }
        data += wrote;
        size -= static_cast<size_t>(wrote);
    }
    close(fd);
    return ok;
}

FILE* OpenFile(const std::u16string& path, const char* mode) {
    return std::fopen(ToUtf8(path).c_str(), mode);
}

bool ReadFile(const std::u16string& path, std::string& contents) {
    FILE* file = OpenFile(path, "rb");
    if (!file) return false;
    std::string data;
    char buffer[65536];
    size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0) data.append(buffer, count);
    bool ok = !std::ferror(file);
    std::fclose(file);
    if (ok) contents.swap(data);
    return ok;
}

std::string ToUtf8(const std::u16string& text) {
    return orq::text::Utf16ToUtf8(text.data(), text.size());
}

std::u16string FromUtf8(const std::string& text) {
    std::u16string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        auto byte = static_cast<unsigned char>(text[i]);
        uint32_t c = byte;
        size_t extra = 0;
        if (byte >= 0xF0) {
            c = byte & 0x07;
            extra = 3;
        } else if (byte >= 0xE0) {
            c = byte & 0x0F;
            extra = 2;
        } else if (byte >= 0xC0) {
            c = byte & 0x1F;
            extra = 1;
        }
        ++i;
        for (size_t k = 0; k < extra && i < text.size(); ++k, ++i) {
            c = (c << 6) | (static_cast<unsigned char>(text[i]) & 0x3F);
        }
        if (c >= 0x10000) {
            c -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (c >> 10));
            out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            out += static_cast<char16_t>(c);
        }
    }
    return out;
}

std::unique_ptr<InstanceLock> InstanceLock::Acquire(const std::string& name, Status& status) {
    // One file in /tmp for every user of the machine, as the Windows global mutex is.
    std::string path = "/tmp/" + name + ".lock";
    mode_t oldMask = umask(0);
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    umask(oldMask);
    if (fd < 0) {
        status = errno == EACCES ? Status::HeldElsewhere : Status::Failed;
        return nullptr;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        status = errno == EWOULDBLOCK ? Status::HeldElsewhere : Status::Failed;
        close(fd);
        return nullptr;
    }
    status = Status::Acquired;
    return std::make_unique<FlockInstanceLock>(fd);
}

}  // namespace orq::platform
