// libFuzzer target for the configuration reader. The input is written as the bundle's
// config.xml into a scratch folder and loaded the way a run loads it; then every value and
// every list the loader kept is read back, the list entries as the log shows them. A loaded
// configuration must hold the five patcher-level values (their defaults at least).
#include "target/LoadConfigData.h"

#include "base/FileUtil.h"
#include "base/Xml.h"
#include "base/fuzz/FuzzScratchFolder.h"
#include "base/fuzz/XmlFuzzSetup.h"
#include "runtime/Environment.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace {

// Values are read for their side effects only; this keeps the reads from being dropped.
volatile size_t gSink = 0;

void Use(const std::optional<std::string>& value) {
    if (value)
        gSink = gSink + value->size();
}

void Use(const std::vector<XmlNode>& nodes) {
    (void)LoadConfigData::isSingleElementType(nodes);
    for (const XmlNode& node : nodes) {
        gSink = gSink + node.name().size() + node.stringValue().size() + node.toXmlString().size();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Every log line is formatted, so fuzzed values go through the log's formatting as well.
    // The log is standard error; scripts/fuzz.sh sends it away (-close_fd_mask=2).
    (void)SetENVverbosityLevel("debug");
    SetUpXmlForFuzzing();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const FuzzScratchFolder folder("config-fuzz");
    static const std::string path = folder.path() + "/config.xml";
    if (!WriteFile(path, std::string(reinterpret_cast<const char*>(data), size))) {
        std::fprintf(stderr, "ConfigReaderFuzz: cannot write %s\n", path.c_str());
        std::abort();
    }

    LoadConfigData loader;
    if (loader.loadConfigInfoFromFile(path) != &loader)
        return 0;

    const LoadConfigData& loaded = loader;
    if (!loaded.getProductFamily() || !loaded.getProductName() || !loaded.getComboFlag() ||
        !loaded.getPatcherName() || !loaded.getProductNewVersion())
        __builtin_trap(); // a loaded configuration lacks a patcher-level value
    Use(loaded.getProductFamily());
    Use(loaded.getProductName());
    Use(loaded.getComboFlag());
    Use(loaded.getPatcherID());
    Use(loaded.getAppGUID());
    Use(loaded.getPatcherName());
    Use(loaded.getProductNewVersion());
    Use(loaded.getProductOldVersion());

    const ProductData& product = loaded.getAppLocateInfo();
    Use(product.appName);
    Use(product.oldVersion);
    Use(product.newVersion);
    Use(product.kvrFilePath);
    Use(product.appID);
    Use(product.currKORVersion);
    Use(product.showDestinationDialog);
    Use(product.appORDBData);
    Use(product.appOrvelCodeGUIDList);
    Use(product.appAliasList);
    Use(product.appFixedPathList);

    const AppValidationData& validation = loaded.getAppValidationInfo();
    Use(validation.appBundleIdentifier);
    Use(validation.versionOSX);
    Use(validation.appMD5CheckPath);
    Use(validation.appMD5CheckValue);
    Use(validation.spaceRequiedOnOSVolume);
    Use(validation.spaceRequiedOnAppVolume);
    Use(validation.appRunning);
    Use(validation.appKeyFilePath);
    Use(validation.appORDBData);
    Use(validation.keyValuePairs);
    return 0;
}
