// Every pointer handed to the application is registered here with the function that releases
// it, so that one export (OrqFree) releases anything and termination can sweep what is left.
#pragma once

#include <functional>

namespace orq::memmgr {

using FreeFunction = std::function<void(void*)>;

// What a registered pointer is, for the exports that take one back as a handle.
enum class Kind { Other, Session, ManagerCell };

void Register(void* pointer, FreeFunction free, const char* sourceFile, int sourceLine,
              Kind kind = Kind::Other);
// Runs and forgets the pointer's free function; an unknown pointer is logged and ignored.
void Free(void* pointer);
// Runs every free function still registered (termination).
void Sweep();
// Runs `read` under the table's lock if `pointer` is registered as `kind` and not yet released
// or swept, so that no OrqFree on another thread releases it meanwhile; false otherwise. `read`
// only copies: it must not call into the SDK.
bool ReadLive(const void* pointer, Kind kind, const std::function<void()>& read);

}  // namespace orq::memmgr

#define ORQ_REGISTER_POINTER(pointer, free) \
    ::orq::memmgr::Register(pointer, free, __FILE__, __LINE__)
#define ORQ_REGISTER_HANDLE(pointer, free, kind) \
    ::orq::memmgr::Register(pointer, free, __FILE__, __LINE__, ::orq::memmgr::Kind::kind)
