#pragma once

/** Marks what the shared library exports; everything else stays hidden. */
#define VESK_EXPORT __attribute__((visibility("default")))
