#include "target/AppValidationData.h"

#include "run/LoggerUtility.h"

AppValidationData::~AppValidationData() {
    NSLevelledLog(3, "dealloc AppValidationData");
}
