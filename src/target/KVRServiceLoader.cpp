#include "target/KVRServiceLoader.h"

#include "base/FileUtil.h"
#include "runtime/LoggerUtility.h"

#include <dlfcn.h>
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
    SharedLibraryHandle handle;
    if (::geteuid() == 0 && library.find('/') != std::string::npos) {
        // Code that root runs from a path must be code that only root could have put in
        // place. Once that holds for the file's real path, nobody else can change what the
        // path names before the dynamic loader opens it. (A bare name is looked up by the
        // dynamic loader in the system's folders.)
        std::string problem;
        std::string realPath;
        const UniqueFd file = OpenFileOnlyRootControls(library, &problem, &realPath);
        if (!file.valid()) {
            if (::access(library.c_str(), F_OK) == 0 && _refused.insert(library).second)
                NSLevelledLog(0, "The library %@ is not loaded: %@", library, problem);
            return false;
        }
        handle = SharedLibraryHandle(::dlopen(realPath.c_str(), RTLD_LAZY | RTLD_LOCAL));
    } else {
        handle = SharedLibraryHandle(::dlopen(library.c_str(), RTLD_LAZY | RTLD_LOCAL));
    }
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
