// The platform layer as the SDK relies on it, on the system the tests run on (wine included).
#include "platform/Platform.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <spawn.h>
#include <sys/wait.h>
extern char** environ;
#endif

namespace fs = std::filesystem;
using namespace orq::platform;

namespace {

#ifdef _WIN32
const char16_t kExeSuffix[] = u".exe";
#else
const char16_t kExeSuffix[] = u"";
#endif

std::u16string Join(std::u16string folder, const std::u16string& name) {
    if (!folder.empty() && folder.back() != PathSeparator()) folder += PathSeparator();
    return folder + name;
}

// Unique per run, so that concurrent builds on one machine do not contend for a lock or a file.
std::string UniqueToken() {
    std::random_device device;
    std::mt19937_64 generator(
        device() ^
        static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
    char text[32];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(generator()));
    return text;
}

std::string LockName() {
    return "ORQTEST{" + UniqueToken() + "}";
}

// Runs lock_probe, which sits beside this test, and returns its exit code (-1 if it did not run).
int RunProbe(const std::string& mode, const std::string& lockName) {
    std::u16string exe = Join(ExecutableFolder(), u"lock_probe" + std::u16string(kExeSuffix));
#ifdef _WIN32
    std::wstring exeWide(exe.begin(), exe.end());
    std::wstring command = L"\"" + exeWide + L"\" " + std::wstring(mode.begin(), mode.end()) +
                           L" " + std::wstring(lockName.begin(), lockName.end());
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(exeWide.c_str(), &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &process))
        return -1;
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 0;
    BOOL gotCode = GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return gotCode ? static_cast<int>(code) : -1;
#else
    std::string path = ToUtf8(exe);
    std::vector<char*> argv = {&path[0], const_cast<char*>(mode.c_str()),
                               const_cast<char*>(lockName.c_str()), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv.data(), environ) != 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
#endif
}

constexpr int kProbeAcquired = 0;
constexpr int kProbeHeldElsewhere = 1;

TEST(InstanceLock, RefusesAnotherProcessWhileHeldAndIsFreedOnReleaseOrTheHoldersDeath) {
    const std::string name = LockName();
    InstanceLock::Status status = InstanceLock::Status::Failed;
    auto lock = InstanceLock::Acquire(name, status);
    ASSERT_EQ(status, InstanceLock::Status::Acquired);
    ASSERT_NE(lock, nullptr);
    EXPECT_EQ(RunProbe("try", name), kProbeHeldElsewhere);
    lock.reset();
    EXPECT_EQ(RunProbe("try", name), kProbeAcquired);
    // Taken again in this process after its release, and after a holder died holding it.
    for (const char* before : {"", "die"}) {
        if (*before) {
            ASSERT_EQ(RunProbe(before, name), kProbeAcquired);
        }
        status = InstanceLock::Status::Failed;
        lock = InstanceLock::Acquire(name, status);
        EXPECT_EQ(status, InstanceLock::Status::Acquired) << before;
        EXPECT_NE(lock, nullptr);
        lock.reset();
    }
}

TEST(Folders, ExecutableTempAndLogFoldersAreUsableDirectories) {
    const std::u16string folder = ExecutableFolder(), temp = TempFolder(), log = LogFolder();
    for (const std::u16string& f : {folder, log}) {
        ASSERT_FALSE(f.empty());
        EXPECT_NE(f.back(), PathSeparator());
        EXPECT_TRUE(fs::path(f).is_absolute()) << ToUtf8(f);
    }
    EXPECT_TRUE(fs::is_directory(fs::path(temp))) << ToUtf8(temp);
    EXPECT_TRUE(fs::is_directory(fs::path(log))) << ToUtf8(log);
    // The running test's, not the working directory (ctest starts it in the build root).
    for (const char16_t* exe : {u"platform_test", u"lock_probe"})
        EXPECT_TRUE(fs::is_regular_file(fs::path(Join(folder, exe + std::u16string(kExeSuffix)))))
            << ToUtf8(folder);
}

TEST(Text, Utf8ConversionRoundTripsNonAscii) {
    // Two-, three- and four-byte sequences; the last is a surrogate pair in UTF-16.
    const std::u16string wide = u"Gr\u00f6\u00dfe \u65e5\u672c \U0001F4F7 ok";
    const std::string narrow =
        "Gr\xc3\xb6\xc3\x9f"
        "e \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x93\xb7 ok";
    EXPECT_EQ(ToUtf8(wide), narrow);
    EXPECT_EQ(FromUtf8(narrow), wide);
    EXPECT_EQ(ToUtf8(u""), "");
    EXPECT_EQ(FromUtf8(""), u"");
    // An embedded NUL is text like any other.
    EXPECT_EQ(ToUtf8(std::u16string(u"a\0b", 3)), std::string("a\0b", 3));
}

TEST(Files, OpenFileAndReadFileUseTheNonAsciiNameAsGiven) {
    std::u16string name = u"orq_\u00e9t\u00e9_\u65e5\u672c_" + FromUtf8(UniqueToken()) + u".bin";
    std::u16string path = Join(TempFolder(), name);
    // Line ends and a NUL must come back byte for byte: both calls work in binary mode.
    const std::string payload("line\r\nnext\n\0end\x1a tail", 21);

    FILE* file = OpenFile(path, "wb");
    ASSERT_NE(file, nullptr) << ToUtf8(path);
    ASSERT_EQ(fwrite(payload.data(), 1, payload.size(), file), payload.size());
    fclose(file);

    // Checked through the standard library, so that a lossy conversion shared by OpenFile and
    // ReadFile cannot hide a wrong name on disk.
    EXPECT_TRUE(fs::is_regular_file(fs::path(path)));
    EXPECT_EQ(fs::file_size(fs::path(path)), payload.size());

    std::string contents = "stale";
    EXPECT_TRUE(ReadFile(path, contents));
    EXPECT_EQ(contents, payload);

    file = OpenFile(path, "ab");
    ASSERT_NE(file, nullptr);
    fputs("+", file);
    fclose(file);
    EXPECT_TRUE(ReadFile(path, contents));
    EXPECT_EQ(contents, payload + "+");

    fs::remove(fs::path(path));
    contents = "untouched";
    EXPECT_FALSE(ReadFile(path, contents));
    EXPECT_EQ(OpenFile(path, "rb"), nullptr);
}

}  // namespace
