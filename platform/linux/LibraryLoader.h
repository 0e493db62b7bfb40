#pragma once

#include "platform/Services.h"

namespace quorvix::linuxos {

// dlopen with lazy binding. A library is never closed again: its code may have left threads or handlers behind.
// Callable from any thread.
class LinuxLibraryLoader : public LibraryLoader {
public:
    // nullptr also for a path that is not absolute: the search path of libraries is never asked.
    void* open(std::string_view path) override;
    void* symbol(void* library, const char* name) override;
};

}  // namespace quorvix::linuxos
