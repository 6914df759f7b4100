#include "target/AppValidationData.h"

#include "runtime/LoggerUtility.h"

AppValidationData::~AppValidationData() {
    NSLevelledLog(3, "dealloc AppValidationData");
}
