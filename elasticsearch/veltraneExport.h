// Marks what the module exports although symbols are hidden by default.
#pragma once

#define VELTRANE_EXPORT __attribute__((visibility("default")))
