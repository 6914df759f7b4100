#include "target/KVRService.h"

KVRService::KVRService(KVRServiceLoader& loader) : _loader(loader) {}
