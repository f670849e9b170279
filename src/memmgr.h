// Every pointer handed to the application is registered here with the function that releases
// it, so that one export (OrqFree) releases anything and termination can sweep what is left.
#pragma once

#include <functional>

namespace orq::memmgr {

using FreeFunction = std::function<void(void*)>;

void Register(void* pointer, FreeFunction free, const char* sourceFile, int sourceLine);
// Runs and forgets the pointer's free function; an unknown pointer is logged and ignored.
void Free(void* pointer);
// Runs every free function still registered (termination).
void Sweep();

}  // namespace orq::memmgr

#define ORQ_REGISTER_POINTER(pointer, free) \
    ::orq::memmgr::Register(pointer, free, __FILE__, __LINE__)
