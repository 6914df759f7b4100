#include "target/KVRServiceLoader.h"

#include "base/FileUtil.h"
#include "runtime/LoggerUtility.h"

#include <dlfcn.h>
#include <optional>
#include <unistd.h>
#include <utility>

namespace {
// Made before main runs and destroyed after it returns.
KVRServiceLoader gSharedLoader;
} // namespace

SharedLibraryHandle::~SharedLibraryHandle() {
    if (_handle)
        ::dlclose(_handle);
}

SharedLibraryHandle& SharedLibraryHandle::operator=(SharedLibraryHandle&& other) noexcept {
    if (this != &other) {
        if (_handle)
            ::dlclose(_handle);
        _handle = std::exchange(other._handle, nullptr);
    }
    return *this;
}

KVRServiceLoader& KVRServiceLoader::sharedInstance() {
    return gSharedLoader;
}

void KVRServiceLoader::AddLibraryName(const std::string& library) {
    _images.try_emplace(library);
}

bool KVRServiceLoader::LoadLibraryWithName(const std::string& library) {
    if (library.empty())
        return false;
    if (IsLibraryOpen(library))
        return true;
    std::string problem;
    const std::optional<std::string> path = LibraryPathToLoad(library, &problem);
    if (!path) {
        if (::access(library.c_str(), F_OK) == 0 && _refused.insert(library).second)
            NSLevelledLog(0, "The library %@ is not loaded: %@", library, problem);
        return false;
    }
    SharedLibraryHandle handle(::dlopen(path->c_str(), RTLD_LAZY | RTLD_LOCAL));
    if (!handle) {
        (void)::dlerror();
        return false;
    }
    MapImage(library, std::move(handle));
    return true;
}

void KVRServiceLoader::MapImage(const std::string& library, SharedLibraryHandle handle) {
    _images[library] = std::move(handle);
}

void* KVRServiceLoader::FunctionPointerForName(const std::string& library,
                                               const std::string& function) {
    if (!IsLibraryOpen(library))
        (void)LoadLibraryWithName(library);
    auto it = _images.find(library);
    if (it == _images.end() || !it->second)
        return nullptr;
    (void)::dlerror();
    void* address = ::dlsym(it->second.get(), function.c_str());
    if (!address)
        (void)::dlerror();
    return address;
}

bool KVRServiceLoader::IsLibraryOpen(const std::string& library) const {
    auto it = _images.find(library);
    return it != _images.end() && it->second;
}

bool KVRServiceLoader::HasLibraryName(const std::string& library) const {
    return _images.count(library) != 0;
}
