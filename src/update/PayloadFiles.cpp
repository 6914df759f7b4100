#include "update/PayloadFiles.h"

#include <iterator>
#include <map>
#include <mutex>

namespace {

std::mutex gHeldMutex;
// Ordered, so that what lies below a folder is one range.
std::map<std::string, std::shared_ptr<const PayloadFiles::File>> gHeld;
uint64_t gHeldBytes = 0;

void EraseLocked(std::map<std::string, std::shared_ptr<const PayloadFiles::File>>::iterator it) {
    gHeldBytes -= it->second->size;
    gHeld.erase(it);
}

} // namespace

std::shared_ptr<const PayloadFiles::File> PayloadFiles::find(const std::string& path) {
    const std::lock_guard lock(gHeldMutex);
    const auto found = gHeld.find(path);
    return found == gHeld.end() ? nullptr : found->second;
}

void PayloadFiles::hold(const std::string& path, File file) {
    auto held = std::make_shared<const File>(std::move(file));
    const std::lock_guard lock(gHeldMutex);
    if (const auto found = gHeld.find(path); found != gHeld.end())
        EraseLocked(found);
    gHeldBytes += held->size;
    gHeld.emplace(path, std::move(held));
}

void PayloadFiles::forget(const std::string& path) {
    const std::lock_guard lock(gHeldMutex);
    if (const auto found = gHeld.find(path); found != gHeld.end())
        EraseLocked(found);
}

void PayloadFiles::forgetBelow(const std::string& folder) {
    std::string prefix = folder;
    while (prefix.size() > 1 && prefix.back() == '/')
        prefix.pop_back();
    prefix += '/';
    const std::lock_guard lock(gHeldMutex);
    for (auto it = gHeld.lower_bound(prefix);
         it != gHeld.end() && it->first.compare(0, prefix.size(), prefix) == 0;)
        EraseLocked(it++);
}

uint64_t PayloadFiles::heldBytes() {
    const std::lock_guard lock(gHeldMutex);
    return gHeldBytes;
}
