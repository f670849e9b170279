// Second process for the instance-lock tests: tries the lock named by argv[2] and reports the
// outcome as its exit code (0 acquired, 1 held elsewhere, 2 failed, 3 bad usage).
//   lock_probe try <name>   acquire, release, exit
//   lock_probe die <name>   acquire, then exit at once without releasing
#include <cstdlib>
#include <cstring>

#include "platform/Platform.h"

int main(int argc, char** argv) {
    using orq::platform::InstanceLock;
    if (argc != 3) return 3;
    bool die = std::strcmp(argv[1], "die") == 0;
    if (!die && std::strcmp(argv[1], "try") != 0) return 3;

    InstanceLock::Status status = InstanceLock::Status::Failed;
    std::unique_ptr<InstanceLock> lock = InstanceLock::Acquire(argv[2], status);
    if (die && lock) {
        lock.release();  // leaked on purpose: the system must free it with the process
        std::_Exit(0);
    }
    switch (status) {
        case InstanceLock::Status::Acquired:
            return lock ? 0 : 2;
        case InstanceLock::Status::HeldElsewhere:
            return 1;
        case InstanceLock::Status::Failed:
            break;
    }
    return 2;
}
