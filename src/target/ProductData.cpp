#include "target/ProductData.h"

#include "run/LoggerUtility.h"

ProductData::~ProductData() {
    NSLevelledLog(3, "dealloc ProductData");
}
