// Log levels: bit values; a mask is an OR of them. Level 0 passes every mask.
#pragma once

constexpr int kLevelCritical = 0;
constexpr int kLevelError = 1;
constexpr int kLevelWarning = 2;
constexpr int kLevelInfo = 4;
constexpr int kLevelDebug = 8;
constexpr int kLevelVerbose = 16;
constexpr int kLevelHead = 32;
