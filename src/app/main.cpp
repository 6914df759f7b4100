#include "app/FrontEnd.h"
#include "runtime/Environment.h"
#include "runtime/RootEnvironment.h"

#include <clocale>

int main(int argc, char** argv) {
    StartAgainWithoutUnsafeVariables(argv);
    ReadRunFlags(argc, argv);
    std::setlocale(LC_ALL, "");
    return RunPatcherApplication(argc, argv);
}
