#pragma once

// The version of the patcher and its tools, as the build states it.
inline constexpr const char* kOrvelVersion = ORVEL_VERSION;
