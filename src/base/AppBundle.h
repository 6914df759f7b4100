#pragma once

#include <optional>
#include <string>

// A bundle directory (<Name>.app) and the places inside it:
//   Contents/Info.plist, Contents/MacOS/<executable>, Contents/Frameworks/,
//   Contents/Resources/ (resources, the patch tool, locale/).
class AppBundle {
public:
    explicit AppBundle(std::string bundlePath);

    // The bundle that holds an executable at Contents/MacOS/<name>; nothing when the
    // executable does not sit in a bundle.
    static std::optional<AppBundle> fromExecutablePath(const std::string& executablePath);
    // The bundle of the running program, found from /proc/self/exe.
    static std::optional<AppBundle> mainBundle();

    const std::string& bundlePath() const { return _bundlePath; }
    std::string contentsPath() const { return _bundlePath + "/Contents"; }
    std::string resourcePath() const { return _bundlePath + "/Contents/Resources"; }
    std::string frameworksPath() const { return _bundlePath + "/Contents/Frameworks"; }
    std::string localePath() const { return resourcePath() + "/locale"; }
    std::string infoPlistPath() const { return _bundlePath + "/Contents/Info.plist"; }
    // <Resources>/<name>.<type> when that file exists.
    std::optional<std::string> pathForResource(const std::string& name,
                                               const std::string& type) const;

private:
    std::string _bundlePath;
};
