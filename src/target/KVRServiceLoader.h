#pragma once

#include <map>
#include <set>
#include <string>

// An open shared library, closed when its owner goes.
class SharedLibraryHandle {
public:
    SharedLibraryHandle() = default;
    explicit SharedLibraryHandle(void* handle) : _handle(handle) {}
    ~SharedLibraryHandle();
    SharedLibraryHandle(SharedLibraryHandle&& other) noexcept : _handle(other._handle) {
        other._handle = nullptr;
    }
    SharedLibraryHandle& operator=(SharedLibraryHandle&& other) noexcept;
    SharedLibraryHandle(const SharedLibraryHandle&) = delete;
    SharedLibraryHandle& operator=(const SharedLibraryHandle&) = delete;

    void* get() const { return _handle; }
    explicit operator bool() const { return _handle != nullptr; }

private:
    void* _handle = nullptr;
};

// Opens shared libraries by path and finds their functions by name. A library named with
// AddLibraryName is opened only when the first of its functions is looked up; a library
// that cannot be opened is tried again at the next lookup. Libraries stay open until the
// loader goes (the process-wide loader: at exit).
//
// Meant for the main thread; no locking.
class KVRServiceLoader {
public:
    KVRServiceLoader() = default;
    KVRServiceLoader(const KVRServiceLoader&) = delete;
    KVRServiceLoader& operator=(const KVRServiceLoader&) = delete;

    // The loader of the process, made at program start.
    static KVRServiceLoader& sharedInstance();

    // Enters the library with no handle yet; a name already entered is left as it is.
    void AddLibraryName(const std::string& library);
    // Opens the library with lazy binding and local symbols and keeps its handle under its
    // name. True when the library is open afterwards. An empty name is never opened; a
    // failure only clears the dynamic loader's error state. A root process opens a
    // library named by a path only when only root controls it (OpenFileOnlyRootControls); another
    // counts as missing, with a log line the first time.
    bool LoadLibraryWithName(const std::string& library);
    // The address of the function in the library, opening the library first when needed;
    // nullptr when the library cannot be opened or has no such function.
    [[nodiscard]] void* FunctionPointerForName(const std::string& library,
                                               const std::string& function);

    // True when the library is entered and open.
    bool IsLibraryOpen(const std::string& library) const;
    // True when the library is entered, open or not.
    bool HasLibraryName(const std::string& library) const;

private:
    void MapImage(const std::string& library, SharedLibraryHandle handle);

    // Libraries refused for their owner or mode, logged once each.
    std::set<std::string> _refused;
    // Library path to its handle; empty until opened.
    std::map<std::string, SharedLibraryHandle> _images;
};
