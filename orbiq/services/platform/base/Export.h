#pragma once

/// Marks what the shared library exports; everything else stays hidden.
#define ORBIQ_EXPORT __attribute__((visibility("default")))

/// Marks a part of an exported class that stays hidden.
#define ORBIQ_HIDDEN __attribute__((visibility("hidden")))
