#include "target/ProductData.h"

#include "runtime/LoggerUtility.h"

ProductData::~ProductData() {
    NSLevelledLog(3, "dealloc ProductData");
}
