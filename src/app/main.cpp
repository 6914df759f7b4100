#include "base/AppBundle.h"
#include "run/Environment.h"
#include "run/MainLoop.h"
#include "run/UpdateEngine.h"
#include "system/PlatformPaths.h"

#include <clocale>

int main(int argc, char** argv) {
    ReadRunFlags(argc, argv);
    std::setlocale(LC_ALL, "");

    HeadlessMainLoop loop;
    UpdateEngine engine(loop, AppBundle::mainBundle(), PlatformPaths::defaults());
    loop.post([&engine] { engine.appLaunched(); });
    return loop.run();
}
