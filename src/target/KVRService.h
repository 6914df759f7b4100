#pragma once

#include "target/KVRServiceLoader.h"

#include <string>

// Base of the clients of the product family's libraries: the loader that finds their
// functions and the language of the user interface.
class KVRService {
public:
    explicit KVRService(KVRServiceLoader& loader = KVRServiceLoader::sharedInstance());
    virtual ~KVRService() = default;
    KVRService(const KVRService&) = delete;
    KVRService& operator=(const KVRService&) = delete;

    // "en_US" until set.
    void SetUILanguage(const std::string& language) { _uiLanguage = language; }
    const std::string& UILanguage() const { return _uiLanguage; }

protected:
    KVRServiceLoader& _loader;
    std::string _uiLanguage = "en_US";
};
