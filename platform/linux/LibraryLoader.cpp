#include "platform/linux/LibraryLoader.h"

#include <dlfcn.h>

#include <string>

namespace quorvix::linuxos {

void* LinuxLibraryLoader::open(std::string_view path) {
    if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) return nullptr;
    return dlopen(std::string(path).c_str(), RTLD_LAZY | RTLD_LOCAL);
}

void* LinuxLibraryLoader::symbol(void* library, const char* name) {
    // Without a library dlsym would search the daemon itself.
    return library ? dlsym(library, name) : nullptr;
}

}  // namespace quorvix::linuxos
